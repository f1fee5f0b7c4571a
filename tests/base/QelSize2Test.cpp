#include "base/QelSize2.h"

#include "support/BaseTestSupport.h"

#include <gtest/gtest.h>

#include <functional>

namespace {

using ErrorException = QelThrowBugHandler::ErrorException;

TEST(QelSize2Test, MaximalSubsetKeepsOneSideAndTruncatesTheOther)
{
    const struct {
        QelSize2 size;
        double proportions;
        QelSize2 subset;
    } cases[] = {
        {{100, 100}, 1.0 / 3.0, {100, 33}},
        {{100, 100}, 3.0, {33, 100}},
        {{200, 100}, 0.5, {200, 100}},  // already in proportion
        {{0, 0}, 0.5, {0, 0}},
        {{100, 100}, 0x1p-51, {100, 0}},  // just above the smallest proportions allowed
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::PrintToString(c.size) + " to " + std::to_string(c.proportions));
        EXPECT_EQ(c.size.MaximalSubset(c.proportions), c.subset);
    }
    // A size gives its height over its width.
    EXPECT_EQ(QelSize2(640, 480).MaximalSubset(QelSize2(16, 9)), QelSize2(640, 360));
}

TEST(QelSize2Test, NegativeSidesAndProportionsNearZeroAreErrors)
{
    const QelSize2 size(100, 100);
    const struct {
        std::function<void()> call;
        const char* text;
    } cases[] = {
        {[] { (void)QelSize2(-1, 5); }, "QelSize2::QelSize2: Negative size"},
        {[] { (void)QelSize2(5, -1); }, "QelSize2::QelSize2: Negative size"},
        // Within 2^-52 of zero.
        {[&] { (void)size.MaximalSubset(0.0); }, "QelSize2::MaximalSubset:Invalid proportions: 0.000000"},
        {[&] { (void)size.MaximalSubset(-0x1p-52); }, "QelSize2::MaximalSubset:Invalid proportions: -0.000000"},
        {[&] { (void)size.MaximalSubset(QelSize2(0, 5)); }, "QelSize2::MaximumalSubset: Invalid proportions: 0x5"},
        {[&] { (void)size.MaximalSubset(QelSize2(5, 0)); }, "QelSize2::MaximumalSubset: Invalid proportions: 5x0"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << "case " << &c - cases);
        EXPECT_EQ(CatchReport<ErrorException>(c.call).text, c.text);
    }
}

}  // namespace
