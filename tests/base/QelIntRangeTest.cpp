#include "base/QelIntRange.h"

#include "support/BaseTestSupport.h"

#include <gtest/gtest.h>

namespace {

constexpr std::int32_t kLowest = QelIntRange::kLowest;
constexpr std::int32_t kHighest = QelIntRange::kHighest;

TEST(QelIntRangeTest, DefaultRangeIsTheEmptyRangeAndNotInfinite)
{
    const QelIntRange range;
    EXPECT_EQ(range.Min, 0x7FFFFFFF);
    EXPECT_EQ(range.Max, kLowest);
    EXPECT_TRUE(range.IsEmpty());
    EXPECT_EQ(range, QelIntRange::Empty());
    EXPECT_EQ(range.Length(), 0);
    EXPECT_FALSE(range.IsMinInf());
    EXPECT_FALSE(range.IsMaxInf());
    EXPECT_FALSE(range.IsInf());
    EXPECT_FALSE(range.Contains(0));
}

TEST(QelIntRangeTest, InfiniteRangesHaveTheLargestLength)
{
    const QelIntRange infinite(true);
    EXPECT_EQ(infinite, QelIntRange(kLowest, kHighest));
    EXPECT_EQ(infinite.Length(), kHighest);
    EXPECT_EQ(QelIntRange(kLowest, 5).Length(), kHighest);
    EXPECT_TRUE(QelIntRange(kLowest, 5).IsMinInf());
    EXPECT_EQ(QelIntRange(5, kHighest).Length(), kHighest);
    EXPECT_TRUE(QelIntRange(5, kHighest).IsMaxInf());
    EXPECT_FALSE(infinite.IsEmpty());
}

TEST(QelIntRangeTest, LengthCountsBothEnds)
{
    EXPECT_EQ(QelIntRange(3, 3).Length(), 1);
    EXPECT_EQ(QelIntRange(-2, 2).Length(), 5);
    EXPECT_EQ(QelIntRange(0, 0x7FFFFFFD).Length(), 0x7FFFFFFE);
    EXPECT_EQ(QelIntRange(kLowest + 1, -1).Length(), 0x7FFFFFFF);
}

TEST(QelIntRangeTest, LengthThatOverflowsIsCappedAtTheHighestValue)
{
    EXPECT_EQ(QelIntRange(-2, 0x7FFFFFFE).Length(), 0x7FFFFFFF);
    EXPECT_EQ(QelIntRange(-1, 0x7FFFFFFE).Length(), 0x7FFFFFFF);
    EXPECT_EQ(QelIntRange(kLowest + 1, 0).Length(), 0x7FFFFFFF);
}

TEST(QelIntRangeTest, IntersectionTakesTheLargerMinimumAndTheSmallerMaximum)
{
    EXPECT_EQ(QelIntRange(0, 5).And(QelIntRange(3, 9)), QelIntRange(3, 5));
    EXPECT_EQ(QelIntRange(3, 9).And(QelIntRange(0, 5)), QelIntRange(3, 5));
    EXPECT_EQ(QelIntRange(0, 5).And(QelIntRange(5, 9)), QelIntRange(5, 5));
    EXPECT_EQ(QelIntRange(true).And(QelIntRange(-4, 4)), QelIntRange(-4, 4));
}

TEST(QelIntRangeTest, DisjointOrEmptyIntersectionIsTheCanonicalEmptyRange)
{
    const QelIntRange disjoint = QelIntRange(0, 5).And(QelIntRange(6, 9));
    EXPECT_EQ(disjoint.Min, 0x7FFFFFFF);
    EXPECT_EQ(disjoint.Max, kLowest);
    EXPECT_EQ(QelIntRange(6, 9).And(QelIntRange(0, 5)), QelIntRange::Empty());
    EXPECT_EQ(QelIntRange(true).And(QelIntRange::Empty()), QelIntRange::Empty());
    EXPECT_EQ(QelIntRange::Empty().And(QelIntRange(true)), QelIntRange::Empty());
    // An inverted operand counts as empty too.
    EXPECT_EQ(QelIntRange(0, 9).And(QelIntRange(5, 4)), QelIntRange::Empty());
}

TEST(QelIntRangeTest, UnionIgnoresEmptyOperandsAndSpansGaps)
{
    EXPECT_EQ(QelIntRange::Empty().Or(QelIntRange(2, 3)), QelIntRange(2, 3));
    EXPECT_EQ(QelIntRange(2, 3).Or(QelIntRange::Empty()), QelIntRange(2, 3));
    EXPECT_EQ(QelIntRange(0, 1).Or(QelIntRange(8, 9)), QelIntRange(0, 9));
}

TEST(QelIntRangeTest, ContainmentTreatsTheEmptyRangeAsInsideEverything)
{
    EXPECT_TRUE(QelIntRange(0, 5).Contains(0));
    EXPECT_TRUE(QelIntRange(0, 5).Contains(5));
    EXPECT_FALSE(QelIntRange(0, 5).Contains(6));
    EXPECT_TRUE(QelIntRange(0, 5).Contains(QelIntRange::Empty()));
    EXPECT_TRUE(QelIntRange::Empty().Contains(QelIntRange::Empty()));
    EXPECT_FALSE(QelIntRange::Empty().Contains(QelIntRange(1, 1)));
    EXPECT_FALSE(QelIntRange(0, 5).Contains(QelIntRange(4, 6)));
}

TEST(QelIntRangeTest, BoxesMeasureTheirThreeRanges)
{
    const QelIntBBox3 empty;
    EXPECT_EQ(empty.Width(), 0);
    EXPECT_TRUE(empty.Z.IsEmpty());

    const QelIntBBox3 box(QelIntRange(-1, 8), QelIntRange(2, 4), QelIntRange(0, 0));
    EXPECT_EQ(box.Left(), -1);
    EXPECT_EQ(box.Top(), 2);
    EXPECT_EQ(box.Front(), 0);
    EXPECT_EQ(box.Width(), 10);
    EXPECT_EQ(box.Height(), 3);
    EXPECT_EQ(box.Depth(), 1);

    const QelIntBBox3 infinite = QelIntBBox3::Ranges(QelIntRange(true), QelIntRange(true), QelIntRange(true));
    EXPECT_EQ(infinite.Depth(), kHighest);
    EXPECT_FALSE(infinite.Equals(box));
    EXPECT_TRUE(box.Equals(QelIntBBox3(QelIntRange(-1, 8), QelIntRange(2, 4), QelIntRange(0, 0))));
}

}  // namespace
