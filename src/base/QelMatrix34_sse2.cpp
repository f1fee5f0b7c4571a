#include "base/QelMatrix34.h"

#include <emmintrin.h>

// SSE2 is part of every x86-64 processor, so the target changes nothing today; it
// keeps this file in the shape of every other vector body.
#pragma GCC push_options
#pragma GCC target("sse2")

namespace qel::sse2 {
namespace {

// Each lane repeats the scalar body's sums in the scalar body's order:
// ((column 0 + column 1) + column 2) + translation.

template <int kLane>
__m128 Broadcast(__m128 v) noexcept
{
    return _mm_shuffle_ps(v, v, _MM_SHUFFLE(kLane, kLane, kLane, kLane));
}

void Multiply(const float* left, const float* right, float* out) noexcept
{
    const __m128 b0 = _mm_loadu_ps(right);
    const __m128 b1 = _mm_loadu_ps(right + 4);
    const __m128 b2 = _mm_loadu_ps(right + 8);
    // Lanes 0-2 add -0 rather than +0: x + -0 is x for every x, while -0 + +0
    // would turn a -0 product into +0 where the scalar body adds nothing.
    const __m128 keepLane3 = _mm_castsi128_ps(_mm_setr_epi32(0, 0, 0, -1));
    const __m128 minusZero012 = _mm_setr_ps(-0.0f, -0.0f, -0.0f, 0.0f);
    for (int r = 0; r < QelMatrix34::kRows; ++r) {
        const __m128 a = _mm_loadu_ps(left + QelMatrix34::kColumns * r);
        const __m128 sum = _mm_add_ps(_mm_add_ps(_mm_mul_ps(Broadcast<0>(a), b0), _mm_mul_ps(Broadcast<1>(a), b1)),
                                      _mm_mul_ps(Broadcast<2>(a), b2));
        const __m128 translation = _mm_or_ps(_mm_and_ps(a, keepLane3), minusZero012);
        _mm_storeu_ps(out + QelMatrix34::kColumns * r, _mm_add_ps(sum, translation));
    }
}

// The columns of the matrix, each with 0 in lane 3.
struct Columns {
    __m128 c0, c1, c2, c3;
};

Columns LoadColumns(const float* m) noexcept
{
    Columns columns{_mm_loadu_ps(m), _mm_loadu_ps(m + 4), _mm_loadu_ps(m + 8), _mm_setzero_ps()};
    _MM_TRANSPOSE4_PS(columns.c0, columns.c1, columns.c2, columns.c3);
    return columns;
}

void Store3(float* out, __m128 v) noexcept
{
    _mm_storel_pi(reinterpret_cast<__m64*>(out), v);
    _mm_store_ss(out + 2, _mm_movehl_ps(v, v));
}

void TransformPoint(const float* m, const float* in, float* out) noexcept
{
    const Columns columns = LoadColumns(m);
    const __m128 x = _mm_set1_ps(in[0]), y = _mm_set1_ps(in[1]), z = _mm_set1_ps(in[2]);
    const __m128 linear = _mm_add_ps(_mm_add_ps(_mm_mul_ps(columns.c0, x), _mm_mul_ps(columns.c1, y)),
                                     _mm_mul_ps(columns.c2, z));
    Store3(out, _mm_add_ps(linear, columns.c3));
}

void TransformVector(const float* m, const float* in, float* out) noexcept
{
    const Columns columns = LoadColumns(m);
    const __m128 x = _mm_set1_ps(in[0]), y = _mm_set1_ps(in[1]), z = _mm_set1_ps(in[2]);
    Store3(out, _mm_add_ps(_mm_add_ps(_mm_mul_ps(columns.c0, x), _mm_mul_ps(columns.c1, y)),
                           _mm_mul_ps(columns.c2, z)));
}

}  // namespace

constinit const QelMatrix34Kernels kMatrix34Kernels{&Multiply, &TransformPoint, &TransformVector};

}  // namespace qel::sse2

#pragma GCC pop_options
