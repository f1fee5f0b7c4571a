#pragma once

#include "base/QelIsa.h"

#include <cstdint>
#include <cstring>

/// One row of 16-bit pixels to turn into threshold bits. Pixel j of the row is set
/// when it is defined and its value reaches `Threshold`, all on the signed scale:
/// an unsigned stack's samples and threshold come biased by -32768 (the sample's top
/// bit flipped), which keeps their order.
///
/// With `TwoPlanes` the value is (first x w + second x (16384 - w)) >> 14, an
/// arithmetic shift, and a pixel is undefined when either source equals the padding
/// value; without, the second plane alone is the value and the only source tested.
struct QelThresholdRow {
    const std::uint8_t* First = nullptr;   // may be null without TwoPlanes
    const std::uint8_t* Second = nullptr;
    std::int32_t Pixels = 0;
    std::int32_t Weight = 0;                // of First, 0 to 16383
    bool TwoPlanes = false;
    std::uint16_t Bias = 0;                 // 0x8000 for an unsigned stack, else 0
    std::int16_t Threshold = 0;             // on the signed scale
    bool HasPadding = false;
    std::uint16_t Padding = 0;              // compared with the raw samples
};

/// Writes ceil(Pixels / 32) words: bit j of word j / 32 is pixel j, and bits from
/// Pixels on are 0. Reads exactly Pixels samples of each plane it uses.
using QelThresholdRowFn = void (*)(const QelThresholdRow& row, std::uint32_t* words) noexcept;

/// The body of one processor level; every level gives the scalar body's bits.
[[nodiscard]] QelThresholdRowFn QelThresholdRowFor(QelIsa isa) noexcept;

namespace qel::threshold {

[[nodiscard]] inline std::uint16_t LoadSample(const std::uint8_t* plane, std::int32_t j) noexcept
{
    std::uint16_t raw;
    std::memcpy(&raw, plane + 2 * static_cast<std::ptrdiff_t>(j), sizeof raw);
    return raw;
}

/// The rule for one pixel, as every body must give it.
[[nodiscard]] inline bool PixelIsSet(const QelThresholdRow& row, std::int32_t j) noexcept
{
    const std::uint16_t second = LoadSample(row.Second, j);
    std::int32_t value = static_cast<std::int16_t>(second ^ row.Bias);
    bool undefined = row.HasPadding && second == row.Padding;
    if (row.TwoPlanes) {
        const std::uint16_t first = LoadSample(row.First, j);
        undefined = undefined || (row.HasPadding && first == row.Padding);
        const std::int32_t a = static_cast<std::int16_t>(first ^ row.Bias);
        value = (a * row.Weight + value * (16384 - row.Weight)) >> 14;
    }
    return !undefined && value >= row.Threshold;
}

/// Pixels [begin, Pixels) one at a time into the words from word begin / 32 on;
/// `begin` is a multiple of 32. Where vector bodies hand over their last pixels.
inline void TailWords(const QelThresholdRow& row, std::int32_t begin, std::uint32_t* words) noexcept
{
    for (std::int32_t j = begin; j < row.Pixels; j += 32) {
        const std::int32_t end = row.Pixels - j < 32 ? row.Pixels - j : 32;
        std::uint32_t word = 0;
        for (std::int32_t k = 0; k < end; ++k)
            word |= std::uint32_t{PixelIsSet(row, j + k)} << k;
        words[j >> 5] = word;
    }
}

}  // namespace qel::threshold

namespace qel::sse2 {
void ThresholdRow(const QelThresholdRow& row, std::uint32_t* words) noexcept;
}  // namespace qel::sse2
namespace qel::avx2 {
void ThresholdRow(const QelThresholdRow& row, std::uint32_t* words) noexcept;
}  // namespace qel::avx2
