#include "base/QelSize2.h"

#include "support/BaseTestSupport.h"

#include <gtest/gtest.h>

namespace {

using ErrorException = QelThrowBugHandler::ErrorException;

TEST(QelSize2Test, NegativeSidesAreAnErrorButZeroIsFine)
{
    EXPECT_EQ(CatchReport<ErrorException>([] { (void)QelSize2(-1, 5); }).text, "QelSize2::QelSize2: Negative size");
    EXPECT_EQ(CatchReport<ErrorException>([] { (void)QelSize2(5, -1); }).text, "QelSize2::QelSize2: Negative size");
    EXPECT_EQ(QelSize2(0, 0), QelSize2());
}

TEST(QelSize2Test, SquareProportionsTakeTheShorterSide)
{
    EXPECT_EQ(QelSize2(200, 100).MaximalSubset(1.0), QelSize2(100, 100));
    EXPECT_EQ(QelSize2(100, 200).MaximalSubset(1.0), QelSize2(100, 100));
}

TEST(QelSize2Test, MaximalSubsetTruncatesTheSideItComputes)
{
    EXPECT_EQ(QelSize2(100, 100).MaximalSubset(1.0 / 3.0), QelSize2(100, 33));
    EXPECT_EQ(QelSize2(100, 100).MaximalSubset(3.0), QelSize2(33, 100));
    // Already in proportion: the whole size.
    EXPECT_EQ(QelSize2(200, 100).MaximalSubset(0.5), QelSize2(200, 100));
    EXPECT_EQ(QelSize2(0, 0).MaximalSubset(0.5), QelSize2(0, 0));
}

TEST(QelSize2Test, ProportionsOfASizeAreItsHeightOverWidth)
{
    EXPECT_EQ(QelSize2(640, 480).MaximalSubset(QelSize2(16, 9)), QelSize2(640, 360));
    EXPECT_EQ(QelSize2(640, 480).MaximalSubset(QelSize2(9, 16)), QelSize2(270, 480));
}

TEST(QelSize2Test, ProportionsWithin2ToTheMinus52OfZeroAreAnError)
{
    const QelSize2 size(100, 100);
    EXPECT_EQ(CatchReport<ErrorException>([&] { (void)size.MaximalSubset(0.0); }).text,
              "QelSize2::MaximalSubset:Invalid proportions: 0.000000");
    EXPECT_EQ(CatchReport<ErrorException>([&] { (void)size.MaximalSubset(-0x1p-52); }).text,
              "QelSize2::MaximalSubset:Invalid proportions: -0.000000");
    EXPECT_EQ(size.MaximalSubset(0x1p-51), QelSize2(100, 0));
}

TEST(QelSize2Test, ProportionsWithAZeroSideAreAnError)
{
    const QelSize2 size(100, 100);
    EXPECT_EQ(CatchReport<ErrorException>([&] { (void)size.MaximalSubset(QelSize2(0, 5)); }).text,
              "QelSize2::MaximumalSubset: Invalid proportions: 0x5");
    EXPECT_EQ(CatchReport<ErrorException>([&] { (void)size.MaximalSubset(QelSize2(5, 0)); }).text,
              "QelSize2::MaximumalSubset: Invalid proportions: 5x0");
}

}  // namespace
