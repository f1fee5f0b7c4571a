#include "bittree/imp/QelThresholdRow.h"
#include "bittree/imp/QelThresholdRowBody.h"

#include <emmintrin.h>

namespace qel::sse2 {
namespace {

// Eight pixels a register.
struct V {
    using I = __m128i;
    static constexpr std::int32_t kPixels = 8;

    static I Set1_16(std::int16_t v) noexcept { return _mm_set1_epi16(v); }
    static I Set1(std::int32_t v) noexcept { return _mm_set1_epi32(v); }
    static I Zero() noexcept { return _mm_setzero_si128(); }
    static I Load(const std::uint8_t* plane, std::int32_t j) noexcept
    {
        return _mm_loadu_si128(reinterpret_cast<const __m128i*>(plane + 2 * static_cast<std::ptrdiff_t>(j)));
    }
    static I Xor(I a, I b) noexcept { return _mm_xor_si128(a, b); }
    static I Or(I a, I b) noexcept { return _mm_or_si128(a, b); }
    static I CmpEq16(I a, I b) noexcept { return _mm_cmpeq_epi16(a, b); }
    static I CmpGt16(I a, I b) noexcept { return _mm_cmpgt_epi16(a, b); }
    static I Madd(I a, I b) noexcept { return _mm_madd_epi16(a, b); }
    static I Srai14(I v) noexcept { return _mm_srai_epi32(v, 14); }
    static I Unpack16Lo(I a, I b) noexcept { return _mm_unpacklo_epi16(a, b); }
    static I Unpack16Hi(I a, I b) noexcept { return _mm_unpackhi_epi16(a, b); }
    static I Packs32(I a, I b) noexcept { return _mm_packs_epi32(a, b); }
    static std::uint32_t ByteMask(I a, I b) noexcept
    {
        return static_cast<std::uint32_t>(_mm_movemask_epi8(_mm_packs_epi16(a, b)));
    }
};

}  // namespace

void ThresholdRow(const QelThresholdRow& row, std::uint32_t* words) noexcept
{
    qel::threshold::ThresholdRowBody<V>(row, words);
}

}  // namespace qel::sse2
