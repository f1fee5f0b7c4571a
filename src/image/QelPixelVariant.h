#pragma once

#include <cstdint>

/// One pixel value with a run-time kind, read through checked readers: a reader accepts
/// its own kind and kind Any, and reports a bug for any other kind or for a variant
/// that was never given a value. Signed kinds hold their value sign-extended to 32 bits.
class QelPixelVariant {
public:
    enum class Kind : std::int32_t {
        Any = 2,         // a raw number that passes every kind test
        Unsigned8 = 3,
        Signed8 = 4,
        Unsigned16 = 5,
        Signed16 = 6,
        Float = 11,      // the float's bits
        Color32 = 44,    // bytes c0 c1 c2 c3, c0 the lowest
        Color24 = 46,    // bytes c0 c1 c2 in the low bytes, 0xFF on top
    };

    /// Not initialized: every reader reports a bug.
    constexpr QelPixelVariant() noexcept = default;

    /// A value of `kind`, cut to the kind's width (sign-extended for the signed kinds,
    /// 0xFF on top for Color24).
    [[nodiscard]] static QelPixelVariant OfKind(Kind kind, std::uint32_t value) noexcept;
    [[nodiscard]] static QelPixelVariant SignedEightBit(std::int8_t value) noexcept;
    /// Only the low 16 bits of `value` count.
    [[nodiscard]] static QelPixelVariant SixteenBitGrey(std::uint32_t value) noexcept;
    [[nodiscard]] static QelPixelVariant FloatingPoint(float value) noexcept;
    [[nodiscard]] static QelPixelVariant ThirtyTwoBitColor(std::uint8_t c0, std::uint8_t c1, std::uint8_t c2,
                                                           std::uint8_t c3) noexcept;
    /// Blue in the lowest byte, red in the third, 0xFF on top.
    [[nodiscard]] static QelPixelVariant TwentyFourBitBGR(std::uint8_t b, std::uint8_t g, std::uint8_t r) noexcept;

    /// The two constants of kind Any: 0, and 0x80 (mid grey read as any kind).
    static const QelPixelVariant kAnyZero;
    static const QelPixelVariant kAnyHalf;

    [[nodiscard]] bool IsInitialized() const noexcept { return m_initialized; }
    [[nodiscard]] Kind GetKind() const noexcept { return m_kind; }
    /// The raw 32 bits, unchecked.
    [[nodiscard]] std::uint32_t RawValue() const noexcept { return m_value; }

    [[nodiscard]] std::uint8_t AsUnsigned8() const;
    [[nodiscard]] std::int8_t AsSigned8() const;
    [[nodiscard]] std::uint16_t AsUnsigned16() const;
    [[nodiscard]] std::int16_t AsSigned16() const;
    [[nodiscard]] float AsFloat() const;
    /// Color32 and Color24 give the packed value; a grey kind that the unsigned 8-bit
    /// reader accepts gives its byte in all four bytes. Unsigned16 is refused with its
    /// own report: a 16-bit grey has no 32-bit colour.
    [[nodiscard]] std::uint32_t AsColor32() const;

    friend constexpr bool operator==(const QelPixelVariant&, const QelPixelVariant&) noexcept = default;

private:
    constexpr QelPixelVariant(Kind kind, std::uint32_t value) noexcept
        : m_kind(kind), m_value(value), m_initialized(true)
    {
    }

    // False, after a bug report, unless the variant is initialized and of `kind` or Any.
    [[nodiscard]] bool Check(Kind kind) const;

    Kind m_kind = Kind::Any;
    std::uint32_t m_value = 0;
    bool m_initialized = false;
};
