#pragma once

#include "ax/rendering/RasterImage.h"

#include <cstdint>
#include <span>

class QelMemoryRasterImage;

namespace Ax::Rendering {

/// A raster image over memory: its own, made by Resize, or a caller's buffer given by
/// SetBuffer. The caller keeps a buffer alive and in place until the image gets other
/// storage or goes away; the image never frees it. Requires Initializer::Initialize.
class MemoryRasterImage : public RasterImage {
public:
    /// An image with no pixels yet.
    MemoryRasterImage();
    /// An image of `other`'s format and size with a copy of its pixels. Throws
    /// RenderingException when `other` has no pixels.
    explicit MemoryRasterImage(const RasterImage& other);
    explicit MemoryRasterImage(const MemoryRasterImage& other);
    MemoryRasterImage& operator=(const MemoryRasterImage&) = delete;
    /// For the library's own use: wraps a native image made elsewhere (not null),
    /// deleting it at the end only with `takeOwnership`.
    MemoryRasterImage(QelMemoryRasterImage* image, const Ax::Primitives::PixelFormat& pixelFormat,
                      bool takeOwnership);
    ~MemoryRasterImage() override;

    /// Pixels in the caller's `buffer`, which holds pixel (0, 0) and rows `stride` bytes
    /// apart; `scratch` and `safety` start at (0, 0) and are at least `size`. Throws
    /// RenderingException for a null buffer, an empty size, a scratch or safety smaller
    /// than the size, or a safety row longer than the stride.
    void SetBuffer(const Ax::Primitives::PixelFormat& pixelFormat, std::int32_t stride, Ax::Primitives::Size size,
                   Ax::Primitives::Size scratch, Ax::Primitives::Size safety, std::uint8_t* buffer);
    /// As above; throws ArgumentException first when `buffer` is too short for the
    /// stride and the larger of scratch and safety.
    void SetBuffer(const Ax::Primitives::PixelFormat& pixelFormat, std::int32_t stride, Ax::Primitives::Size size,
                   Ax::Primitives::Size scratch, Ax::Primitives::Size safety, std::span<std::uint8_t> buffer);
    /// SetBuffer with the size as scratch and safety.
    void SetBuffer(const Ax::Primitives::PixelFormat& pixelFormat, std::int32_t stride, Ax::Primitives::Size size,
                   std::uint8_t* buffer);
    void SetBuffer(const Ax::Primitives::PixelFormat& pixelFormat, std::int32_t stride, Ax::Primitives::Size size,
                   std::span<std::uint8_t> buffer);

    /// As RasterImage::Resize, and the image owns its storage again.
    void Resize(const Ax::Primitives::PixelFormat& pixelFormat, Ax::Primitives::Size size,
                Ax::Primitives::Size scratch, Ax::Primitives::Size safety) override;
    void Resize(const Ax::Primitives::PixelFormat& pixelFormat, Ax::Primitives::Size size) override;

private:
    [[nodiscard]] QelMemoryRasterImage& Native() const noexcept;
    void SetQelRgbColorSpec(const Ax::Primitives::PixelFormat& pixelFormat);
};

}  // namespace Ax::Rendering
