#include "image/QelPixelVariant.h"

#include "support/AssertionText.h"

#include <gtest/gtest.h>

#include <functional>

namespace {

using Kind = QelPixelVariant::Kind;

TEST(QelPixelVariantTest, FactoriesCutTheValueToTheirKindAndAnyPassesEveryReader)
{
    EXPECT_EQ(QelPixelVariant::SixteenBitGrey(0x12345).AsUnsigned16(), 0x2345);
    EXPECT_EQ(QelPixelVariant::SignedEightBit(-3).RawValue(), 0xFFFFFFFDu);
    EXPECT_EQ(QelPixelVariant::OfKind(Kind::Signed16, 0x8000u).RawValue(), 0xFFFF8000u);
    EXPECT_EQ(QelPixelVariant::FloatingPoint(-2.5f).AsFloat(), -2.5f);
    EXPECT_EQ(QelPixelVariant::ThirtyTwoBitColor(1, 2, 3, 4).AsColor32(), 0x04030201u);
    EXPECT_EQ(QelPixelVariant::TwentyFourBitBGR(0x11, 0x22, 0x33).AsColor32(), 0xFF332211u);  // opaque
    EXPECT_EQ(QelPixelVariant::OfKind(Kind::Unsigned8, 0x7A).AsColor32(), 0x7A7A7A7Au);      // grey in all four bytes

    EXPECT_EQ(QelPixelVariant::kAnyHalf.AsSigned8(), -128);
    EXPECT_EQ(QelPixelVariant::kAnyHalf.AsColor32(), 0x80808080u);
}

TEST(QelPixelVariantTest, ReadersReportUninitializedBeforeWrongKind)
{
    const QelPixelVariant none, grey = QelPixelVariant::SixteenBitGrey(1);
    const std::pair<std::function<void()>, const char*> cases[] = {
        {[&] { (void)none.AsUnsigned8(); }, "QelPixelVariant: Not initialized"},
        {[&] { (void)none.AsColor32(); }, "QelPixelVariant: Not initialized"},
        {[&] { (void)grey.AsUnsigned8(); }, "QelPixelVariant: Runtime type error"},
        {[&] { (void)grey.AsSigned16(); }, "QelPixelVariant: Runtime type error"},
        {[] { (void)QelPixelVariant::TwentyFourBitBGR(1, 2, 3).AsFloat(); }, "QelPixelVariant: Runtime type error"},
        // The colour reader takes grey bytes only: other kinds fail the 8-bit reader's test.
        {[&] { (void)grey.AsColor32(); }, "QelPixelVariant: Trying to use 16bit input as 32bit value"},
        {[] { (void)QelPixelVariant::SignedEightBit(1).AsColor32(); }, "QelPixelVariant: Runtime type error"},
    };
    int i = 0;
    for (const auto& [read, text] : cases)
        EXPECT_EQ(AssertionText(read), text) << "case " << i++;
}

}  // namespace
