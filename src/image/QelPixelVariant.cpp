#include "image/QelPixelVariant.h"

#include "base/QelDebug.h"

#include <bit>

constinit const QelPixelVariant QelPixelVariant::kAnyZero(Kind::Any, 0);
constinit const QelPixelVariant QelPixelVariant::kAnyHalf(Kind::Any, 0x80);

namespace {

std::uint32_t SignExtend8(std::uint32_t value) noexcept
{
    return static_cast<std::uint32_t>(std::int32_t{static_cast<std::int8_t>(value)});
}

std::uint32_t SignExtend16(std::uint32_t value) noexcept
{
    return static_cast<std::uint32_t>(std::int32_t{static_cast<std::int16_t>(value)});
}

}  // namespace

QelPixelVariant QelPixelVariant::OfKind(Kind kind, std::uint32_t value) noexcept
{
    switch (kind) {
    case Kind::Unsigned8:
        return {kind, value & 0xFFu};
    case Kind::Signed8:
        return {kind, SignExtend8(value)};
    case Kind::Unsigned16:
        return {kind, value & 0xFFFFu};
    case Kind::Signed16:
        return {kind, SignExtend16(value)};
    case Kind::Color24:
        return {kind, (value & 0x00FFFFFFu) | 0xFF000000u};
    default:
        return {kind, value};
    }
}

QelPixelVariant QelPixelVariant::SignedEightBit(std::int8_t value) noexcept
{
    return OfKind(Kind::Signed8, static_cast<std::uint8_t>(value));
}

QelPixelVariant QelPixelVariant::SixteenBitGrey(std::uint32_t value) noexcept
{
    return OfKind(Kind::Unsigned16, value);
}

QelPixelVariant QelPixelVariant::FloatingPoint(float value) noexcept
{
    return OfKind(Kind::Float, std::bit_cast<std::uint32_t>(value));
}

QelPixelVariant QelPixelVariant::ThirtyTwoBitColor(std::uint8_t c0, std::uint8_t c1, std::uint8_t c2,
                                                   std::uint8_t c3) noexcept
{
    return OfKind(Kind::Color32, std::uint32_t{c0} | std::uint32_t{c1} << 8 | std::uint32_t{c2} << 16 |
                                     std::uint32_t{c3} << 24);
}

QelPixelVariant QelPixelVariant::TwentyFourBitBGR(std::uint8_t b, std::uint8_t g, std::uint8_t r) noexcept
{
    return OfKind(Kind::Color24, std::uint32_t{b} | std::uint32_t{g} << 8 | std::uint32_t{r} << 16);
}

bool QelPixelVariant::Check(Kind kind) const
{
    if (!m_initialized) {
        QEL_ASSERT(false, "QelPixelVariant: Not initialized");
        return false;
    }
    if (m_kind != kind && m_kind != Kind::Any) {
        QEL_ASSERT(false, "QelPixelVariant: Runtime type error");
        return false;
    }
    return true;
}

std::uint8_t QelPixelVariant::AsUnsigned8() const
{
    return Check(Kind::Unsigned8) ? static_cast<std::uint8_t>(m_value) : 0;
}

std::int8_t QelPixelVariant::AsSigned8() const
{
    return Check(Kind::Signed8) ? static_cast<std::int8_t>(m_value) : 0;
}

std::uint16_t QelPixelVariant::AsUnsigned16() const
{
    return Check(Kind::Unsigned16) ? static_cast<std::uint16_t>(m_value) : 0;
}

std::int16_t QelPixelVariant::AsSigned16() const
{
    return Check(Kind::Signed16) ? static_cast<std::int16_t>(m_value) : 0;
}

float QelPixelVariant::AsFloat() const
{
    return Check(Kind::Float) ? std::bit_cast<float>(m_value) : 0.0f;
}

std::uint32_t QelPixelVariant::AsColor32() const
{
    if (!m_initialized) {
        QEL_ASSERT(false, "QelPixelVariant: Not initialized");
        return 0;
    }
    if (m_kind == Kind::Color32 || m_kind == Kind::Color24)
        return m_value;
    if (m_kind == Kind::Unsigned16) {
        QEL_ASSERT(false, "QelPixelVariant: Trying to use 16bit input as 32bit value");
        return 0;
    }
    const std::uint32_t grey = AsUnsigned8();
    return grey | grey << 8 | grey << 16 | grey << 24;
}
