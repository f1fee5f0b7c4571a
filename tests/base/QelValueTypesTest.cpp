#include "base/QelIntRange.h"
#include "base/QelSize2.h"

#include "support/BaseTestSupport.h"

#include <gtest/gtest.h>

#include <functional>

namespace {

constexpr std::int32_t kLowest = QelIntRange::kLowest;
constexpr std::int32_t kHighest = QelIntRange::kHighest;
const QelIntRange kEmpty = QelIntRange::Empty();

// One past what fits, the 32-bit difference would wrap; an infinite bound gives the largest length.
TEST(QelIntRangeTest, LengthCapsAtTheHighestValueAndSetOperationsTreatEmptyAndInvertedOperandsAsEmpty)
{
    const std::pair<QelIntRange, std::int32_t> cases[] = {
        {QelIntRange(), 0},  // the default is the empty range
        {{kLowest + 1, -1}, 0x7FFFFFFF},  // the longest that fits
        {{-2, 0x7FFFFFFE}, kHighest},
        {QelIntRange(true), kHighest},
    };
    for (const auto& [range, length] : cases)
        EXPECT_EQ(range.Length(), length) << testing::PrintToString(range);

    // Intersection and union treat empty and inverted operands as empty.
    const struct {
        QelIntRange a, b, intersection, join;
    } operations[] = {
        {{3, 9}, {0, 5}, {3, 5}, {0, 9}},
        {{0, 5}, {5, 9}, {5, 5}, {0, 9}},
        {{0, 1}, {8, 9}, kEmpty, {0, 9}},  // disjoint: the canonical empty range; the union spans the gap
        {QelIntRange(true), {-4, 4}, {-4, 4}, QelIntRange(true)},
        {kEmpty, {2, 3}, kEmpty, {2, 3}},
        {{0, 9}, {5, 4}, kEmpty, {0, 9}},
    };
    for (const auto& c : operations) {
        SCOPED_TRACE(testing::PrintToString(c.a) + " with " + testing::PrintToString(c.b));
        EXPECT_EQ(c.a.And(c.b), c.intersection);
        EXPECT_EQ(c.a.Or(c.b), c.join);
    }
    // The empty range lies inside everything.
    EXPECT_TRUE(QelIntRange(0, 5).Contains(kEmpty) && kEmpty.Contains(kEmpty));
    EXPECT_FALSE(kEmpty.Contains(QelIntRange(1, 1)) || QelIntRange(0, 5).Contains(QelIntRange(4, 6)));
}

// Proportions are height over width, and those within 2^-52 of zero are errors.
TEST(QelSize2Test, MaximalSubsetKeepsOneSideAndTruncatesTheOtherAndRefusesBadInput)
{
    const struct {
        QelSize2 size;
        double proportions;
        QelSize2 subset;
    } cases[] = {
        {{100, 100}, 1.0 / 3.0, {100, 33}},
        {{100, 100}, 3.0, {33, 100}},
        {{100, 100}, 0x1p-51, {100, 0}},  // just above the smallest proportions allowed
    };
    for (const auto& c : cases)
        EXPECT_EQ(c.size.MaximalSubset(c.proportions), c.subset) << testing::PrintToString(c.size) << c.proportions;
    EXPECT_EQ(QelSize2(640, 480).MaximalSubset(QelSize2(16, 9)), QelSize2(640, 360));

    const QelSize2 size(100, 100);
    const std::pair<std::function<void()>, const char*> errors[] = {
        {[] { (void)QelSize2(-1, 5); }, "QelSize2::QelSize2: Negative size"},
        {[] { (void)QelSize2(5, -1); }, "QelSize2::QelSize2: Negative size"},
        {[&] { (void)size.MaximalSubset(-0x1p-52); }, "QelSize2::MaximalSubset:Invalid proportions: -0.000000"},
        {[&] { (void)size.MaximalSubset(QelSize2(0, 5)); }, "QelSize2::MaximumalSubset: Invalid proportions: 0x5"},
        {[&] { (void)size.MaximalSubset(QelSize2(5, 0)); }, "QelSize2::MaximumalSubset: Invalid proportions: 5x0"},
    };
    for (const auto& [call, text] : errors)
        EXPECT_EQ(CatchReport<QelThrowBugHandler::ErrorException>(call).text, text);
}

}  // namespace
