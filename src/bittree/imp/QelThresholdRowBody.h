#pragma once

// The vector bodies of the threshold row, written once against a small set of lane
// operations. Each level's file defines its operations type V inside a namespace of
// internal linkage and instantiates ThresholdRowBody with it.
//
// V provides, for its register type V::I of V::kPixels 16-bit lanes: Set1_16, Set1,
// Zero, Load (V::kPixels samples), Xor, Or, CmpEq16, CmpGt16, Madd, Srai14,
// Unpack16Lo/Hi and Packs32 (which may work within 128-bit halves, as long as
// Packs32(f(Unpack16Lo(a, b)), f(Unpack16Hi(a, b))) keeps the pixels in order), and
// ByteMask(a, b): one bit per 16-bit lane of a then b, in pixel order, set where
// the lane is all ones.

#include "bittree/imp/QelThresholdRow.h"

#include <cstdint>

namespace qel::threshold {

template <class V>
struct LaneConstants {
    using I = typename V::I;

    explicit LaneConstants(const QelThresholdRow& row) noexcept
        : bias(V::Set1_16(static_cast<std::int16_t>(row.Bias))),
          threshold(V::Set1_16(row.Threshold)),
          padding(V::Set1_16(static_cast<std::int16_t>(row.Padding))),
          // Each 32-bit lane pairs a first sample (low half) with a second one.
          weights(V::Set1(static_cast<std::int32_t>(static_cast<std::uint32_t>(16384 - row.Weight) << 16 |
                                                    static_cast<std::uint32_t>(row.Weight))))
    {
    }
    I bias, threshold, padding, weights;
};

// All ones in each 16-bit lane of the V::kPixels pixels from j that stay clear.
template <class V, bool kTwoPlanes, bool kPadding>
typename V::I ClearLanes(const QelThresholdRow& row, const LaneConstants<V>& c, std::int32_t j) noexcept
{
    using I = typename V::I;
    const I second = V::Load(row.Second, j);
    I value = V::Xor(second, c.bias);
    I padded = kPadding ? V::CmpEq16(second, c.padding) : V::Zero();
    if constexpr (kTwoPlanes) {
        const I first = V::Load(row.First, j);
        const I a = V::Xor(first, c.bias);
        const I low = V::Srai14(V::Madd(V::Unpack16Lo(a, value), c.weights));
        const I high = V::Srai14(V::Madd(V::Unpack16Hi(a, value), c.weights));
        value = V::Packs32(low, high);  // in range: a blend lies between its samples
        if constexpr (kPadding)
            padded = V::Or(padded, V::CmpEq16(first, c.padding));
    }
    const I below = V::CmpGt16(c.threshold, value);
    return kPadding ? V::Or(below, padded) : below;
}

template <class V, bool kTwoPlanes, bool kPadding>
void Rows(const QelThresholdRow& row, std::uint32_t* words) noexcept
{
    const LaneConstants<V> c(row);
    const std::int32_t whole = row.Pixels & ~31;
    for (std::int32_t j = 0; j < whole; j += 32) {
        std::uint32_t clear = 0;
        for (std::int32_t k = 0; k < 32; k += 2 * V::kPixels)
            clear |= V::ByteMask(ClearLanes<V, kTwoPlanes, kPadding>(row, c, j + k),
                                 ClearLanes<V, kTwoPlanes, kPadding>(row, c, j + k + V::kPixels))
                     << k;
        words[j >> 5] = ~clear;
    }
    TailWords(row, whole, words);
}

template <class V>
void ThresholdRowBody(const QelThresholdRow& row, std::uint32_t* words) noexcept
{
    if (row.TwoPlanes)
        row.HasPadding ? Rows<V, true, true>(row, words) : Rows<V, true, false>(row, words);
    else
        row.HasPadding ? Rows<V, false, true>(row, words) : Rows<V, false, false>(row, words);
}

}  // namespace qel::threshold
