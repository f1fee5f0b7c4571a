#include "image/QelRgbColorSpec.h"

#include "image/BugReportText.h"
#include "image/QelInk.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <tuple>

namespace {

using Channel = QelRgbColorSpec::Channel;
using Access = QelRgbColorSpec::Access;

// Bit count and the 8-bit, 16-bit and 32-bit shifts of one component.
std::tuple<int, int, int, int> Shifts(const QelRgbColorSpec& spec, Channel c)
{
    return {spec.BitCount(c), spec.Shift8(c), spec.Shift16(c), spec.Shift32(c)};
}

// ---- Masks and shifts ----

TEST(QelRgbColorSpecTest, MasksGiveShiftsFromTheirHighestBit)
{
    const QelRgbColorSpec bgra(0x00FF0000, 0x0000FF00, 0x000000FF, 0xFF000000, Access::Word32, 4);
    EXPECT_EQ(Shifts(bgra, Channel::Red), std::tuple(8, 16, 8, 8));
    EXPECT_EQ(Shifts(bgra, Channel::Blue), std::tuple(8, 0, -8, 24));
    EXPECT_EQ(Shifts(bgra, Channel::Alpha), std::tuple(8, 24, 16, 0));

    const QelRgbColorSpec rgb565(0xF800, 0x07E0, 0x001F, 0, Access::Word16, 2);
    EXPECT_EQ(Shifts(rgb565, Channel::Red), std::tuple(5, 8, 0, 16));
    EXPECT_EQ(Shifts(rgb565, Channel::Green), std::tuple(6, 3, -5, 21));
    EXPECT_EQ(Shifts(rgb565, Channel::Blue), std::tuple(5, -3, -11, 27));
    // A zero mask counts as highest bit 0 with no bits.
    EXPECT_EQ(Shifts(rgb565, Channel::Alpha), std::tuple(0, -7, -15, 31));
    EXPECT_FALSE(rgb565.HasAlpha());
}

// ---- Reading and writing pixels ----

TEST(QelRgbColorSpecTest, EightBitReadersPutTheComponentsTopBitAtBitSeven)
{
    const QelRgbColorSpec rgb565(0xF800, 0x07E0, 0x001F, 0, Access::Word16, 2);
    const std::uint16_t white = 0xFFFF;
    EXPECT_EQ(rgb565.Red8(&white), 0xF8);
    EXPECT_EQ(rgb565.Green8(&white), 0xFC);
    EXPECT_EQ(rgb565.Blue8(&white), 0xF8);
    EXPECT_EQ(rgb565.Alpha8(&white), 0);

    const std::uint8_t bgra[4] = {0x10, 0x20, 0x30, 0x40};
    const QelRgbColorSpec word32(0x00FF0000, 0x0000FF00, 0x000000FF, 0xFF000000, Access::Word32, 4);
    EXPECT_EQ(word32.Rgba8(bgra), (std::array<std::uint8_t, 4>{0x30, 0x20, 0x10, 0x40}));
    EXPECT_EQ(word32.Rgba16(bgra), (std::array<std::uint16_t, 4>{0x3000, 0x2000, 0x1000, 0x4000}));
    EXPECT_EQ(word32.RgbaFloat(bgra)[0], 0x30 / 256.0f);
}

TEST(QelRgbColorSpecTest, ByteSequenceReadsTheFirstByteAsMostSignificant)
{
    const std::uint8_t pixel[3] = {0x11, 0x22, 0x33};
    const QelRgbColorSpec spec(0x0000FF, 0x00FF00, 0xFF0000, 0, Access::ByteSequence, 3);
    EXPECT_EQ(spec.ReadPixel(pixel), 0x112233u);
    EXPECT_EQ(spec.Rgb8(pixel), (std::array<std::uint8_t, 3>{0x33, 0x22, 0x11}));

    std::array<std::uint8_t, 4> written{0, 0, 0, 0xEE};
    spec.WriteRgba8(written.data(), 0x33, 0x22, 0x11, 0);
    EXPECT_EQ(written, (std::array<std::uint8_t, 4>{0x11, 0x22, 0x33, 0xEE}));
}

TEST(QelRgbColorSpecTest, PackedComponentsReadBackAtTheirPrecision)
{
    const QelRgbColorSpec rgb565(0xF800, 0x07E0, 0x001F, 0, Access::Word16, 2);
    std::uint16_t pixel = 0;
    rgb565.WriteRgba8(&pixel, 0xFF, 0x84, 0x0F, 0xFF);
    EXPECT_EQ(pixel, 0xF800 | (0x84 >> 2) << 5 | 0x0F >> 3);
    EXPECT_EQ(rgb565.Rgb8(&pixel), (std::array<std::uint8_t, 3>{0xF8, 0x84, 0x08}));
    EXPECT_EQ(rgb565.Pack16(0xFFFF, 0, 0xFFFF, 0), 0xF81Fu);
    EXPECT_EQ(rgb565.PackFloat(1.0f, 0.5f, 0.0f, 1.0f), 0xF800u | 0x20u << 5);
}

// ---- Ink ----

TEST(QelInkTest, FromPixelReadsBgraBytesOrThroughASpec)
{
    const std::uint8_t bgra[4] = {0, 51, 255, 102};
    EXPECT_EQ(QelInk::FromPixel(bgra, false), QelInk(1.0f, 51 / 255.0f, 0.0f, 1.0f));
    EXPECT_EQ(QelInk::FromPixel(bgra, true).A, 102 / 255.0f);

    const QelRgbColorSpec rgba(0x000000FF, 0x0000FF00, 0x00FF0000, 0xFF000000, Access::Word32, 4);
    EXPECT_EQ(QelInk::FromPixel(rgba, bgra, true), QelInk(0.0f, 51 / 255.0f, 1.0f, 102 / 255.0f));
}

TEST(QelInkTest, CompositeOverWeighsByTheInksOpacity)
{
    const QelInk ink(1.0f, 0.0f, 0.5f, 0.25f);
    const QelInk result = ink.CompositeOver(QelInk(0.0f, 1.0f, 0.5f, 0.5f));
    EXPECT_FLOAT_EQ(result.R, 0.25f);
    EXPECT_FLOAT_EQ(result.G, 0.75f);
    EXPECT_FLOAT_EQ(result.B, 0.5f);
    EXPECT_FLOAT_EQ(result.A, 0.625f);
}

TEST(QelInkTest, PaintSkipsTransparentOverwritesOpaqueAndBlendsBetween)
{
    const QelRgbColorSpec bgra(0x00FF0000, 0x0000FF00, 0x000000FF, 0xFF000000, Access::Word32, 4);
    std::uint32_t pixel = 0x40102030;
    QelInk(1.0f, 1.0f, 1.0f, 0.001f).PaintRasterImagePixel(&bgra, &pixel);  // alpha byte 0
    EXPECT_EQ(pixel, 0x40102030u);
    QelInk(1.0f, 0.5f, 0.0f, 1.0f).PaintRasterImagePixel(&bgra, &pixel);
    EXPECT_EQ(pixel, 0xFFFF7F00u);  // 0.5 * 255 truncates to 127

    pixel = 0x40102030;
    QelInk(1.0f, 0.0f, 0.0f, 0.5f).PaintRasterImagePixel(&bgra, &pixel);  // a = 127
    const std::uint32_t r = (255 * 127 + 0x10 * 128) >> 8, g = (0x20 * 128) >> 8, b = (0x30 * 128) >> 8;
    const std::uint32_t a = (127 * 255 + 128 * 0x40) >> 8;
    EXPECT_EQ(pixel, a << 24 | r << 16 | g << 8 | b);

    // Without an alpha mask the opacity written is 0, and bits outside the masks go.
    const QelRgbColorSpec bgrx(0x00FF0000, 0x0000FF00, 0x000000FF, 0, Access::Word32, 4);
    pixel = 0x40102030;
    QelInk(1.0f, 0.0f, 0.0f, 0.5f).PaintRasterImagePixel(&bgrx, &pixel);
    EXPECT_EQ(pixel, r << 16 | g << 8 | b);
}

TEST(QelInkTest, PaintWithoutASpecIsABug)
{
    std::uint32_t pixel = 0;
    EXPECT_EQ(BugReportText([&] { QelInk(1, 1, 1, 1).PaintRasterImagePixel(nullptr, &pixel); }),
              "QelInk::PaintRasterImagePixel: QelRgbColorSpec shouldn not be NULL");
}

}  // namespace
