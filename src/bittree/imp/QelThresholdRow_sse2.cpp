#include "bittree/imp/QelThresholdRow.h"

#include <emmintrin.h>

namespace qel::sse2 {
namespace {

struct Lanes {
    explicit Lanes(const QelThresholdRow& row) noexcept
        : bias(_mm_set1_epi16(static_cast<std::int16_t>(row.Bias))),
          threshold(_mm_set1_epi16(row.Threshold)),
          padding(_mm_set1_epi16(static_cast<std::int16_t>(row.Padding))),
          // Each 32-bit lane pairs a first sample (low half) with a second one.
          weights(_mm_set1_epi32(static_cast<std::int32_t>(static_cast<std::uint32_t>(16384 - row.Weight) << 16 |
                                                           static_cast<std::uint32_t>(row.Weight))))
    {
    }
    __m128i bias, threshold, padding, weights;
};

__m128i Load(const std::uint8_t* plane, std::int32_t j) noexcept
{
    return _mm_loadu_si128(reinterpret_cast<const __m128i*>(plane + 2 * static_cast<std::ptrdiff_t>(j)));
}

// All ones in each 16-bit lane of the eight pixels from j that stay clear.
template <bool kTwoPlanes, bool kPadding>
__m128i ClearLanes(const QelThresholdRow& row, const Lanes& c, std::int32_t j) noexcept
{
    const __m128i second = Load(row.Second, j);
    __m128i value = _mm_xor_si128(second, c.bias);
    __m128i padded = kPadding ? _mm_cmpeq_epi16(second, c.padding) : _mm_setzero_si128();
    if constexpr (kTwoPlanes) {
        const __m128i first = Load(row.First, j);
        const __m128i a = _mm_xor_si128(first, c.bias);
        const __m128i low = _mm_srai_epi32(_mm_madd_epi16(_mm_unpacklo_epi16(a, value), c.weights), 14);
        const __m128i high = _mm_srai_epi32(_mm_madd_epi16(_mm_unpackhi_epi16(a, value), c.weights), 14);
        value = _mm_packs_epi32(low, high);  // in range: a blend lies between its samples
        if constexpr (kPadding)
            padded = _mm_or_si128(padded, _mm_cmpeq_epi16(first, c.padding));
    }
    const __m128i below = _mm_cmpgt_epi16(c.threshold, value);
    return kPadding ? _mm_or_si128(below, padded) : below;
}

template <bool kTwoPlanes, bool kPadding>
void Rows(const QelThresholdRow& row, std::uint32_t* words) noexcept
{
    const Lanes c(row);
    const std::int32_t whole = row.Pixels & ~31;
    const auto clear = [&row, &c](std::int32_t j) { return ClearLanes<kTwoPlanes, kPadding>(row, c, j); };
    for (std::int32_t j = 0; j < whole; j += 32) {
        const auto low = static_cast<std::uint32_t>(_mm_movemask_epi8(_mm_packs_epi16(clear(j), clear(j + 8))));
        const auto high = static_cast<std::uint32_t>(_mm_movemask_epi8(_mm_packs_epi16(clear(j + 16), clear(j + 24))));
        words[j >> 5] = ~(low | high << 16);
    }
    qel::threshold::TailWords(row, whole, words);
}

}  // namespace

void ThresholdRow(const QelThresholdRow& row, std::uint32_t* words) noexcept
{
    if (row.TwoPlanes)
        row.HasPadding ? Rows<true, true>(row, words) : Rows<true, false>(row, words);
    else
        row.HasPadding ? Rows<false, true>(row, words) : Rows<false, false>(row, words);
}

}  // namespace qel::sse2
