#include "bittree/imp/QelThresholdRow.h"

#include <immintrin.h>

namespace qel::avx2 {
namespace {

struct Lanes {
    explicit Lanes(const QelThresholdRow& row) noexcept
        : bias(_mm256_set1_epi16(static_cast<std::int16_t>(row.Bias))),
          threshold(_mm256_set1_epi16(row.Threshold)),
          padding(_mm256_set1_epi16(static_cast<std::int16_t>(row.Padding))),
          // Each 32-bit lane pairs a first sample (low half) with a second one.
          weights(_mm256_set1_epi32(static_cast<std::int32_t>(
              static_cast<std::uint32_t>(16384 - row.Weight) << 16 | static_cast<std::uint32_t>(row.Weight))))
    {
    }
    __m256i bias, threshold, padding, weights;
};

__m256i Load(const std::uint8_t* plane, std::int32_t j) noexcept
{
    return _mm256_loadu_si256(reinterpret_cast<const __m256i*>(plane + 2 * static_cast<std::ptrdiff_t>(j)));
}

// All ones in each 16-bit lane of the 16 pixels from j that stay clear.
template <bool kTwoPlanes, bool kPadding>
__m256i ClearLanes(const QelThresholdRow& row, const Lanes& c, std::int32_t j) noexcept
{
    const __m256i second = Load(row.Second, j);
    __m256i value = _mm256_xor_si256(second, c.bias);
    __m256i padded = kPadding ? _mm256_cmpeq_epi16(second, c.padding) : _mm256_setzero_si256();
    if constexpr (kTwoPlanes) {
        const __m256i first = Load(row.First, j);
        const __m256i a = _mm256_xor_si256(first, c.bias);
        // Unpacks and packs work within 128-bit halves: paired, they keep the order.
        const __m256i low = _mm256_srai_epi32(_mm256_madd_epi16(_mm256_unpacklo_epi16(a, value), c.weights), 14);
        const __m256i high = _mm256_srai_epi32(_mm256_madd_epi16(_mm256_unpackhi_epi16(a, value), c.weights), 14);
        value = _mm256_packs_epi32(low, high);  // in range: a blend lies between its samples
        if constexpr (kPadding)
            padded = _mm256_or_si256(padded, _mm256_cmpeq_epi16(first, c.padding));
    }
    const __m256i below = _mm256_cmpgt_epi16(c.threshold, value);
    return kPadding ? _mm256_or_si256(below, padded) : below;
}

template <bool kTwoPlanes, bool kPadding>
void Rows(const QelThresholdRow& row, std::uint32_t* words) noexcept
{
    const Lanes c(row);
    const std::int32_t whole = row.Pixels & ~31;
    for (std::int32_t j = 0; j < whole; j += 32) {
        // The pack interleaves the halves of both groups; the permute puts the 32
        // bytes back in pixel order.
        const __m256i packed = _mm256_packs_epi16(ClearLanes<kTwoPlanes, kPadding>(row, c, j),
                                                  ClearLanes<kTwoPlanes, kPadding>(row, c, j + 16));
        const __m256i ordered = _mm256_permute4x64_epi64(packed, _MM_SHUFFLE(3, 1, 2, 0));
        words[j >> 5] = ~static_cast<std::uint32_t>(_mm256_movemask_epi8(ordered));
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

}  // namespace qel::avx2
