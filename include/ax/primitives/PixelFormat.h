#pragma once

#include <compare>
#include <cstdint>
#include <optional>

namespace Ax::Primitives {

class RGBPixelFormat;

/// What a pixel holds: grey of some width and signedness, or colour components under
/// masks. All of a format's data lies here, so a format of either kind can be stored
/// and compared by value; GrayscalePixelFormat and RGBPixelFormat construct it.
/// A default-constructed format has 0 bytes per pixel and describes no pixel.
class PixelFormat {
public:
    enum class Kind : std::uint8_t { Grayscale = 0, Rgb = 1 };

    constexpr PixelFormat() noexcept = default;

    [[nodiscard]] constexpr Kind GetKind() const noexcept { return m_kind; }
    [[nodiscard]] constexpr std::int32_t BytesPerPixel() const noexcept { return m_bytesPerPixel; }
    [[nodiscard]] constexpr bool IsSigned() const noexcept { return m_isSigned; }
    [[nodiscard]] constexpr bool IsRgb() const noexcept { return m_kind == Kind::Rgb; }
    /// The RGB view of this format; empty for a grey format.
    [[nodiscard]] constexpr std::optional<RGBPixelFormat> AsRgb() const noexcept;

    /// A total order: kind, then bytes per pixel, signedness and the masks. 0 means equal.
    [[nodiscard]] constexpr std::int32_t CompareTo(const PixelFormat& other) const noexcept
    {
        const auto order = Key() <=> other.Key();
        return order < 0 ? -1 : order > 0 ? 1 : 0;
    }
    friend constexpr bool operator==(const PixelFormat& a, const PixelFormat& b) noexcept
    {
        return a.CompareTo(b) == 0;
    }

protected:
    constexpr PixelFormat(Kind kind, std::int32_t bytesPerPixel, bool isSigned, std::uint32_t red,
                          std::uint32_t green, std::uint32_t blue, std::uint32_t alpha) noexcept
        : m_kind(kind), m_bytesPerPixel(bytesPerPixel), m_isSigned(isSigned), m_red(red), m_green(green),
          m_blue(blue), m_alpha(alpha)
    {
    }

    Kind m_kind = Kind::Grayscale;
    std::int32_t m_bytesPerPixel = 0;
    bool m_isSigned = false;
    std::uint32_t m_red = 0;
    std::uint32_t m_green = 0;
    std::uint32_t m_blue = 0;
    std::uint32_t m_alpha = 0;

private:
    struct OrderKey {
        Kind kind;
        std::int32_t bytesPerPixel;
        bool isSigned;
        std::uint32_t red, green, blue, alpha;
        constexpr auto operator<=>(const OrderKey&) const noexcept = default;
    };
    [[nodiscard]] constexpr OrderKey Key() const noexcept
    {
        return {m_kind, m_bytesPerPixel, m_isSigned, m_red, m_green, m_blue, m_alpha};
    }
};

/// Grey pixels of `bytesPerPixel` bytes, signed or not.
class GrayscalePixelFormat : public PixelFormat {
public:
    constexpr GrayscalePixelFormat(std::int32_t bytesPerPixel, bool isSigned) noexcept
        : PixelFormat(Kind::Grayscale, bytesPerPixel, isSigned, 0, 0, 0, 0)
    {
    }

    [[nodiscard]] static constexpr GrayscalePixelFormat Gray8() noexcept { return {1, false}; }
    [[nodiscard]] static constexpr GrayscalePixelFormat Gray16() noexcept { return {2, false}; }
    [[nodiscard]] static constexpr GrayscalePixelFormat SignedGray16() noexcept { return {2, true}; }
};

/// Colour pixels of `bytesPerPixel` bytes; each mask selects a component's bits in
/// the pixel read as one number. An alpha mask of 0 means no opacity.
class RGBPixelFormat : public PixelFormat {
public:
    constexpr RGBPixelFormat(std::int32_t bytesPerPixel, std::uint32_t redMask, std::uint32_t greenMask,
                             std::uint32_t blueMask, std::uint32_t alphaMask) noexcept
        : PixelFormat(Kind::Rgb, bytesPerPixel, false, redMask, greenMask, blueMask, alphaMask)
    {
    }

    [[nodiscard]] constexpr std::uint32_t RedMask() const noexcept { return m_red; }
    [[nodiscard]] constexpr std::uint32_t GreenMask() const noexcept { return m_green; }
    [[nodiscard]] constexpr std::uint32_t BlueMask() const noexcept { return m_blue; }
    [[nodiscard]] constexpr std::uint32_t AlphaMask() const noexcept { return m_alpha; }

    /// Bytes B, G, R, A in memory: a little-endian word with red in bits 16-23.
    [[nodiscard]] static constexpr RGBPixelFormat Bgra32() noexcept
    {
        return {4, 0x00FF0000u, 0x0000FF00u, 0x000000FFu, 0xFF000000u};
    }
    /// 5 bits red, 6 green, 5 blue in a 16-bit word, red on top.
    [[nodiscard]] static constexpr RGBPixelFormat Rgb565() noexcept { return {2, 0xF800u, 0x07E0u, 0x001Fu, 0}; }
};

constexpr std::optional<RGBPixelFormat> PixelFormat::AsRgb() const noexcept
{
    if (!IsRgb())
        return std::nullopt;
    return RGBPixelFormat(m_bytesPerPixel, m_red, m_green, m_blue, m_alpha);
}

}  // namespace Ax::Primitives
