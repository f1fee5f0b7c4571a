#include "image/QelRgbColorSpec.h"

#include <bit>
#include <cstring>
#include <new>

namespace {

constexpr QelRgbColorSpec::Channel kChannels[4] = {QelRgbColorSpec::Channel::Red, QelRgbColorSpec::Channel::Green,
                                                   QelRgbColorSpec::Channel::Blue, QelRgbColorSpec::Channel::Alpha};

// Right by a positive shift, left by a negative one; shifts of 32 or more leave nothing.
std::uint32_t ShiftRight(std::uint32_t value, std::int32_t shift) noexcept
{
    if (shift >= 32 || shift <= -32)
        return 0;
    return shift >= 0 ? value >> shift : value << -shift;
}

std::uint32_t ShiftLeft(std::uint32_t value, std::int32_t shift) noexcept
{
    return ShiftRight(value, -shift);
}

std::uint32_t FloatToLeftAligned(float component) noexcept
{
    // NaN goes to 0; 1.0 and above to all ones.
    if (!(component > 0.0f))
        return 0;
    if (component >= 1.0f)
        return 0xFFFFFFFFu;
    return static_cast<std::uint32_t>(static_cast<double>(component) * 4294967296.0);
}

}  // namespace

QelRgbColorSpec::QelRgbColorSpec() noexcept
{
    SetMasks(0, 0, 0, 0);
}

QelRgbColorSpec::QelRgbColorSpec(std::uint32_t red, std::uint32_t green, std::uint32_t blue, std::uint32_t alpha,
                                 Access access, std::int32_t byteCount) noexcept
{
    SetMasks(red, green, blue, alpha);
    SetAccess(access, byteCount);
}

std::unique_ptr<QelRgbColorSpec> QelRgbColorSpec::New()
{
    return std::unique_ptr<QelRgbColorSpec>(new (std::nothrow) QelRgbColorSpec);
}

std::unique_ptr<QelRgbColorSpec> QelRgbColorSpec::New(std::uint32_t red, std::uint32_t green, std::uint32_t blue,
                                                      std::uint32_t alpha, Access access, std::int32_t byteCount)
{
    return std::unique_ptr<QelRgbColorSpec>(new (std::nothrow)
                                                QelRgbColorSpec(red, green, blue, alpha, access, byteCount));
}

void QelRgbColorSpec::SetAccess(Access access, std::int32_t byteCount) noexcept
{
    m_access = access;
    m_byteCount = byteCount;
}

void QelRgbColorSpec::SetMasks(std::uint32_t red, std::uint32_t green, std::uint32_t blue,
                               std::uint32_t alpha) noexcept
{
    m_masks = {red, green, blue, alpha};
    for (std::size_t i = 0; i < 4; ++i) {
        const std::uint32_t mask = m_masks[i];
        const std::int32_t high = mask ? 31 - std::countl_zero(mask) : 0;
        const std::int32_t low = mask ? std::countr_zero(mask) : 0;
        m_bitCounts[i] = mask ? high - low + 1 : 0;
        m_shift8[i] = high - 7;
        m_shift16[i] = high - 15;
        m_shift32[i] = 31 - high;
    }
}

std::uint32_t QelRgbColorSpec::ReadPixel(const void* pixel) const noexcept
{
    switch (m_access) {
    case Access::ByteSequence: {
        const auto* bytes = static_cast<const std::uint8_t*>(pixel);
        std::uint32_t value = 0;
        for (std::int32_t i = 0; i < m_byteCount; ++i)
            value = value << 8 | bytes[i];
        return value;
    }
    case Access::Word16: {
        std::uint16_t word;
        std::memcpy(&word, pixel, sizeof word);
        return word;
    }
    case Access::Word32: {
        std::uint32_t word;
        std::memcpy(&word, pixel, sizeof word);
        return word;
    }
    default:
        return 0;
    }
}

void QelRgbColorSpec::WritePixel(void* pixel, std::uint32_t value) const noexcept
{
    switch (m_access) {
    case Access::ByteSequence: {
        auto* bytes = static_cast<std::uint8_t*>(pixel);
        for (std::int32_t i = 0; i < m_byteCount; ++i)
            bytes[i] = static_cast<std::uint8_t>(ShiftRight(value, 8 * (m_byteCount - 1 - i)));
        return;
    }
    case Access::Word16: {
        const auto word = static_cast<std::uint16_t>(value);
        std::memcpy(pixel, &word, sizeof word);
        return;
    }
    case Access::Word32:
        std::memcpy(pixel, &value, sizeof value);
        return;
    default:
        return;
    }
}

std::uint8_t QelRgbColorSpec::Component8(Channel c, std::uint32_t value) const noexcept
{
    return static_cast<std::uint8_t>(ShiftRight(value & Mask(c), Shift8(c)));
}

std::uint16_t QelRgbColorSpec::Component16(Channel c, std::uint32_t value) const noexcept
{
    return static_cast<std::uint16_t>(ShiftRight(value & Mask(c), Shift16(c)));
}

std::uint32_t QelRgbColorSpec::Component32(Channel c, std::uint32_t value) const noexcept
{
    return ShiftLeft(value & Mask(c), Shift32(c));
}

float QelRgbColorSpec::ComponentFloat(Channel c, std::uint32_t value) const noexcept
{
    return static_cast<float>(static_cast<double>(Component32(c, value)) * (1.0 / 4294967296.0));
}

std::uint8_t QelRgbColorSpec::Red8(const void* pixel) const noexcept
{
    return Component8(Channel::Red, ReadPixel(pixel));
}

std::uint8_t QelRgbColorSpec::Green8(const void* pixel) const noexcept
{
    return Component8(Channel::Green, ReadPixel(pixel));
}

std::uint8_t QelRgbColorSpec::Blue8(const void* pixel) const noexcept
{
    return Component8(Channel::Blue, ReadPixel(pixel));
}

std::uint8_t QelRgbColorSpec::Alpha8(const void* pixel) const noexcept
{
    return Component8(Channel::Alpha, ReadPixel(pixel));
}

std::array<std::uint8_t, 3> QelRgbColorSpec::Rgb8(const void* pixel) const noexcept
{
    const std::uint32_t value = ReadPixel(pixel);
    return {Component8(Channel::Red, value), Component8(Channel::Green, value), Component8(Channel::Blue, value)};
}

std::array<std::uint8_t, 4> QelRgbColorSpec::Rgba8(const void* pixel) const noexcept
{
    const std::uint32_t value = ReadPixel(pixel);
    std::array<std::uint8_t, 4> components{};
    for (std::size_t i = 0; i < 4; ++i)
        components[i] = Component8(kChannels[i], value);
    return components;
}

std::array<std::uint16_t, 4> QelRgbColorSpec::Rgba16(const void* pixel) const noexcept
{
    const std::uint32_t value = ReadPixel(pixel);
    std::array<std::uint16_t, 4> components{};
    for (std::size_t i = 0; i < 4; ++i)
        components[i] = Component16(kChannels[i], value);
    return components;
}

std::array<float, 4> QelRgbColorSpec::RgbaFloat(const void* pixel) const noexcept
{
    const std::uint32_t value = ReadPixel(pixel);
    std::array<float, 4> components{};
    for (std::size_t i = 0; i < 4; ++i)
        components[i] = ComponentFloat(kChannels[i], value);
    return components;
}

std::uint32_t QelRgbColorSpec::Pack8(std::uint8_t r, std::uint8_t g, std::uint8_t b, std::uint8_t a) const noexcept
{
    const std::uint32_t components[4] = {r, g, b, a};
    std::uint32_t value = 0;
    for (std::size_t i = 0; i < 4; ++i)
        value |= ShiftLeft(components[i], m_shift8[i]) & m_masks[i];
    return value;
}

std::uint32_t QelRgbColorSpec::Pack16(std::uint16_t r, std::uint16_t g, std::uint16_t b,
                                      std::uint16_t a) const noexcept
{
    const std::uint32_t components[4] = {r, g, b, a};
    std::uint32_t value = 0;
    for (std::size_t i = 0; i < 4; ++i)
        value |= ShiftLeft(components[i], m_shift16[i]) & m_masks[i];
    return value;
}

std::uint32_t QelRgbColorSpec::PackFloat(float r, float g, float b, float a) const noexcept
{
    const float components[4] = {r, g, b, a};
    std::uint32_t value = 0;
    for (std::size_t i = 0; i < 4; ++i)
        value |= ShiftRight(FloatToLeftAligned(components[i]), m_shift32[i]) & m_masks[i];
    return value;
}

void QelRgbColorSpec::WriteRgba8(void* pixel, std::uint8_t r, std::uint8_t g, std::uint8_t b,
                                 std::uint8_t a) const noexcept
{
    WritePixel(pixel, Pack8(r, g, b, a));
}
