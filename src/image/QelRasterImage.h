#pragma once

#include "base/QelIntRange.h"

#include <cstddef>
#include <cstdint>
#include <memory>

class QelRgbColorSpec;

/// The one pixel container: a visible rectangle (x and y ranges), a scratch rectangle
/// that Clear and Copy cover, and safety ranges of columns and rows backed by memory.
/// Pixel (x, y) lies at origin + y * bytes per line + x * bytes per pixel for every x, y
/// inside the safety ranges; ranges may start below 0, so margins can lie on any side.
/// Renderers take the origin and the pitch and walk memory themselves.
///
/// No lock: many threads may read pixels and write disjoint rows, but Resize, SetBuffer
/// and Clear run only while no renderer uses the image.
class QelRasterImage {
public:
    /// Gives the image new storage; the old pixels are gone. See QelMemoryRasterImage.
    [[nodiscard]] virtual bool Resize(std::int32_t bytesPerPixel, const QelIntRange& sizeX,
                                      const QelIntRange& sizeY, const QelIntRange& scratchX,
                                      const QelIntRange& scratchY, const QelIntRange& safetyX,
                                      const QelIntRange& safetyY) = 0;
    virtual ~QelRasterImage();

    QelRasterImage(const QelRasterImage&) = delete;
    QelRasterImage& operator=(const QelRasterImage&) = delete;

    [[nodiscard]] std::int32_t Width() const noexcept { return m_xRange.Length(); }
    [[nodiscard]] std::int32_t Height() const noexcept { return m_yRange.Length(); }
    [[nodiscard]] std::int32_t BytesPerPixel() const noexcept { return m_bytesPerPixel; }
    [[nodiscard]] std::int32_t BytesPerLine() const noexcept { return m_bytesPerLine; }
    /// The address of pixel (0, 0); null for an empty image.
    [[nodiscard]] std::uint8_t* OriginAddress() const noexcept { return m_origin; }

    /// No range check, and it must stay a constant-time expression: inner loops use it.
    [[nodiscard]] std::uint8_t* PixelAddress(std::int32_t x, std::int32_t y) const noexcept
    {
        return OffsetAddress(m_origin, std::ptrdiff_t{y} * m_bytesPerLine + std::ptrdiff_t{x} * m_bytesPerPixel);
    }

    [[nodiscard]] const QelIntRange& XRange() const noexcept { return m_xRange; }
    [[nodiscard]] const QelIntRange& YRange() const noexcept { return m_yRange; }
    [[nodiscard]] const QelIntRange& ScratchXRange() const noexcept { return m_scratchXRange; }
    [[nodiscard]] const QelIntRange& ScratchYRange() const noexcept { return m_scratchYRange; }
    [[nodiscard]] const QelIntRange& SafetyXRange() const noexcept { return m_safetyXRange; }
    [[nodiscard]] const QelIntRange& SafetyYRange() const noexcept { return m_safetyYRange; }
    /// How colour components lie in a pixel; null unless the image holds RGB pixels.
    [[nodiscard]] const QelRgbColorSpec* RgbColorSpec() const noexcept { return m_colorSpec.get(); }

    /// Copies the intersection of both scratch rectangles from `source`, converting
    /// nothing: both images must have the same pixel size. False when the scratch
    /// rectangles share no pixel.
    bool Copy(const QelRasterImage& source) noexcept;

    /// Fills the scratch rectangle. Without a value, or with 1-byte pixels, every byte
    /// gets 0 (or the value's low byte). With a value, 2-byte pixels get its low 16 bits,
    /// 4-byte pixels the value, 8-byte pixels the value in both halves; other pixel
    /// sizes are left as they are.
    void Clear(bool hasValue, std::uint32_t value) noexcept;

protected:
    QelRasterImage();

    // Integer arithmetic: the origin may lie outside the buffer (or be null), where
    // pointer arithmetic would not be defined.
    [[nodiscard]] static std::uint8_t* OffsetAddress(std::uint8_t* base, std::ptrdiff_t offset) noexcept
    {
        return reinterpret_cast<std::uint8_t*>(reinterpret_cast<std::uintptr_t>(base) +
                                               static_cast<std::uintptr_t>(offset));
    }

    QelIntRange m_xRange;
    QelIntRange m_yRange;
    QelIntRange m_scratchXRange;
    QelIntRange m_scratchYRange;
    QelIntRange m_safetyXRange;  // the union of the requested safety and scratch columns
    QelIntRange m_safetyYRange;  // the union of the requested safety and scratch rows
    std::int32_t m_bytesPerPixel = 0;
    std::int32_t m_bytesPerLine = 0;
    std::uint8_t* m_origin = nullptr;
    std::unique_ptr<QelRgbColorSpec> m_colorSpec;
};
