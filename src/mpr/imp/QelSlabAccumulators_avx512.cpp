#include "mpr/imp/QelSlabAccumulators.h"
#include "mpr/imp/QelSlabVectorBody.h"

#include <immintrin.h>

namespace qel::avx512 {
namespace {

// Sixteen 32-bit lanes, thirty-two 16-bit lanes. Compares give mask registers here;
// the body works with lane masks in vectors, so they are widened to all-ones lanes
// and narrowed back where an instruction wants a mask register.
struct V {
    using I = __m512i;
    static constexpr int kLanes = 16;

    static constexpr bool kPermutes = true;
    // Lane i of the result is lane index[i] of table.
    static I Permute(I table, I index) noexcept { return _mm512_permutexvar_epi32(index, table); }
    static constexpr bool kWordPairs = true;
    // 32-bit lane i of the result holds 16-bit lanes offset[i] and offset[i] + 1 of
    // table; offsets lie in 0 .. 30.
    static I WordPairs(I table, I offset) noexcept
    {
        const I next = _mm512_add_epi32(offset, Set1(1));
        return _mm512_permutexvar_epi16(_mm512_or_si512(offset, _mm512_slli_epi32(next, 16)), table);
    }
    static I Min(I a, I b) noexcept { return _mm512_min_epi32(a, b); }
    static I Max(I a, I b) noexcept { return _mm512_max_epi32(a, b); }

    static I Set1(std::int32_t v) noexcept { return _mm512_set1_epi32(v); }
    static I Set1_16(std::int16_t v) noexcept { return _mm512_set1_epi16(v); }
    static I Lanes() noexcept { return _mm512_setr_epi32(0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15); }

    static I Load(const void* p) noexcept { return _mm512_loadu_si512(p); }
    static void Store(void* p, I v) noexcept { _mm512_storeu_si512(p, v); }
    static I LoadU16As32(const void* p) noexcept
    {
        return _mm512_cvtepu16_epi32(_mm256_loadu_si256(static_cast<const __m256i*>(p)));
    }
    static I LoadU8As32(const void* p) noexcept
    {
        return _mm512_cvtepu8_epi32(_mm_loadu_si128(static_cast<const __m128i*>(p)));
    }
    static I LoadU8As16(const void* p) noexcept
    {
        return _mm512_cvtepu8_epi16(_mm256_loadu_si256(static_cast<const __m256i*>(p)));
    }
    // The sixteen 32-bit lanes, in the 16-bit range, as the first sixteen 16-bit lanes.
    static I NarrowSigned(I v) noexcept { return _mm512_castsi256_si512(_mm512_cvtsepi32_epi16(v)); }
    // The same for lanes in 0..65535.
    static I NarrowUnsigned(I v) noexcept { return _mm512_castsi256_si512(_mm512_cvtepi32_epi16(v)); }
    static void StoreLow16(void* p, I v) noexcept
    {
        _mm256_storeu_si256(static_cast<__m256i*>(p), _mm512_castsi512_si256(v));
    }
    // The sixteen 32-bit lanes, each 0 or 1, as bytes.
    static void StoreLow8(void* p, I v) noexcept
    {
        _mm_storeu_si128(static_cast<__m128i*>(p), _mm512_cvtepi32_epi8(v));
    }
    // The thirty-two 16-bit lanes, each 0 or 1, as bytes.
    static void StoreU16AsU8(void* p, I v) noexcept
    {
        _mm256_storeu_si256(static_cast<__m256i*>(p), _mm512_cvtepi16_epi8(v));
    }
    // Sign-extended 16-bit lanes 0-15 and 16-31.
    static I Widen16Lo(I v) noexcept { return _mm512_cvtepi16_epi32(_mm512_castsi512_si256(v)); }
    static I Widen16Hi(I v) noexcept { return _mm512_cvtepi16_epi32(_mm512_extracti64x4_epi64(v, 1)); }

    static I Add(I a, I b) noexcept { return _mm512_add_epi32(a, b); }
    static I Sub(I a, I b) noexcept { return _mm512_sub_epi32(a, b); }
    static I Sub16(I a, I b) noexcept { return _mm512_sub_epi16(a, b); }
    static I And(I a, I b) noexcept { return _mm512_and_si512(a, b); }
    static I Or(I a, I b) noexcept { return _mm512_or_si512(a, b); }
    static I Xor(I a, I b) noexcept { return _mm512_xor_si512(a, b); }
    static I AndNot(I a, I b) noexcept { return _mm512_andnot_si512(a, b); }  // ~a & b
    static I CmpEq(I a, I b) noexcept { return _mm512_movm_epi32(_mm512_cmpeq_epi32_mask(a, b)); }
    static I CmpGt(I a, I b) noexcept { return _mm512_movm_epi32(_mm512_cmpgt_epi32_mask(a, b)); }
    static I CmpEq16(I a, I b) noexcept { return _mm512_movm_epi16(_mm512_cmpeq_epi16_mask(a, b)); }
    static I CmpGt16(I a, I b) noexcept { return _mm512_movm_epi16(_mm512_cmpgt_epi16_mask(a, b)); }
    template <int kBits>
    static I Srai(I v) noexcept { return _mm512_srai_epi32(v, kBits); }
    template <int kBits>
    static I Srli(I v) noexcept { return _mm512_srli_epi32(v, kBits); }
    template <int kBits>
    static I Slli(I v) noexcept { return _mm512_slli_epi32(v, kBits); }
    template <int kBits>
    static I Slli16(I v) noexcept { return _mm512_slli_epi16(v, kBits); }
    static I MulhiU16(I a, I b) noexcept { return _mm512_mulhi_epu16(a, b); }
    static I Madd(I a, I b) noexcept { return _mm512_madd_epi16(a, b); }
    static I Unpack16Lo(I a, I b) noexcept { return _mm512_unpacklo_epi16(a, b); }
    static I Unpack16Hi(I a, I b) noexcept { return _mm512_unpackhi_epi16(a, b); }
    static I Packs32(I a, I b) noexcept { return _mm512_packs_epi32(a, b); }
    // mask ? b : a, byte by byte, the mask's lanes being all ones or all zeros.
    static I Select(I mask, I a, I b) noexcept { return _mm512_mask_blend_epi8(_mm512_movepi8_mask(mask), a, b); }
    static int MoveMask(I mask) noexcept { return _mm512_movepi32_mask(mask); }
    // trunc(float(a) * factor): the scalar body's single rounding, lane by lane.
    static I TruncMul(I a, float factor) noexcept
    {
        return _mm512_cvttps_epi32(_mm512_mul_ps(_mm512_cvtepi32_ps(a), _mm512_set1_ps(factor)));
    }
    static I TruncMulBits(I a, I factorBits) noexcept
    {
        return _mm512_cvttps_epi32(_mm512_mul_ps(_mm512_cvtepi32_ps(a), _mm512_castsi512_ps(factorBits)));
    }
    static I MulLo(I a, I b) noexcept { return _mm512_mullo_epi32(a, b); }
    // 32 bits from base + each lane's offset; lanes outside `valid` load nothing.
    static I GatherPairs(const std::uint8_t* base, I offset, I valid) noexcept
    {
        return _mm512_mask_i32gather_epi32(_mm512_setzero_si512(), _mm512_movepi32_mask(valid), offset, base, 1);
    }
    static I LoadPairs(const std::uint8_t* const (&at)[kLanes]) noexcept
    {
        return _mm512_setr_epi32(
            QelSlabLoad<std::int32_t>(at[0]), QelSlabLoad<std::int32_t>(at[1]), QelSlabLoad<std::int32_t>(at[2]),
            QelSlabLoad<std::int32_t>(at[3]), QelSlabLoad<std::int32_t>(at[4]), QelSlabLoad<std::int32_t>(at[5]),
            QelSlabLoad<std::int32_t>(at[6]), QelSlabLoad<std::int32_t>(at[7]), QelSlabLoad<std::int32_t>(at[8]),
            QelSlabLoad<std::int32_t>(at[9]), QelSlabLoad<std::int32_t>(at[10]), QelSlabLoad<std::int32_t>(at[11]),
            QelSlabLoad<std::int32_t>(at[12]), QelSlabLoad<std::int32_t>(at[13]), QelSlabLoad<std::int32_t>(at[14]),
            QelSlabLoad<std::int32_t>(at[15]));
    }
};

// The compiler uses zmm16-31 freely and its vzeroupper at the way out leaves their
// upper halves set; until they are cleared the caller's SSE code runs far slower
// (an axial plane took twice the time). A write to the 128-bit register clears the
// whole 512.
void ClearHighRegisters() noexcept
{
    asm volatile(
        "vpxord %%xmm16, %%xmm16, %%xmm16\n\tvpxord %%xmm17, %%xmm17, %%xmm17\n\t"
        "vpxord %%xmm18, %%xmm18, %%xmm18\n\tvpxord %%xmm19, %%xmm19, %%xmm19\n\t"
        "vpxord %%xmm20, %%xmm20, %%xmm20\n\tvpxord %%xmm21, %%xmm21, %%xmm21\n\t"
        "vpxord %%xmm22, %%xmm22, %%xmm22\n\tvpxord %%xmm23, %%xmm23, %%xmm23\n\t"
        "vpxord %%xmm24, %%xmm24, %%xmm24\n\tvpxord %%xmm25, %%xmm25, %%xmm25\n\t"
        "vpxord %%xmm26, %%xmm26, %%xmm26\n\tvpxord %%xmm27, %%xmm27, %%xmm27\n\t"
        "vpxord %%xmm28, %%xmm28, %%xmm28\n\tvpxord %%xmm29, %%xmm29, %%xmm29\n\t"
        "vpxord %%xmm30, %%xmm30, %%xmm30\n\tvpxord %%xmm31, %%xmm31, %%xmm31\n\t"
        "vzeroupper" ::
            : "xmm16", "xmm17", "xmm18", "xmm19", "xmm20", "xmm21", "xmm22", "xmm23", "xmm24", "xmm25", "xmm26",
              "xmm27", "xmm28", "xmm29", "xmm30", "xmm31");
}

void GeneralRow(const QelSlabVolume& volume, const QelSlabPolicy& policy, QelSlabRow& row) noexcept
{
    qel::slab::GeneralRowFor<V>(volume, policy, row);
    ClearHighRegisters();
}

void PlaneRow(const QelSlabVolume& volume, const QelSlabPolicy& policy, QelSlabRow& row) noexcept
{
    qel::slab::PlaneRowFor<V>(volume, policy, row);
    ClearHighRegisters();
}

}  // namespace

constinit const QelSlabKernels kSlabKernels{&GeneralRow, &PlaneRow};

}  // namespace qel::avx512
