#pragma once

#include <array>
#include <cstdint>
#include <memory>

/// How red, green, blue and alpha lie in a pixel: a mask per component and the way
/// the pixel is loaded (the access kind). For a mask with lowest set bit l and highest
/// set bit h, a component has h - l + 1 bits; it reaches the top bit of an 8-bit value
/// by a shift of h - 7, of a 16-bit value by h - 15, and of a left-aligned 32-bit value
/// by 31 - h. A positive shift moves right when reading and left when writing; a
/// negative one the other way. A zero mask counts 0 bits and takes h as 0.
/// A value type; nothing in it is shared, so threads may read through one spec at once.
class QelRgbColorSpec {
public:
    enum class Channel : std::int32_t { Red = 0, Green = 1, Blue = 2, Alpha = 3 };

    /// How a pixel is loaded and stored. Any other value reads as 0 and writes nothing.
    enum class Access : std::int32_t {
        None = 0,
        ByteSequence = 3,  // the byte count of bytes, the first one most significant
        Word16 = 5,        // one native 16-bit load
        Word32 = 7,        // one native 32-bit load
    };

    /// Zero masks, no access.
    QelRgbColorSpec() noexcept;
    QelRgbColorSpec(std::uint32_t red, std::uint32_t green, std::uint32_t blue, std::uint32_t alpha,
                    Access access, std::int32_t byteCount) noexcept;
    QelRgbColorSpec(const QelRgbColorSpec&) noexcept = default;
    QelRgbColorSpec& operator=(const QelRgbColorSpec&) noexcept = default;

    /// Null when memory runs out.
    [[nodiscard]] static std::unique_ptr<QelRgbColorSpec> New();
    [[nodiscard]] static std::unique_ptr<QelRgbColorSpec> New(std::uint32_t red, std::uint32_t green,
                                                              std::uint32_t blue, std::uint32_t alpha,
                                                              Access access, std::int32_t byteCount);

    void SetAccess(Access access, std::int32_t byteCount) noexcept;
    /// Also recomputes every shift and bit count.
    void SetMasks(std::uint32_t red, std::uint32_t green, std::uint32_t blue, std::uint32_t alpha) noexcept;

    [[nodiscard]] std::uint32_t Mask(Channel c) const noexcept { return m_masks[Index(c)]; }
    [[nodiscard]] std::int32_t Shift8(Channel c) const noexcept { return m_shift8[Index(c)]; }
    [[nodiscard]] std::int32_t Shift16(Channel c) const noexcept { return m_shift16[Index(c)]; }
    [[nodiscard]] std::int32_t BitCount(Channel c) const noexcept { return m_bitCounts[Index(c)]; }
    [[nodiscard]] std::int32_t Shift32(Channel c) const noexcept { return m_shift32[Index(c)]; }
    [[nodiscard]] Access GetAccess() const noexcept { return m_access; }
    [[nodiscard]] std::int32_t ByteCount() const noexcept { return m_byteCount; }
    [[nodiscard]] bool HasAlpha() const noexcept { return Mask(Channel::Alpha) != 0; }

    /// The pixel at `pixel` as one number, by the access kind.
    [[nodiscard]] std::uint32_t ReadPixel(const void* pixel) const noexcept;
    /// Stores `value` at `pixel` by the access kind; bits outside the masks go too.
    void WritePixel(void* pixel, std::uint32_t value) const noexcept;

    // One component of a pixel value, with its top bit at bit 7, 15 or 31 of the result.
    // Bits below the component's own are 0.
    [[nodiscard]] std::uint8_t Component8(Channel c, std::uint32_t value) const noexcept;
    [[nodiscard]] std::uint16_t Component16(Channel c, std::uint32_t value) const noexcept;
    [[nodiscard]] std::uint32_t Component32(Channel c, std::uint32_t value) const noexcept;
    /// The left-aligned 32-bit component scaled by 2^-32.
    [[nodiscard]] float ComponentFloat(Channel c, std::uint32_t value) const noexcept;

    [[nodiscard]] std::uint8_t Red8(const void* pixel) const noexcept;
    [[nodiscard]] std::uint8_t Green8(const void* pixel) const noexcept;
    [[nodiscard]] std::uint8_t Blue8(const void* pixel) const noexcept;
    [[nodiscard]] std::uint8_t Alpha8(const void* pixel) const noexcept;
    [[nodiscard]] std::array<std::uint8_t, 3> Rgb8(const void* pixel) const noexcept;
    [[nodiscard]] std::array<std::uint8_t, 4> Rgba8(const void* pixel) const noexcept;
    [[nodiscard]] std::array<std::uint16_t, 4> Rgba16(const void* pixel) const noexcept;
    [[nodiscard]] std::array<float, 4> RgbaFloat(const void* pixel) const noexcept;

    /// The pixel value that holds the four components; the inverse of the readers.
    [[nodiscard]] std::uint32_t Pack8(std::uint8_t r, std::uint8_t g, std::uint8_t b, std::uint8_t a) const noexcept;
    [[nodiscard]] std::uint32_t Pack16(std::uint16_t r, std::uint16_t g, std::uint16_t b,
                                       std::uint16_t a) const noexcept;
    /// Components in 0..1; others are clamped.
    [[nodiscard]] std::uint32_t PackFloat(float r, float g, float b, float a) const noexcept;
    void WriteRgba8(void* pixel, std::uint8_t r, std::uint8_t g, std::uint8_t b, std::uint8_t a) const noexcept;

    friend bool operator==(const QelRgbColorSpec&, const QelRgbColorSpec&) noexcept = default;

private:
    [[nodiscard]] static constexpr std::size_t Index(Channel c) noexcept { return static_cast<std::size_t>(c); }

    std::array<std::uint32_t, 4> m_masks{};     // R, G, B, A
    std::array<std::int32_t, 4> m_shift8{};     // h - 7
    std::array<std::int32_t, 4> m_shift16{};    // h - 15
    std::array<std::int32_t, 4> m_bitCounts{};  // h - l + 1
    Access m_access = Access::None;
    std::int32_t m_byteCount = 0;
    std::array<std::int32_t, 4> m_shift32{};    // 31 - h, never negative
};
