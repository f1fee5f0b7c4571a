#include "mpr/imp/QelSlabAccumulators.h"
#include "mpr/imp/QelSlabVectorBody.h"

#include <immintrin.h>

namespace qel::avx2 {
namespace {

// Eight 32-bit lanes, sixteen 16-bit lanes. The 16-bit unpacks and packs work within
// 128-bit halves; the body pairs them so that pixels come out in order.
struct V {
    using I = __m256i;
    static constexpr int kLanes = 8;

    static constexpr bool kPermutes = true;
    // Lane i of the result is lane index[i] of table.
    static I Permute(I table, I index) noexcept { return _mm256_permutevar8x32_epi32(table, index); }
    // Without a word permute across halves the pairs would cost two permutes and a
    // blend each, no less than eight-lane gathers (measured).
    static constexpr bool kWordPairs = false;
    static I Min(I a, I b) noexcept { return _mm256_min_epi32(a, b); }
    static I Max(I a, I b) noexcept { return _mm256_max_epi32(a, b); }

    static I Set1(std::int32_t v) noexcept { return _mm256_set1_epi32(v); }
    static I Set1_16(std::int16_t v) noexcept { return _mm256_set1_epi16(v); }
    static I Lanes() noexcept { return _mm256_setr_epi32(0, 1, 2, 3, 4, 5, 6, 7); }

    static I Load(const void* p) noexcept { return _mm256_loadu_si256(static_cast<const __m256i*>(p)); }
    static void Store(void* p, I v) noexcept { _mm256_storeu_si256(static_cast<__m256i*>(p), v); }
    static I LoadU16As32(const void* p) noexcept
    {
        return _mm256_cvtepu16_epi32(_mm_loadu_si128(static_cast<const __m128i*>(p)));
    }
    static I LoadU8As32(const void* p) noexcept
    {
        return _mm256_cvtepu8_epi32(_mm_loadl_epi64(static_cast<const __m128i*>(p)));
    }
    static I LoadU8As16(const void* p) noexcept
    {
        return _mm256_cvtepu8_epi16(_mm_loadu_si128(static_cast<const __m128i*>(p)));
    }
    // The eight 32-bit lanes, in the 16-bit range, as the first eight 16-bit lanes.
    static I NarrowSigned(I v) noexcept
    {
        return _mm256_permute4x64_epi64(_mm256_packs_epi32(v, v), _MM_SHUFFLE(3, 1, 2, 0));
    }
    // The same for lanes in 0..65535.
    static I NarrowUnsigned(I v) noexcept
    {
        const I half = _mm256_set1_epi32(0x8000);
        return _mm256_xor_si256(NarrowSigned(_mm256_sub_epi32(v, half)), _mm256_set1_epi16(-0x8000));
    }
    static void StoreLow16(void* p, I v) noexcept
    {
        _mm_storeu_si128(static_cast<__m128i*>(p), _mm256_castsi256_si128(v));
    }
    // The eight 32-bit lanes, each 0 or 1, as bytes.
    static void StoreLow8(void* p, I v) noexcept
    {
        const __m128i words = _mm256_castsi256_si128(NarrowSigned(v));
        _mm_storel_epi64(static_cast<__m128i*>(p), _mm_packus_epi16(words, words));
    }
    // The sixteen 16-bit lanes, each 0 or 1, as bytes.
    static void StoreU16AsU8(void* p, I v) noexcept
    {
        const I bytes = _mm256_permute4x64_epi64(_mm256_packus_epi16(v, v), _MM_SHUFFLE(3, 1, 2, 0));
        _mm_storeu_si128(static_cast<__m128i*>(p), _mm256_castsi256_si128(bytes));
    }
    // Sign-extended 16-bit lanes 0-7 and 8-15.
    static I Widen16Lo(I v) noexcept { return _mm256_cvtepi16_epi32(_mm256_castsi256_si128(v)); }
    static I Widen16Hi(I v) noexcept { return _mm256_cvtepi16_epi32(_mm256_extracti128_si256(v, 1)); }

    static I Add(I a, I b) noexcept { return _mm256_add_epi32(a, b); }
    static I Sub(I a, I b) noexcept { return _mm256_sub_epi32(a, b); }
    static I Sub16(I a, I b) noexcept { return _mm256_sub_epi16(a, b); }
    static I And(I a, I b) noexcept { return _mm256_and_si256(a, b); }
    static I Or(I a, I b) noexcept { return _mm256_or_si256(a, b); }
    static I Xor(I a, I b) noexcept { return _mm256_xor_si256(a, b); }
    static I AndNot(I a, I b) noexcept { return _mm256_andnot_si256(a, b); }  // ~a & b
    static I CmpEq(I a, I b) noexcept { return _mm256_cmpeq_epi32(a, b); }
    static I CmpGt(I a, I b) noexcept { return _mm256_cmpgt_epi32(a, b); }
    static I CmpEq16(I a, I b) noexcept { return _mm256_cmpeq_epi16(a, b); }
    static I CmpGt16(I a, I b) noexcept { return _mm256_cmpgt_epi16(a, b); }
    template <int kBits>
    static I Srai(I v) noexcept { return _mm256_srai_epi32(v, kBits); }
    template <int kBits>
    static I Srli(I v) noexcept { return _mm256_srli_epi32(v, kBits); }
    template <int kBits>
    static I Slli(I v) noexcept { return _mm256_slli_epi32(v, kBits); }
    template <int kBits>
    static I Slli16(I v) noexcept { return _mm256_slli_epi16(v, kBits); }
    static I MulhiU16(I a, I b) noexcept { return _mm256_mulhi_epu16(a, b); }
    static I Madd(I a, I b) noexcept { return _mm256_madd_epi16(a, b); }
    static I Unpack16Lo(I a, I b) noexcept { return _mm256_unpacklo_epi16(a, b); }
    static I Unpack16Hi(I a, I b) noexcept { return _mm256_unpackhi_epi16(a, b); }
    static I Packs32(I a, I b) noexcept { return _mm256_packs_epi32(a, b); }
    static I Select(I mask, I a, I b) noexcept { return _mm256_blendv_epi8(a, b, mask); }  // mask ? b : a
    static int MoveMask(I mask) noexcept { return _mm256_movemask_ps(_mm256_castsi256_ps(mask)); }
    // trunc(float(a) * factor): the scalar body's single rounding, lane by lane.
    static I TruncMul(I a, float factor) noexcept
    {
        return _mm256_cvttps_epi32(_mm256_mul_ps(_mm256_cvtepi32_ps(a), _mm256_set1_ps(factor)));
    }
    static I TruncMulBits(I a, I factorBits) noexcept
    {
        return _mm256_cvttps_epi32(_mm256_mul_ps(_mm256_cvtepi32_ps(a), _mm256_castsi256_ps(factorBits)));
    }
    static I MulLo(I a, I b) noexcept { return _mm256_mullo_epi32(a, b); }
    // 32 bits from base + each lane's offset; lanes outside `valid` load nothing.
    static I GatherPairs(const std::uint8_t* base, I offset, I valid) noexcept
    {
        return _mm256_mask_i32gather_epi32(_mm256_setzero_si256(), reinterpret_cast<const int*>(base), offset, valid,
                                           1);
    }
    static I LoadPairs(const std::uint8_t* const (&at)[kLanes]) noexcept
    {
        return _mm256_setr_epi32(QelSlabLoad<std::int32_t>(at[0]), QelSlabLoad<std::int32_t>(at[1]),
                                 QelSlabLoad<std::int32_t>(at[2]), QelSlabLoad<std::int32_t>(at[3]),
                                 QelSlabLoad<std::int32_t>(at[4]), QelSlabLoad<std::int32_t>(at[5]),
                                 QelSlabLoad<std::int32_t>(at[6]), QelSlabLoad<std::int32_t>(at[7]));
    }
};

}  // namespace

constinit const QelSlabKernels kSlabKernels{&qel::slab::GeneralRowFor<V>, &qel::slab::PlaneRowFor<V>};

}  // namespace qel::avx2
