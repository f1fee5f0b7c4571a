#pragma once

// The arithmetic of one slab sample: corner weights, the interpolated value and how
// an accumulator takes it in. Every body of the slab accumulators, scalar or vector,
// reproduces these integers exactly.
//
// The functions are always inlined because the AVX2 body file includes this header
// and is compiled with -mavx2: an out-of-line copy emitted there could be the one the
// linker keeps for every caller, and would then run AVX2 code on any processor.

#include <cstdint>
#include <cstring>
#include <type_traits>

/// Weights of the eight corners of a sample, 13-bit fixed point, summing to exactly
/// 8192. Index: bit 0 the x neighbour (xi + 1), bit 1 the y neighbour (yi + 1), bit 2
/// the upper slice; so 0 is (xi, yi) of the lower slice and 7 (xi + 1, yi + 1) of the
/// upper one.
struct QelSlabWeights {
    std::uint16_t W[8];
};

/// The 13-bit fraction of a 16.16 coordinate.
[[gnu::always_inline]] constexpr std::uint32_t QelSlabFraction(std::int32_t fixed) noexcept
{
    return (static_cast<std::uint32_t>(fixed) & 0xFFFFu) >> 3;
}

/// The 13-bit fraction of z within a gap: `aboveLower` is fixed z minus the lower
/// slice's fixed z, `gapFactor` 65536 / gap width. The one floating-point operation
/// per sample: a single product of floats, truncated, which every vector body
/// repeats with the same single rounding. Caller ensures 0 <= aboveLower < gap width,
/// so the product stays below 65536.
[[gnu::always_inline]] inline std::uint32_t QelSlabZFraction(float gapFactor, std::int32_t aboveLower) noexcept
{
    return static_cast<std::uint32_t>(static_cast<std::int32_t>(gapFactor * static_cast<float>(aboveLower))) >> 3;
}

/// The weights from the three 13-bit fractions (each 0..8191). The four weights of
/// the (x, y) square are rounded down to multiples of 8 and the last of each pair
/// takes the remainder, and so is each weight's share of the upper slice, so the
/// total is exactly 8192 whatever the fractions.
[[gnu::always_inline]] constexpr QelSlabWeights QelSlabCornerWeights(std::uint32_t fx, std::uint32_t fy,
                                                                     std::uint32_t fz) noexcept
{
    const std::uint32_t a = ((fx * fy) >> 16) << 3;            // (xi + 1, yi + 1)
    const std::uint32_t b = ((fx * (8192u - fy)) >> 16) << 3;  // (xi + 1, yi)
    const std::uint32_t c = fy - a;                            // (xi, yi + 1)
    const std::uint32_t d = (8192u - fy) - b;                  // (xi, yi)
    const std::uint32_t square[4] = {d, b, c, a};
    QelSlabWeights weights{};
    for (int i = 0; i < 4; ++i) {
        const std::uint32_t upper = ((square[i] * fz) >> 16) << 3;
        weights.W[i] = static_cast<std::uint16_t>(square[i] - upper);
        weights.W[4 + i] = static_cast<std::uint16_t>(upper);
    }
    return weights;
}

/// The interpolated value on the unsigned scale (0..65535): the pixel value for
/// unsigned data, the pixel value + 0x8000 for signed data. `corners` in the order of
/// QelSlabWeights, as stored; `bias` 0x8000 for unsigned data and 0 for signed, so
/// that every product is of two signed 16-bit numbers. The constant 0x10001000 adds
/// the rounding half (0x1000) and 0x8000 << 13, which turns the signed result back
/// to the unsigned scale.
[[gnu::always_inline]] constexpr std::uint32_t QelSlabValue(const std::uint16_t (&corners)[8],
                                                            const QelSlabWeights& weights,
                                                            std::uint16_t bias) noexcept
{
    std::int32_t sum = 0;
    for (int i = 0; i < 8; ++i)
        sum += std::int32_t{weights.W[i]} *
               std::int32_t{static_cast<std::int16_t>(static_cast<std::uint16_t>(corners[i] - bias))};
    return (static_cast<std::uint32_t>(sum + 0x10001000) >> 13) & 0xFFFFu;
}

/// Whether any corner is the padding value, compared as 16 bits.
[[gnu::always_inline]] constexpr bool QelSlabTouchesPadding(const std::uint16_t (&corners)[8],
                                                            std::uint16_t padding) noexcept
{
    bool found = false;
    for (std::uint16_t corner : corners)
        found |= corner == padding;
    return found;
}

/// Mean projection: the sum on the unsigned scale and the number of samples taken.
[[gnu::always_inline]] constexpr void QelSlabTakeSum(std::uint32_t& sum, std::uint16_t& count,
                                                     std::uint32_t value) noexcept
{
    sum += value;
    ++count;
}

/// The compare policies of the extreme projections: whether a new value `u` beats the
/// held `h`, both as the pixel type.
struct QelMip {
    template <typename TPixel>
    [[gnu::always_inline]] static constexpr bool Better(TPixel u, TPixel h) noexcept { return u > h; }
};
struct QelMinip {
    template <typename TPixel>
    [[gnu::always_inline]] static constexpr bool Better(TPixel u, TPixel h) noexcept { return u < h; }
};

/// Highest or lowest projection, in place: `held` is the 16-bit accumulator, `flag`
/// says whether it holds a sample yet. The first sample always wins, whatever the
/// start value. A held value equal to the padding value is replaced only when the
/// stack has padding: without padding a genuine value that happens to equal it
/// counts like any other.
template <typename TPixel, typename TPolicy>
[[gnu::always_inline]] constexpr void QelSlabTakeExtreme(std::uint16_t& held, std::uint8_t& flag, std::uint32_t value,
                                                         bool hasPadding, std::uint16_t padding) noexcept
{
    static_assert(std::is_same_v<TPixel, short> || std::is_same_v<TPixel, unsigned short>);
    const auto u = static_cast<std::uint16_t>(value - (std::is_signed_v<TPixel> ? 0x8000u : 0u));
    if (flag == 0 || (hasPadding && held == padding) ||
        TPolicy::Better(static_cast<TPixel>(u), static_cast<TPixel>(held)))
        held = u;
    flag = 1;
}

/// Unaligned reads and writes of the pixel sizes the loops touch.
template <typename T>
[[gnu::always_inline]] inline T QelSlabLoad(const void* address) noexcept
{
    T value;
    std::memcpy(&value, address, sizeof value);
    return value;
}
template <typename T>
[[gnu::always_inline]] inline void QelSlabStore(void* address, T value) noexcept
{
    std::memcpy(address, &value, sizeof value);
}
