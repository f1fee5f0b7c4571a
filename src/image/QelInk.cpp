#include "image/QelInk.h"

#include "base/QelDebug.h"
#include "image/QelRgbColorSpec.h"

namespace {

// A division, not a product with 1/255: the two differ in the last bit.
float FromByte(std::uint32_t byte) noexcept
{
    return static_cast<float>(byte) / 255.0f;
}

// Truncates (0.5 gives 127); out-of-range inks are clamped first.
std::uint32_t ToByte(float component) noexcept
{
    if (!(component > 0.0f))
        return 0;
    if (component >= 1.0f)
        return 255;
    return static_cast<std::uint32_t>(component * 255.0f);
}

}  // namespace

QelInk QelInk::FromPixel(const void* pixel, bool readAlpha) noexcept
{
    const auto* bytes = static_cast<const std::uint8_t*>(pixel);
    return {FromByte(bytes[2]), FromByte(bytes[1]), FromByte(bytes[0]), readAlpha ? FromByte(bytes[3]) : 1.0f};
}

QelInk QelInk::FromPixel(const QelRgbColorSpec& spec, const void* pixel, bool readAlpha) noexcept
{
    return {FromByte(spec.Red8(pixel)), FromByte(spec.Green8(pixel)), FromByte(spec.Blue8(pixel)),
            readAlpha ? FromByte(spec.Alpha8(pixel)) : 1.0f};
}

QelInk QelInk::CompositeOver(const QelInk& background) const noexcept
{
    const float rest = 1.0f - A;
    return {R * A + background.R * rest, G * A + background.G * rest, B * A + background.B * rest,
            A + background.A * rest};
}

void QelInk::PaintRasterImagePixel(const QelRgbColorSpec* spec, void* pixel) const
{
    if (!spec) {
        QEL_ASSERT(false, "QelInk::PaintRasterImagePixel: QelRgbColorSpec shouldn not be NULL");
        return;
    }
    const std::uint32_t r = ToByte(R);
    const std::uint32_t g = ToByte(G);
    const std::uint32_t b = ToByte(B);
    const std::uint32_t a = ToByte(A);
    if (a == 0)
        return;
    if (a == 255) {
        spec->WriteRgba8(pixel, static_cast<std::uint8_t>(r), static_cast<std::uint8_t>(g),
                         static_cast<std::uint8_t>(b), 255);
        return;
    }
    const std::array<std::uint8_t, 4> d = spec->Rgba8(pixel);
    // A shift rather than a division by 255: a half-opaque blend may come out one step
    // dark, which painted overlays accept, and opaque inks never get here.
    const auto blend = [a](std::uint32_t source, std::uint32_t destination) {
        return static_cast<std::uint8_t>((source * a + destination * (255 - a)) >> 8);
    };
    const std::uint8_t alpha = spec->HasAlpha() ? static_cast<std::uint8_t>((a * 255 + (255 - a) * d[3]) >> 8) : 0;
    spec->WriteRgba8(pixel, blend(r, d[0]), blend(g, d[1]), blend(b, d[2]), alpha);
}
