#include "ax/rendering/MemoryRasterImage.h"

#include "MemoryManager.h"
#include "PrimitiveConversions.h"
#include "ax/system/Exception.h"
#include "image/QelMemoryRasterImage.h"
#include "image/QelRgbColorSpec.h"

#include <algorithm>
#include <new>
#include <string>

namespace Ax::Rendering {

namespace {

// Bytes from pixel (0, 0) to the end of the last pixel that the ranges reach.
std::int64_t BytesSpanned(std::int32_t bytesPerPixel, std::int32_t stride, Ax::Primitives::Size scratch,
                          Ax::Primitives::Size safety) noexcept
{
    const std::int64_t width = std::max(scratch.Width, safety.Width);
    const std::int64_t height = std::max(scratch.Height, safety.Height);
    if (width <= 0 || height <= 0 || bytesPerPixel <= 0)
        return 0;
    return (height - 1) * stride + width * bytesPerPixel;
}

}  // namespace

MemoryRasterImage::MemoryRasterImage()
{
    std::unique_ptr<QelMemoryRasterImage> image = QelMemoryRasterImage::New(MemoryManager::Instance());
    if (!image)
        throw std::bad_alloc();
    SetUnmanagedRasterImage(image.release(), true);
}

MemoryRasterImage::MemoryRasterImage(const RasterImage& other) : MemoryRasterImage()
{
    Resize(other.PixelFormat(), other.Dimensions());
    CopyFrom(other);
    SetQelRgbColorSpec(other.PixelFormat());
}

MemoryRasterImage::MemoryRasterImage(const MemoryRasterImage& other)
    : MemoryRasterImage(static_cast<const RasterImage&>(other))
{
}

MemoryRasterImage::MemoryRasterImage(QelMemoryRasterImage* image, const Ax::Primitives::PixelFormat& pixelFormat,
                                     bool takeOwnership)
{
    SetUnmanagedRasterImage(image, takeOwnership);
    SetPixelFormat(pixelFormat);
}

MemoryRasterImage::~MemoryRasterImage() = default;

QelMemoryRasterImage& MemoryRasterImage::Native() const noexcept
{
    // Every native raster image is a memory raster image.
    return *static_cast<QelMemoryRasterImage*>(UnmanagedImage());
}

void MemoryRasterImage::SetQelRgbColorSpec(const Ax::Primitives::PixelFormat& pixelFormat)
{
    // A grey format leaves whatever spec the image holds.
    if (const auto rgb = pixelFormat.AsRgb())
        Native().HoldRgbColorSpec(PrimitiveConversions::RGBPixelFormatToQelRgbColorSpec(*rgb));
}

void MemoryRasterImage::SetBuffer(const Ax::Primitives::PixelFormat& pixelFormat, std::int32_t stride,
                                  Ax::Primitives::Size size, Ax::Primitives::Size scratch,
                                  Ax::Primitives::Size safety, std::uint8_t* buffer)
{
    SetPixelFormat(pixelFormat);
    using Convert = PrimitiveConversions;
    Native().SetBuffer(pixelFormat.BytesPerPixel(), stride, Convert::RangeFromZero(size.Width),
                       Convert::RangeFromZero(size.Height), Convert::RangeFromZero(scratch.Width),
                       Convert::RangeFromZero(scratch.Height), Convert::RangeFromZero(safety.Width),
                       Convert::RangeFromZero(safety.Height), buffer, false);
    SetQelRgbColorSpec(pixelFormat);
}

void MemoryRasterImage::SetBuffer(const Ax::Primitives::PixelFormat& pixelFormat, std::int32_t stride,
                                  Ax::Primitives::Size size, Ax::Primitives::Size scratch,
                                  Ax::Primitives::Size safety, std::span<std::uint8_t> buffer)
{
    const std::int64_t needed = BytesSpanned(pixelFormat.BytesPerPixel(), stride, scratch, safety);
    if (needed > static_cast<std::int64_t>(buffer.size()))
        throw Ax::System::ArgumentException("The buffer holds " + std::to_string(buffer.size()) +
                                                " bytes; the stride and sizes need " + std::to_string(needed) + ".",
                                            "buffer");
    SetBuffer(pixelFormat, stride, size, scratch, safety, buffer.data());
}

void MemoryRasterImage::SetBuffer(const Ax::Primitives::PixelFormat& pixelFormat, std::int32_t stride,
                                  Ax::Primitives::Size size, std::uint8_t* buffer)
{
    SetBuffer(pixelFormat, stride, size, size, size, buffer);
}

void MemoryRasterImage::SetBuffer(const Ax::Primitives::PixelFormat& pixelFormat, std::int32_t stride,
                                  Ax::Primitives::Size size, std::span<std::uint8_t> buffer)
{
    SetBuffer(pixelFormat, stride, size, size, size, buffer);
}

void MemoryRasterImage::Resize(const Ax::Primitives::PixelFormat& pixelFormat, Ax::Primitives::Size size,
                               Ax::Primitives::Size scratch, Ax::Primitives::Size safety)
{
    RasterImage::Resize(pixelFormat, size, scratch, safety);
    SetQelRgbColorSpec(pixelFormat);
}

void MemoryRasterImage::Resize(const Ax::Primitives::PixelFormat& pixelFormat, Ax::Primitives::Size size)
{
    RasterImage::Resize(pixelFormat, size);
}

}  // namespace Ax::Rendering
