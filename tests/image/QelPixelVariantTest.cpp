#include "image/QelPixelVariant.h"

#include "image/BugReportText.h"

#include <gtest/gtest.h>

namespace {

using Kind = QelPixelVariant::Kind;

TEST(QelPixelVariantTest, AnyKindPassesEveryReader)
{
    const QelPixelVariant half = QelPixelVariant::kAnyHalf;
    EXPECT_EQ(half.GetKind(), Kind::Any);
    EXPECT_EQ(half.AsUnsigned8(), 0x80);
    EXPECT_EQ(half.AsSigned8(), -128);
    EXPECT_EQ(half.AsUnsigned16(), 0x80);
    EXPECT_EQ(half.AsSigned16(), 0x80);
    EXPECT_EQ(half.AsColor32(), 0x80808080u);  // through the 8-bit reader: grey in all four bytes
    EXPECT_EQ(QelPixelVariant::kAnyZero.AsColor32(), 0u);
    EXPECT_EQ(QelPixelVariant::kAnyZero.AsFloat(), 0.0f);
}

TEST(QelPixelVariantTest, FactoriesHoldTheirKindsValueCutToWidth)
{
    EXPECT_EQ(QelPixelVariant::SixteenBitGrey(0x12345).AsUnsigned16(), 0x2345);
    EXPECT_EQ(QelPixelVariant::SignedEightBit(-3).RawValue(), 0xFFFFFFFDu);
    EXPECT_EQ(QelPixelVariant::OfKind(Kind::Signed16, 0x8000u).RawValue(), 0xFFFF8000u);
    EXPECT_EQ(QelPixelVariant::FloatingPoint(-2.5f).AsFloat(), -2.5f);
    EXPECT_EQ(QelPixelVariant::ThirtyTwoBitColor(1, 2, 3, 4).AsColor32(), 0x04030201u);
}

TEST(QelPixelVariantTest, TwentyFourBitBgrReadsBackWithFullTopByte)
{
    EXPECT_EQ(QelPixelVariant::TwentyFourBitBGR(0x11, 0x22, 0x33).AsColor32(), 0xFF332211u);
}

TEST(QelPixelVariantTest, ColorReaderTakesGreyBytesButRefusesSixteenBitGrey)
{
    EXPECT_EQ(QelPixelVariant::OfKind(Kind::Unsigned8, 0x7A).AsColor32(), 0x7A7A7A7Au);
    EXPECT_EQ(BugReportText([] { (void)QelPixelVariant::SixteenBitGrey(0x80).AsColor32(); }),
              "QelPixelVariant: Trying to use 16bit input as 32bit value");
    // Other kinds fail in the 8-bit reader's kind test.
    EXPECT_EQ(BugReportText([] { (void)QelPixelVariant::SignedEightBit(1).AsColor32(); }),
              "QelPixelVariant: Runtime type error");
    EXPECT_EQ(BugReportText([] { (void)QelPixelVariant().AsColor32(); }), "QelPixelVariant: Not initialized");
}

TEST(QelPixelVariantTest, ReadersReportUninitializedBeforeWrongKind)
{
    const QelPixelVariant none;
    EXPECT_EQ(BugReportText([&] { (void)none.AsUnsigned8(); }), "QelPixelVariant: Not initialized");

    const QelPixelVariant grey = QelPixelVariant::SixteenBitGrey(1);
    EXPECT_EQ(BugReportText([&] { (void)grey.AsUnsigned8(); }), "QelPixelVariant: Runtime type error");
    EXPECT_EQ(BugReportText([&] { (void)grey.AsSigned16(); }), "QelPixelVariant: Runtime type error");
    EXPECT_EQ(BugReportText([&] { (void)QelPixelVariant::TwentyFourBitBGR(1, 2, 3).AsFloat(); }),
              "QelPixelVariant: Runtime type error");
}

}  // namespace
