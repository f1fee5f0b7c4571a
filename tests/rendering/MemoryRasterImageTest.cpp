#include "ax/rendering/MemoryRasterImage.h"

#include "PrimitiveConversions.h"
#include "ax/rendering/Initializer.h"
#include "ax/system/Exception.h"
#include "image/QelMemoryRasterImage.h"
#include "image/QelRgbColorSpec.h"

#include "support/MessageOf.h"

#include <gtest/gtest.h>

#include <cstring>

namespace {

using Ax::Primitives::GrayscalePixelFormat;
using Ax::Primitives::RGBPixelFormat;
using Ax::Primitives::Size;
using Ax::Rendering::MemoryRasterImage;
using Ax::System::ArgumentException;

const QelRgbColorSpec* SpecOf(const MemoryRasterImage& image)
{
    return static_cast<const QelMemoryRasterImage*>(image.UnmanagedImage())->RgbColorSpec();
}

std::uint16_t Pixel16(const MemoryRasterImage& image, std::int32_t x, std::int32_t y)
{
    std::uint16_t value;
    std::memcpy(&value, image.GetPixelAddress(x, y), 2);
    return value;
}

class MemoryRasterImageTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() { Ax::Rendering::Initializer::Initialize(); }
};

TEST_F(MemoryRasterImageTest, MarginsWidenTheStrideAndCopiesLeaveThemBehind)
{
    MemoryRasterImage image;
    image.Resize(GrayscalePixelFormat::Gray16(), Size(5, 3), Size(6, 4), Size(8, 3));
    EXPECT_EQ(image.Dimensions(), Size(5, 3));
    EXPECT_EQ(image.Stride(), 16);
    EXPECT_EQ(image.GetPixelAddress(3, 2), image.OriginAddress() + 2 * 16 + 3 * 2);
    // Clear covers the scratch rectangle, margin included; memory beyond it keeps its bytes.
    std::memset(image.OriginAddress(), 0xCC, 16 * 4);
    image.Clear(0x12345678);
    EXPECT_EQ(Pixel16(image, 5, 3), 0x5678);
    EXPECT_EQ(Pixel16(image, 6, 0), 0xCCCC);

    for (std::int32_t i = 0; i < 15; ++i) {
        const auto value = static_cast<std::uint16_t>(100 * (i / 5) + i % 5);
        std::memcpy(image.GetPixelAddress(i % 5, i / 5), &value, 2);
    }
    const MemoryRasterImage copy(image);
    EXPECT_EQ(copy.Stride(), 10);
    EXPECT_NE(copy.OriginAddress(), image.OriginAddress());
    EXPECT_EQ(Pixel16(copy, 4, 2), 204);

    // Same pixel size, different meaning: refused, changing nothing.
    MemoryRasterImage signedImage;
    signedImage.Resize(GrayscalePixelFormat::SignedGray16(), Size(4, 2));
    signedImage.Clear(0xFFFF);
    EXPECT_EQ(MessageOf<ArgumentException>([&] { signedImage.CopyFrom(image); }), "Image has different pixel format");
    EXPECT_EQ(Pixel16(signedImage, 0, 0), 0xFFFF);
}

TEST_F(MemoryRasterImageTest, SetBufferRefusesAShortSpanBeforeTouchingTheImage)
{
    MemoryRasterImage image;
    image.Resize(GrayscalePixelFormat::Gray8(), Size(2, 2));
    std::uint8_t* const origin = image.OriginAddress();
    // Three rows of 10 bytes end after 2 * 10 + 8 bytes; the safety row is the longest.
    std::vector<std::uint8_t> buffer(27);
    const auto set = [&] {
        image.SetBuffer(GrayscalePixelFormat::Gray16(), 10, Size(3, 3), Size(3, 3), Size(4, 3),
                        std::span<std::uint8_t>(buffer));
    };
    EXPECT_EQ(MessageOf<ArgumentException>(set), "The buffer holds 27 bytes; the stride and sizes need 28.");
    EXPECT_EQ(image.OriginAddress(), origin);
    EXPECT_EQ(image.PixelFormat(), GrayscalePixelFormat::Gray8());
    buffer.resize(28);
    set();
    EXPECT_EQ(image.OriginAddress(), buffer.data());
}

TEST_F(MemoryRasterImageTest, RgbFormatsGiveTheImageAColourSpecByTheirWidth)
{
    std::uint8_t buffer[64] = {};
    MemoryRasterImage image;
    const std::pair<std::int32_t, QelRgbColorSpec::Access> widths[] = {
        {2, QelRgbColorSpec::Access::Word16}, {3, QelRgbColorSpec::Access::ByteSequence}, {4, QelRgbColorSpec::Access::Word32}};
    for (const auto& [bytes, access] : widths) {
        image.SetBuffer(RGBPixelFormat(bytes, 0xF00, 0x0F0, 0x00F, 0xF000), 16, Size(2, 2), buffer);
        ASSERT_NE(SpecOf(image), nullptr);
        EXPECT_EQ(SpecOf(image)->GetAccess(), access);
        EXPECT_EQ(SpecOf(image)->Mask(QelRgbColorSpec::Channel::Alpha), 0xF000u);
    }
    // A colour copy takes the colour layout too.
    const MemoryRasterImage copy(static_cast<const Ax::Rendering::RasterImage&>(image));
    ASSERT_NE(SpecOf(copy), nullptr);
    EXPECT_EQ(SpecOf(copy)->Mask(QelRgbColorSpec::Channel::Red), 0xF00u);
    // A grey format keeps the colour layout the image holds.
    image.Resize(GrayscalePixelFormat::Gray16(), Size(2, 2));
    ASSERT_NE(SpecOf(image), nullptr);
    EXPECT_EQ(SpecOf(image)->ByteCount(), 4);
    EXPECT_EQ(MessageOf<ArgumentException>([] {
                  (void)Ax::Rendering::PrimitiveConversions::RGBPixelFormatToQelRgbColorSpec(
                      RGBPixelFormat(1, 0xE0, 0x1C, 0x03, 0));
              }),
              "Invalid bytes per pixel: 1");
}

TEST_F(MemoryRasterImageTest, WrappedImageIsDeletedOnlyWhenOwned)
{
    std::unique_ptr<QelMemoryRasterImage> native = QelMemoryRasterImage::New(nullptr);
    ASSERT_TRUE(native->Resize(1, QelIntRange(0, 2), QelIntRange(0, 2)));
    { const MemoryRasterImage wrapper(native.get(), GrayscalePixelFormat::Gray8(), false); }
    native->Clear(true, 1);  // still alive; a deleted image shows under ASan
    { const MemoryRasterImage owner(native.release(), GrayscalePixelFormat::Gray8(), true); }
}

}  // namespace
