#include "ax/rendering/MemoryRasterImage.h"

#include "ax/rendering/Initializer.h"
#include "ax/system/Exception.h"

#include "support/MessageOf.h"

#include <gtest/gtest.h>

#include <vector>

namespace {

using Ax::Primitives::GrayscalePixelFormat;
using Ax::Primitives::Size;
using Ax::Rendering::MemoryRasterImage;
using Ax::System::ArgumentException;

std::uint16_t Pixel16(const MemoryRasterImage& image, std::int32_t x, std::int32_t y)
{
    return *reinterpret_cast<const std::uint16_t*>(image.GetPixelAddress(x, y));
}

TEST(MemoryRasterImageTest, MarginsWidenTheStrideAndCopiesLeaveThemBehind)
{
    Ax::Rendering::Initializer::Initialize();
    MemoryRasterImage image;
    image.Resize(GrayscalePixelFormat::Gray16(), Size(5, 3), Size(6, 4), Size(8, 3));
    EXPECT_EQ(image.Stride(), 16);
    // Clear covers the scratch rectangle, margin included.
    image.Clear(0x12345678);
    EXPECT_EQ(Pixel16(image, 5, 3), 0x5678);

    *reinterpret_cast<std::uint16_t*>(image.GetPixelAddress(4, 2)) = 204;
    const MemoryRasterImage copy(image);
    EXPECT_EQ(copy.Stride(), 10);
    EXPECT_EQ(Pixel16(copy, 4, 2), 204);

    // Same pixel size, different meaning: refused, changing nothing.
    MemoryRasterImage signedImage;
    signedImage.Resize(GrayscalePixelFormat::SignedGray16(), Size(4, 2));
    signedImage.Clear(0xFFFF);
    EXPECT_EQ(MessageOf<ArgumentException>([&] { signedImage.CopyFrom(image); }), "Image has different pixel format");
    EXPECT_EQ(Pixel16(signedImage, 0, 0), 0xFFFF);
}

TEST(MemoryRasterImageTest, SetBufferRefusesAShortSpanBeforeTouchingTheImage)
{
    Ax::Rendering::Initializer::Initialize();
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
    EXPECT_TRUE(image.OriginAddress() == origin && image.PixelFormat() == GrayscalePixelFormat::Gray8());
    buffer.resize(28);
    set();
    EXPECT_EQ(image.OriginAddress(), buffer.data());
}

}  // namespace
