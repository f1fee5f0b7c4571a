#pragma once

#include <cstdint>

class QelRgbColorSpec;

/// A colour with opacity, each component a float in 0..1. Colours are not
/// premultiplied.
struct QelInk {
    float R = 0.0f;
    float G = 0.0f;
    float B = 0.0f;
    float A = 0.0f;

    constexpr QelInk() noexcept = default;
    constexpr QelInk(float r, float g, float b, float a) noexcept : R(r), G(g), B(b), A(a) {}

    /// From a pixel whose bytes are B, G, R, A in memory; A is 1 unless `readAlpha`.
    [[nodiscard]] static QelInk FromPixel(const void* pixel, bool readAlpha) noexcept;
    /// From a pixel read through `spec` at 8 bits a component; A is 1 unless `readAlpha`.
    [[nodiscard]] static QelInk FromPixel(const QelRgbColorSpec& spec, const void* pixel, bool readAlpha) noexcept;

    /// This ink over a background: colour c * A + background * (1 - A), opacity
    /// A + background opacity * (1 - A).
    [[nodiscard]] QelInk CompositeOver(const QelInk& background) const noexcept;

    /// Blends this ink into the pixel at `pixel`, at 8 bits a component. Opacity byte 0
    /// leaves the pixel, 255 overwrites it; between them each component becomes
    /// (ink * a + pixel * (255 - a)) >> 8. Reports a bug for a null `spec`.
    void PaintRasterImagePixel(const QelRgbColorSpec* spec, void* pixel) const;

    friend constexpr bool operator==(const QelInk&, const QelInk&) noexcept = default;
};
