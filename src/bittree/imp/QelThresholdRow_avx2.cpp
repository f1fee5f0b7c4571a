#include "bittree/imp/QelThresholdRow.h"
#include "bittree/imp/QelThresholdRowBody.h"

#include <immintrin.h>

namespace qel::avx2 {
namespace {

// Sixteen pixels a register. Unpacks and packs work within 128-bit halves.
struct V {
    using I = __m256i;
    static constexpr std::int32_t kPixels = 16;

    static I Set1_16(std::int16_t v) noexcept { return _mm256_set1_epi16(v); }
    static I Set1(std::int32_t v) noexcept { return _mm256_set1_epi32(v); }
    static I Zero() noexcept { return _mm256_setzero_si256(); }
    static I Load(const std::uint8_t* plane, std::int32_t j) noexcept
    {
        return _mm256_loadu_si256(reinterpret_cast<const __m256i*>(plane + 2 * static_cast<std::ptrdiff_t>(j)));
    }
    static I Xor(I a, I b) noexcept { return _mm256_xor_si256(a, b); }
    static I Or(I a, I b) noexcept { return _mm256_or_si256(a, b); }
    static I CmpEq16(I a, I b) noexcept { return _mm256_cmpeq_epi16(a, b); }
    static I CmpGt16(I a, I b) noexcept { return _mm256_cmpgt_epi16(a, b); }
    static I Madd(I a, I b) noexcept { return _mm256_madd_epi16(a, b); }
    static I Srai14(I v) noexcept { return _mm256_srai_epi32(v, 14); }
    static I Unpack16Lo(I a, I b) noexcept { return _mm256_unpacklo_epi16(a, b); }
    static I Unpack16Hi(I a, I b) noexcept { return _mm256_unpackhi_epi16(a, b); }
    static I Packs32(I a, I b) noexcept { return _mm256_packs_epi32(a, b); }
    // The pack interleaves the halves of a and b; the permute puts the 32 bytes back
    // in pixel order.
    static std::uint32_t ByteMask(I a, I b) noexcept
    {
        const I ordered = _mm256_permute4x64_epi64(_mm256_packs_epi16(a, b), _MM_SHUFFLE(3, 1, 2, 0));
        return static_cast<std::uint32_t>(_mm256_movemask_epi8(ordered));
    }
};

}  // namespace

void ThresholdRow(const QelThresholdRow& row, std::uint32_t* words) noexcept
{
    qel::threshold::ThresholdRowBody<V>(row, words);
}

}  // namespace qel::avx2
