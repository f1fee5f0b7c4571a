#include "base/QelIntRange.h"

#include "support/BaseTestSupport.h"

#include <gtest/gtest.h>

namespace {

constexpr std::int32_t kLowest = QelIntRange::kLowest;
constexpr std::int32_t kHighest = QelIntRange::kHighest;
const QelIntRange kEmpty = QelIntRange::Empty();

TEST(QelIntRangeTest, LengthCountsBothEndsAndCapsWhatDoesNotFitAtTheHighestValue)
{
    const struct {
        QelIntRange range;
        std::int32_t length;
    } cases[] = {
        {QelIntRange(), 0},  // the default is the empty range
        {{3, 3}, 1},
        {{-2, 2}, 5},
        {{0, 0x7FFFFFFD}, 0x7FFFFFFE},
        {{kLowest + 1, -1}, 0x7FFFFFFF},
        // One past what fits: the 32-bit difference would wrap.
        {{-2, 0x7FFFFFFE}, kHighest},
        {{kLowest + 1, 0}, kHighest},
        // An infinite bound gives the largest length.
        {QelIntRange(true), kHighest},
        {{kLowest, 5}, kHighest},
        {{5, kHighest}, kHighest},
    };
    for (const auto& c : cases)
        EXPECT_EQ(c.range.Length(), c.length) << testing::PrintToString(c.range);
    EXPECT_FALSE(kEmpty.IsInf());
    EXPECT_FALSE(QelIntRange(true).IsEmpty());
}

TEST(QelIntRangeTest, IntersectionUnionAndContainmentTreatEmptyAndInvertedOperandsAsEmpty)
{
    const struct {
        QelIntRange a, b, intersection, join;
    } cases[] = {
        {{0, 5}, {3, 9}, {3, 5}, {0, 9}},
        {{3, 9}, {0, 5}, {3, 5}, {0, 9}},
        {{0, 5}, {5, 9}, {5, 5}, {0, 9}},
        {{0, 1}, {8, 9}, kEmpty, {0, 9}},  // disjoint: the canonical empty range; the union spans the gap
        {{6, 9}, {0, 5}, kEmpty, {0, 9}},
        {QelIntRange(true), {-4, 4}, {-4, 4}, QelIntRange(true)},
        {QelIntRange(true), kEmpty, kEmpty, QelIntRange(true)},
        {kEmpty, {2, 3}, kEmpty, {2, 3}},
        {{2, 3}, kEmpty, kEmpty, {2, 3}},
        {{0, 9}, {5, 4}, kEmpty, {0, 9}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::PrintToString(c.a) + " with " + testing::PrintToString(c.b));
        EXPECT_EQ(c.a.And(c.b), c.intersection);
        EXPECT_EQ(c.a.Or(c.b), c.join);
    }
    // The empty range lies inside everything.
    EXPECT_TRUE(QelIntRange(0, 5).Contains(5) && !QelIntRange(0, 5).Contains(6) && !kEmpty.Contains(0));
    EXPECT_TRUE(QelIntRange(0, 5).Contains(kEmpty) && kEmpty.Contains(kEmpty));
    EXPECT_FALSE(kEmpty.Contains(QelIntRange(1, 1)) || QelIntRange(0, 5).Contains(QelIntRange(4, 6)));
}

}  // namespace
