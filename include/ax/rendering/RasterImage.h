#pragma once

#include "ax/primitives/PixelFormat.h"
#include "ax/primitives/Size.h"

#include <cstdint>

class QelRasterImage;

namespace Ax::Rendering {

/// A rectangle of pixels that the renderers draw into and read from, with a pixel
/// format. Pixel (x, y) lies at OriginAddress() + y * Stride() + x * BytesPerPixel().
/// The object owns its native image unless it only wraps one made elsewhere.
/// Not copyable; MemoryRasterImage has an explicit constructor that copies pixels.
/// One thread at a time may change an image, and not while a render uses it.
class RasterImage {
public:
    virtual ~RasterImage();
    RasterImage(const RasterImage&) = delete;
    RasterImage& operator=(const RasterImage&) = delete;

    [[nodiscard]] std::int32_t Width() const noexcept;
    [[nodiscard]] std::int32_t Height() const noexcept;
    [[nodiscard]] Ax::Primitives::Size Dimensions() const noexcept;
    [[nodiscard]] std::int32_t BytesPerPixel() const noexcept;
    /// Bytes from one row to the next.
    [[nodiscard]] std::int32_t Stride() const noexcept;
    /// The address of pixel (0, 0); null while the image has no pixels.
    [[nodiscard]] std::uint8_t* OriginAddress() const noexcept;
    /// The format given to the last Resize or SetBuffer; it is not derived from the pixels.
    [[nodiscard]] const Ax::Primitives::PixelFormat& PixelFormat() const noexcept { return m_pixelFormat; }
    /// No range check; (x, y) may lie in the margins of the visible rectangle.
    [[nodiscard]] std::uint8_t* GetPixelAddress(std::int32_t x, std::int32_t y) const noexcept;

    /// New storage of `size` pixels, with `scratch` (what Clear and CopyFrom cover) and
    /// `safety` (what memory backs), both from (0, 0) and at least as large as `size`.
    /// The old pixels are gone. Throws RenderingException for an empty size or a scratch
    /// or safety smaller than the size; when memory runs out the image is left empty.
    virtual void Resize(const Ax::Primitives::PixelFormat& pixelFormat, Ax::Primitives::Size size,
                        Ax::Primitives::Size scratch, Ax::Primitives::Size safety);
    /// Resize with the size as scratch and safety.
    virtual void Resize(const Ax::Primitives::PixelFormat& pixelFormat, Ax::Primitives::Size size);

    /// Fills the scratch rectangle with `pixelValue` at the pixel's width (its low byte
    /// for 1-byte pixels, low 16 bits for 2-byte pixels, both halves of 8-byte pixels).
    /// Pixels of 3 bytes have no such fill and stay as they are.
    void Clear(std::uint32_t pixelValue);
    /// Sets every byte of the scratch rectangle to 0.
    void Clear();

    /// Copies the pixels that both scratch rectangles share. Throws ArgumentException
    /// "Image has different pixel format", changing nothing, unless the formats are equal.
    void CopyFrom(const RasterImage& other);

    // For the library's own use: the native image, and handing the object another one
    // (the old one is deleted first when this object owns it).
    [[nodiscard]] QelRasterImage* UnmanagedImage() const noexcept { return m_image; }
    void SetUnmanagedRasterImage(QelRasterImage* rasterImage, bool takeOwnership) noexcept;

protected:
    RasterImage() noexcept;
    void SetPixelFormat(const Ax::Primitives::PixelFormat& pixelFormat) noexcept { m_pixelFormat = pixelFormat; }

private:
    QelRasterImage* m_image = nullptr;
    bool m_ownsImage = false;
    Ax::Primitives::PixelFormat m_pixelFormat;
};

}  // namespace Ax::Rendering
