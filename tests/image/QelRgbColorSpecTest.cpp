#include "image/QelRgbColorSpec.h"

#include "image/QelInk.h"
#include "support/AssertionText.h"

#include <gtest/gtest.h>

#include <cstdint>

namespace {

using Channel = QelRgbColorSpec::Channel;
using Access = QelRgbColorSpec::Access;

const QelRgbColorSpec kRgb565(0xF800, 0x07E0, 0x001F, 0, Access::Word16, 2);
const QelRgbColorSpec kBgra(0x00FF0000, 0x0000FF00, 0x000000FF, 0xFF000000, Access::Word32, 4);

// ---- Reading and writing pixels ----

TEST(QelRgbColorSpecTest, ReadersPutTheComponentsTopBitAtTheTopOfTheirWidth)
{
    // Components narrower than 8 bits shift left, wider ones right.
    const std::uint16_t white = 0xFFFF;
    EXPECT_EQ(kRgb565.Rgba8(&white), (std::array<std::uint8_t, 4>{0xF8, 0xFC, 0xF8, 0}));
    EXPECT_EQ(kRgb565.BitCount(Channel::Green), 6);

    const std::uint8_t bgra[4] = {0x10, 0x20, 0x30, 0x40};
    EXPECT_EQ(kBgra.Rgba8(bgra), (std::array<std::uint8_t, 4>{0x30, 0x20, 0x10, 0x40}));
    EXPECT_EQ(kBgra.Rgba16(bgra), (std::array<std::uint16_t, 4>{0x3000, 0x2000, 0x1000, 0x4000}));
    EXPECT_EQ(kBgra.RgbaFloat(bgra)[0], 0x30 / 256.0f);
}

TEST(QelRgbColorSpecTest, WritersDropTheBitsBelowEachComponentsWidth)
{
    std::uint16_t pixel = 0;
    kRgb565.WriteRgba8(&pixel, 0xFF, 0x84, 0x0F, 0xFF);
    EXPECT_EQ(pixel, 0xF800 | (0x84 >> 2) << 5 | 0x0F >> 3);
    EXPECT_EQ(kRgb565.Pack16(0xFFFF, 0, 0xFFFF, 0), 0xF81Fu);
    EXPECT_EQ(kRgb565.PackFloat(1.0f, 0.5f, 0.0f, 1.0f), 0xF800u | 0x20u << 5);

    // A byte sequence is read with its first byte as the most significant.
    const QelRgbColorSpec sequence(0x0000FF, 0x00FF00, 0xFF0000, 0, Access::ByteSequence, 3);
    std::array<std::uint8_t, 4> bytes{0, 0, 0, 0xEE};
    sequence.WriteRgba8(bytes.data(), 0x33, 0x22, 0x11, 0);
    EXPECT_EQ(bytes, (std::array<std::uint8_t, 4>{0x11, 0x22, 0x33, 0xEE}));
    EXPECT_EQ(sequence.ReadPixel(bytes.data()), 0x112233u);
    EXPECT_EQ(sequence.Rgb8(bytes.data()), (std::array<std::uint8_t, 3>{0x33, 0x22, 0x11}));
}

// ---- Ink ----

TEST(QelInkTest, FromPixelReadsBgraBytesOrThroughASpec)
{
    const std::uint8_t bgra[4] = {0, 51, 255, 102};
    EXPECT_EQ(QelInk::FromPixel(bgra, false), QelInk(1.0f, 51 / 255.0f, 0.0f, 1.0f));
    const QelRgbColorSpec rgba(0x000000FF, 0x0000FF00, 0x00FF0000, 0xFF000000, Access::Word32, 4);
    EXPECT_EQ(QelInk::FromPixel(rgba, bgra, true), QelInk(0.0f, 51 / 255.0f, 1.0f, 102 / 255.0f));
}

TEST(QelInkTest, PaintSkipsTransparentOverwritesOpaqueAndBlendsBetween)
{
    std::uint32_t pixel = 0x40102030;
    QelInk(1.0f, 1.0f, 1.0f, 0.001f).PaintRasterImagePixel(&kBgra, &pixel);  // alpha byte 0
    EXPECT_EQ(pixel, 0x40102030u);
    QelInk(1.0f, 0.5f, 0.0f, 1.0f).PaintRasterImagePixel(&kBgra, &pixel);
    EXPECT_EQ(pixel, 0xFFFF7F00u);  // 0.5 * 255 truncates to 127

    pixel = 0x40102030;
    QelInk(1.0f, 0.0f, 0.0f, 0.5f).PaintRasterImagePixel(&kBgra, &pixel);  // a = 127
    const std::uint32_t r = (255 * 127 + 0x10 * 128) >> 8, g = (0x20 * 128) >> 8, b = (0x30 * 128) >> 8;
    const std::uint32_t a = (127 * 255 + 128 * 0x40) >> 8;
    EXPECT_EQ(pixel, a << 24 | r << 16 | g << 8 | b);

    // Without an alpha mask the opacity written is 0, and bits outside the masks go.
    const QelRgbColorSpec bgrx(0x00FF0000, 0x0000FF00, 0x000000FF, 0, Access::Word32, 4);
    pixel = 0x40102030;
    QelInk(1.0f, 0.0f, 0.0f, 0.5f).PaintRasterImagePixel(&bgrx, &pixel);
    EXPECT_EQ(pixel, r << 16 | g << 8 | b);

    EXPECT_EQ(AssertionText([&] { QelInk(1, 1, 1, 1).PaintRasterImagePixel(nullptr, &pixel); }),
              "QelInk::PaintRasterImagePixel: QelRgbColorSpec shouldn not be NULL");
}

}  // namespace
