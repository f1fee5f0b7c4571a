#include "mpr/imp/QelSlabAccumulators.h"
#include "mpr/imp/QelSlabVectorBody.h"

#include <emmintrin.h>

namespace qel::sse2 {
namespace {

// Four 32-bit lanes, eight 16-bit lanes. SSE2 is part of every x86-64 processor, so
// this file needs no target flag.
struct V {
    using I = __m128i;
    static constexpr int kLanes = 4;

    // No variable permute before SSSE3: slices are looked up by compares alone.
    static constexpr bool kPermutes = false;
    static constexpr bool kWordPairs = false;

    static I Set1(std::int32_t v) noexcept { return _mm_set1_epi32(v); }
    static I Set1_16(std::int16_t v) noexcept { return _mm_set1_epi16(v); }
    static I Lanes() noexcept { return _mm_setr_epi32(0, 1, 2, 3); }

    static I Load(const void* p) noexcept { return _mm_loadu_si128(static_cast<const __m128i*>(p)); }
    static void Store(void* p, I v) noexcept { _mm_storeu_si128(static_cast<__m128i*>(p), v); }
    static I LoadU16As32(const void* p) noexcept
    {
        return _mm_unpacklo_epi16(_mm_loadl_epi64(static_cast<const __m128i*>(p)), _mm_setzero_si128());
    }
    static I LoadU8As32(const void* p) noexcept
    {
        const I bytes = _mm_cvtsi32_si128(QelSlabLoad<std::int32_t>(p));
        return _mm_unpacklo_epi16(_mm_unpacklo_epi8(bytes, _mm_setzero_si128()), _mm_setzero_si128());
    }
    static I LoadU8As16(const void* p) noexcept
    {
        return _mm_unpacklo_epi8(_mm_loadl_epi64(static_cast<const __m128i*>(p)), _mm_setzero_si128());
    }
    static I NarrowSigned(I v) noexcept { return _mm_packs_epi32(v, v); }
    static I NarrowUnsigned(I v) noexcept
    {
        return _mm_xor_si128(NarrowSigned(_mm_sub_epi32(v, _mm_set1_epi32(0x8000))), _mm_set1_epi16(-0x8000));
    }
    static void StoreLow16(void* p, I v) noexcept { _mm_storel_epi64(static_cast<__m128i*>(p), v); }
    static void StoreLow8(void* p, I v) noexcept
    {
        const I words = NarrowSigned(v);
        QelSlabStore<std::int32_t>(p, _mm_cvtsi128_si32(_mm_packus_epi16(words, words)));
    }
    static void StoreU16AsU8(void* p, I v) noexcept
    {
        _mm_storel_epi64(static_cast<__m128i*>(p), _mm_packus_epi16(v, v));
    }
    static I Widen16Lo(I v) noexcept { return _mm_srai_epi32(_mm_unpacklo_epi16(v, v), 16); }
    static I Widen16Hi(I v) noexcept { return _mm_srai_epi32(_mm_unpackhi_epi16(v, v), 16); }

    static I Add(I a, I b) noexcept { return _mm_add_epi32(a, b); }
    static I Sub(I a, I b) noexcept { return _mm_sub_epi32(a, b); }
    static I Sub16(I a, I b) noexcept { return _mm_sub_epi16(a, b); }
    static I And(I a, I b) noexcept { return _mm_and_si128(a, b); }
    static I Or(I a, I b) noexcept { return _mm_or_si128(a, b); }
    static I Xor(I a, I b) noexcept { return _mm_xor_si128(a, b); }
    static I AndNot(I a, I b) noexcept { return _mm_andnot_si128(a, b); }  // ~a & b
    static I CmpEq(I a, I b) noexcept { return _mm_cmpeq_epi32(a, b); }
    static I CmpGt(I a, I b) noexcept { return _mm_cmpgt_epi32(a, b); }
    static I CmpEq16(I a, I b) noexcept { return _mm_cmpeq_epi16(a, b); }
    static I CmpGt16(I a, I b) noexcept { return _mm_cmpgt_epi16(a, b); }
    template <int kBits>
    static I Srai(I v) noexcept { return _mm_srai_epi32(v, kBits); }
    template <int kBits>
    static I Srli(I v) noexcept { return _mm_srli_epi32(v, kBits); }
    template <int kBits>
    static I Slli(I v) noexcept { return _mm_slli_epi32(v, kBits); }
    template <int kBits>
    static I Slli16(I v) noexcept { return _mm_slli_epi16(v, kBits); }
    static I MulhiU16(I a, I b) noexcept { return _mm_mulhi_epu16(a, b); }
    static I Madd(I a, I b) noexcept { return _mm_madd_epi16(a, b); }
    static I Unpack16Lo(I a, I b) noexcept { return _mm_unpacklo_epi16(a, b); }
    static I Unpack16Hi(I a, I b) noexcept { return _mm_unpackhi_epi16(a, b); }
    static I Packs32(I a, I b) noexcept { return _mm_packs_epi32(a, b); }
    static I Select(I mask, I a, I b) noexcept  // mask ? b : a
    {
        return _mm_or_si128(_mm_and_si128(mask, b), _mm_andnot_si128(mask, a));
    }
    static int MoveMask(I mask) noexcept { return _mm_movemask_ps(_mm_castsi128_ps(mask)); }
    static I TruncMul(I a, float factor) noexcept
    {
        return _mm_cvttps_epi32(_mm_mul_ps(_mm_cvtepi32_ps(a), _mm_set1_ps(factor)));
    }
    static I TruncMulBits(I a, I factorBits) noexcept
    {
        return _mm_cvttps_epi32(_mm_mul_ps(_mm_cvtepi32_ps(a), _mm_castsi128_ps(factorBits)));
    }
    // The low 32 bits of each lane's product, from the two even-odd 64-bit products.
    static I MulLo(I a, I b) noexcept
    {
        const I even = _mm_mul_epu32(a, b);
        const I odd = _mm_mul_epu32(_mm_srli_epi64(a, 32), _mm_srli_epi64(b, 32));
        return _mm_unpacklo_epi32(_mm_shuffle_epi32(even, _MM_SHUFFLE(0, 0, 2, 0)),
                                  _mm_shuffle_epi32(odd, _MM_SHUFFLE(0, 0, 2, 0)));
    }
    // 32 bits from base + each lane's offset; lanes outside `valid` read at base,
    // which is always readable.
    static I GatherPairs(const std::uint8_t* base, I offset, I valid) noexcept
    {
        alignas(16) std::int32_t at[kLanes];
        Store(at, And(offset, valid));
        return _mm_setr_epi32(QelSlabLoad<std::int32_t>(base + at[0]), QelSlabLoad<std::int32_t>(base + at[1]),
                              QelSlabLoad<std::int32_t>(base + at[2]), QelSlabLoad<std::int32_t>(base + at[3]));
    }
    static I LoadPairs(const std::uint8_t* const (&at)[kLanes]) noexcept
    {
        return _mm_setr_epi32(QelSlabLoad<std::int32_t>(at[0]), QelSlabLoad<std::int32_t>(at[1]),
                              QelSlabLoad<std::int32_t>(at[2]), QelSlabLoad<std::int32_t>(at[3]));
    }
};

}  // namespace

constinit const QelSlabKernels kSlabKernels{&qel::slab::GeneralRowFor<V>, &qel::slab::PlaneRowFor<V>};

}  // namespace qel::sse2
