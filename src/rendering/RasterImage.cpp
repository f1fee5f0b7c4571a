#include "ax/rendering/RasterImage.h"

#include "PrimitiveConversions.h"
#include "ax/system/Exception.h"
#include "image/QelRasterImage.h"

namespace Ax::Rendering {

RasterImage::RasterImage() noexcept = default;

RasterImage::~RasterImage()
{
    SetUnmanagedRasterImage(nullptr, false);
}

std::int32_t RasterImage::Width() const noexcept
{
    return m_image->Width();
}

std::int32_t RasterImage::Height() const noexcept
{
    return m_image->Height();
}

Ax::Primitives::Size RasterImage::Dimensions() const noexcept
{
    return {m_image->Width(), m_image->Height()};
}

std::int32_t RasterImage::BytesPerPixel() const noexcept
{
    return m_image->BytesPerPixel();
}

std::int32_t RasterImage::Stride() const noexcept
{
    return m_image->BytesPerLine();
}

std::uint8_t* RasterImage::OriginAddress() const noexcept
{
    return m_image->OriginAddress();
}

std::uint8_t* RasterImage::GetPixelAddress(std::int32_t x, std::int32_t y) const noexcept
{
    return m_image->PixelAddress(x, y);
}

void RasterImage::Resize(const Ax::Primitives::PixelFormat& pixelFormat, Ax::Primitives::Size size,
                         Ax::Primitives::Size scratch, Ax::Primitives::Size safety)
{
    SetPixelFormat(pixelFormat);
    // A failed allocation leaves the image empty, and an empty image is what callers
    // see: they test Width and Height, not a result.
    using Convert = PrimitiveConversions;
    (void)m_image->Resize(pixelFormat.BytesPerPixel(), Convert::RangeFromZero(size.Width),
                          Convert::RangeFromZero(size.Height), Convert::RangeFromZero(scratch.Width),
                          Convert::RangeFromZero(scratch.Height), Convert::RangeFromZero(safety.Width),
                          Convert::RangeFromZero(safety.Height));
}

void RasterImage::Resize(const Ax::Primitives::PixelFormat& pixelFormat, Ax::Primitives::Size size)
{
    Resize(pixelFormat, size, size, size);
}

void RasterImage::Clear(std::uint32_t pixelValue)
{
    m_image->Clear(true, pixelValue);
}

void RasterImage::Clear()
{
    m_image->Clear(false, 0);
}

void RasterImage::CopyFrom(const RasterImage& other)
{
    if (other.PixelFormat().CompareTo(m_pixelFormat) != 0)
        throw Ax::System::ArgumentException("Image has different pixel format", "other");
    // Disjoint scratch rectangles copy nothing, which is no failure here.
    (void)m_image->Copy(*other.m_image);
}

void RasterImage::SetUnmanagedRasterImage(QelRasterImage* rasterImage, bool takeOwnership) noexcept
{
    if (m_ownsImage && m_image != rasterImage)
        delete m_image;
    m_image = rasterImage;
    m_ownsImage = takeOwnership;
}

}  // namespace Ax::Rendering
