#pragma once

// The vector bodies of the slab accumulators, written once against a small set of
// lane operations. Each level's body file defines its operations type V inside a
// namespace of internal linkage and instantiates these templates with it, so that
// every instantiation has internal linkage too: no level's code can stand in for
// another's at link time.
//
// V provides, for its register type V::I of V::kLanes 32-bit lanes (2 * kLanes 16-bit
// lanes): constants, lane-wise integer operations, the float product of the z
// fraction, loads of pixels and accumulators, and the loads of corner pairs: 32 bits
// from each of kLanes pointers (LoadPairs) or from a base plus each lane's 32-bit
// offset (GatherPairs). Unpack16Lo/Hi and Packs32 may work within 128-bit
// halves, as long as Packs32(f(Unpack16Lo(a, b)), f(Unpack16Hi(a, b))) keeps the
// pixels in order. Levels with kPermutes also permute 32-bit lanes across the register
// (Permute, with Min and Max), and those with kWordPairs take pairs of 16-bit lanes
// from anywhere in it (WordPairs).

#include "mpr/imp/QelSlabAccumulators.h"

#include <algorithm>
#include <cstdint>
#include <cstring>

namespace qel::slab {

template <class V>
struct Constants {
    using I = typename V::I;

    Constants(const QelSlabVolume& volume, const QelSlabPolicy& policy) noexcept
        : zero(V::Set1(0)),
          ones(V::Set1(-1)),
          lanes(V::Lanes()),
          signBit(V::Set1(INT32_MIN)),
          widthLimit(V::Set1(volume.WidthLimit ^ INT32_MIN)),
          heightLimit(V::Set1(volume.HeightLimit ^ INT32_MIN)),
          fraction(V::Set1(0xFFFF)),
          weightOne(V::Set1(8192)),
          round(V::Set1(0x1000)),
          unsignedOffset(V::Set1(0x8000)),
          bias16(V::Set1_16(static_cast<std::int16_t>(volume.Bias))),
          padding16(V::Set1_16(static_cast<std::int16_t>(volume.Padding))),
          hasPadding16(V::Set1(volume.HasPadding ? -1 : 0)),
          one16(V::Set1_16(1)),
          toSigned16(V::Set1_16(static_cast<std::int16_t>(policy.ToSigned))),
          flip16(V::Set1_16(static_cast<std::int16_t>(policy.Flip))),
          toSigned32(V::Set1(policy.ToSigned)),
          flip32(V::Set1(policy.Flip != 0 ? -1 : 0)),
          // A held value that is the padding value, on the signed scale; out of the
          // 16-bit range without padding, so that no held value ever equals it.
          heldPadding32(V::Set1(volume.HasPadding
                                    ? std::int32_t{static_cast<std::int16_t>(volume.Padding ^ policy.ToSigned)}
                                    : INT32_MAX)),
          pitch(V::Set1(volume.Pitch))
    {
    }

    I zero, ones, lanes, signBit, widthLimit, heightLimit, fraction, weightOne, round, unsignedOffset;
    I bias16, padding16, hasPadding16, one16, toSigned16, flip16;
    I toSigned32, flip32, heldPadding32;
    I pitch;
};

// ---------------------------------------------------------------------------------
// Accumulators of kLanes neighbouring pixels in 32-bit lanes, held in registers for
// all samples of a pixel group.

template <class V>
struct SumLanes {
    typename V::I sum;    // unsigned scale, wrapping like the 32-bit image
    typename V::I count;  // wraps at 16 bits when stored, like the count image
};

template <class V>
struct ExtremeLanes {
    typename V::I held;   // on the signed scale, sign-extended
    typename V::I taken;  // all ones where the flag is set
};

// Pixels j .. j + m - 1 of the row; fewer than kLanes go through a zeroed stage so
// that no byte past the row is touched.
template <class V>
struct Stage {
    alignas(32) std::uint8_t target[V::kLanes * 4];
    alignas(32) std::uint8_t flags[V::kLanes * 2];
};

template <class V>
[[gnu::always_inline]] inline void LoadLanes(SumLanes<V>& lanes, const QelSlabRow& row, std::int32_t j,
                                             std::int32_t m, Stage<V>& stage, const Constants<V>& /*c*/) noexcept
{
    const std::uint8_t* target = row.Target + std::ptrdiff_t{j} * 4;
    const std::uint8_t* flags = row.Flags + std::ptrdiff_t{j} * 2;
    if (m < V::kLanes) {
        stage = {};
        std::memcpy(stage.target, target, std::size_t(m) * 4);
        std::memcpy(stage.flags, flags, std::size_t(m) * 2);
        target = stage.target;
        flags = stage.flags;
    }
    lanes.sum = V::Load(target);
    lanes.count = V::LoadU16As32(flags);
}

template <class V>
[[gnu::always_inline]] inline void StoreLanes(const SumLanes<V>& lanes, const QelSlabRow& row, std::int32_t j,
                                              std::int32_t m, Stage<V>& stage, const Constants<V>& c) noexcept
{
    std::uint8_t* target = m < V::kLanes ? stage.target : row.Target + std::ptrdiff_t{j} * 4;
    std::uint8_t* flags = m < V::kLanes ? stage.flags : row.Flags + std::ptrdiff_t{j} * 2;
    V::Store(target, lanes.sum);
    V::StoreLow16(flags, V::NarrowUnsigned(V::And(lanes.count, c.fraction)));
    if (m < V::kLanes) {
        std::memcpy(row.Target + std::ptrdiff_t{j} * 4, stage.target, std::size_t(m) * 4);
        std::memcpy(row.Flags + std::ptrdiff_t{j} * 2, stage.flags, std::size_t(m) * 2);
    }
}

template <class V>
[[gnu::always_inline]] inline void LoadLanes(ExtremeLanes<V>& lanes, const QelSlabRow& row, std::int32_t j,
                                             std::int32_t m, Stage<V>& stage, const Constants<V>& c) noexcept
{
    const std::uint8_t* target = row.Target + std::ptrdiff_t{j} * 2;
    const std::uint8_t* flags = row.Flags + j;
    if (m < V::kLanes) {
        stage = {};
        std::memcpy(stage.target, target, std::size_t(m) * 2);
        std::memcpy(stage.flags, flags, std::size_t(m));
        target = stage.target;
        flags = stage.flags;
    }
    const typename V::I held = V::Xor(V::LoadU16As32(target), c.toSigned32);
    lanes.held = V::template Srai<16>(V::template Slli<16>(held));
    lanes.taken = V::AndNot(V::CmpEq(V::LoadU8As32(flags), c.zero), c.ones);
}

template <class V>
[[gnu::always_inline]] inline void StoreLanes(const ExtremeLanes<V>& lanes, const QelSlabRow& row, std::int32_t j,
                                              std::int32_t m, Stage<V>& stage, const Constants<V>& c) noexcept
{
    std::uint8_t* target = m < V::kLanes ? stage.target : row.Target + std::ptrdiff_t{j} * 2;
    std::uint8_t* flags = m < V::kLanes ? stage.flags : row.Flags + j;
    V::StoreLow16(target, V::Xor(V::NarrowSigned(lanes.held), c.toSigned16));
    V::StoreLow8(flags, V::And(lanes.taken, V::Set1(1)));
    if (m < V::kLanes) {
        std::memcpy(row.Target + std::ptrdiff_t{j} * 2, stage.target, std::size_t(m) * 2);
        std::memcpy(row.Flags + j, stage.flags, std::size_t(m));
    }
}

// `value` is on the signed scale; `valid` all ones where the lane has a sample.
template <class V>
void TakeIn(SumLanes<V>& lanes, typename V::I value, typename V::I valid, const Constants<V>& c) noexcept
{
    lanes.sum = V::Add(lanes.sum, V::And(V::Add(value, c.unsignedOffset), valid));
    lanes.count = V::Sub(lanes.count, valid);
}

template <class V>
void TakeIn(ExtremeLanes<V>& lanes, typename V::I value, typename V::I valid, const Constants<V>& c) noexcept
{
    const typename V::I better = V::CmpGt(V::Xor(value, c.flip32), V::Xor(lanes.held, c.flip32));
    const typename V::I replaces =
        V::Or(V::Or(V::AndNot(lanes.taken, c.ones), better), V::CmpEq(lanes.held, c.heldPadding32));
    lanes.held = V::Select(V::And(valid, replaces), lanes.held, value);
    lanes.taken = V::Or(lanes.taken, valid);
}

// ---------------------------------------------------------------------------------
// One sample for each of kLanes pixels at (x, y, z).

// From the corners on: padding, weights, value and take-in. `rows` hold, per lane,
// the two pixels (xi, xi + 1) of lower row yi, lower row yi + 1, upper row yi, upper
// row yi + 1; `valid` the lanes that have a sample so far.
template <class V, class Lanes>
[[gnu::always_inline]] inline void Interpolate(Lanes& lanes, const Constants<V>& c, const typename V::I (&rows)[4],
                                               typename V::I x, typename V::I y, typename V::I fz,
                                               typename V::I valid, bool hasPadding) noexcept
{
    using I = typename V::I;
    if (hasPadding) {
        const I hits = V::Or(V::Or(V::CmpEq16(rows[0], c.padding16), V::CmpEq16(rows[1], c.padding16)),
                             V::Or(V::CmpEq16(rows[2], c.padding16), V::CmpEq16(rows[3], c.padding16)));
        valid = V::And(valid, V::CmpEq(hits, c.zero));
    }
    // Weights in pairs: the low half of each lane weighs column xi, the high half
    // column xi + 1, matching the pixel pairs of the rows. All factors stay below
    // 2^16 in the low half with 0 above, so 16-bit high products are the
    // (f * g) >> 16 of the scalar body.
    const I fx = V::template Srli<3>(V::And(x, c.fraction));
    const I fy = V::template Srli<3>(V::And(y, c.fraction));
    const I notFy = V::Sub(c.weightOne, fy);
    const I b = V::template Slli<3>(V::MulhiU16(fx, notFy));
    const I a = V::template Slli<3>(V::MulhiU16(fx, fy));
    const I row0 = V::Or(V::Sub(notFy, b), V::template Slli<16>(b));  // (d, b)
    const I row1 = V::Or(V::Sub(fy, a), V::template Slli<16>(a));     // (c, a)
    const I fz2 = V::Or(fz, V::template Slli<16>(fz));
    const I row0Upper = V::template Slli16<3>(V::MulhiU16(row0, fz2));
    const I row1Upper = V::template Slli16<3>(V::MulhiU16(row1, fz2));
    const I row0Lower = V::Sub16(row0, row0Upper);
    const I row1Lower = V::Sub16(row1, row1Upper);

    const I sum = V::Add(V::Add(V::Madd(V::Sub16(rows[0], c.bias16), row0Lower),
                                V::Madd(V::Sub16(rows[1], c.bias16), row1Lower)),
                         V::Add(V::Madd(V::Sub16(rows[2], c.bias16), row0Upper),
                                V::Madd(V::Sub16(rows[3], c.bias16), row1Upper)));
    // (sum + 0x1000) >> 13 is the value on the signed scale; the scalar body's
    // constant 0x10001000 only adds 0x8000 << 13 on top.
    TakeIn<V>(lanes, V::template Srai<13>(V::Add(sum, c.round)), valid, c);
}

// Lanes whose x or y lies outside the interpolation range drop out. Unsigned
// compares, done on sign-flipped values, so that negative coordinates fail too.
template <class V>
[[gnu::always_inline]] inline typename V::I InsideSlices(const Constants<V>& c, typename V::I x, typename V::I y,
                                                         typename V::I valid) noexcept
{
    valid = V::And(valid, V::CmpGt(c.widthLimit, V::Xor(x, c.signBit)));
    return V::And(valid, V::CmpGt(c.heightLimit, V::Xor(y, c.signBit)));
}

// Each lane reads its lower slice at lowerBase + lower and its upper slice at
// upperBase + upper (32-bit offsets); `sameSlices` says that every lane reads one
// slice only. Lanes outside `valid` read nothing that matters.
template <class V, class Lanes>
[[gnu::always_inline]] inline void FinishIndexed(Lanes& lanes, const QelSlabVolume& volume, const Constants<V>& c,
                                                 typename V::I x, typename V::I y, typename V::I fz,
                                                 const std::uint8_t* lowerBase, typename V::I lower,
                                                 const std::uint8_t* upperBase, typename V::I upper,
                                                 typename V::I valid, bool sameSlices) noexcept
{
    using I = typename V::I;
    valid = InsideSlices<V>(c, x, y, valid);
    if (V::MoveMask(valid) == 0)
        return;
    const I xi = V::template Srai<16>(x);
    const I at = V::Add(V::MulLo(V::template Srai<16>(y), c.pitch), V::Add(xi, xi));
    const I lowerAt = V::Add(lower, at);
    I rows[4];
    rows[0] = V::GatherPairs(lowerBase, lowerAt, valid);
    rows[1] = V::GatherPairs(lowerBase, V::Add(lowerAt, c.pitch), valid);
    if (sameSlices) {
        rows[2] = rows[0];
        rows[3] = rows[1];
    } else {
        const I upperAt = V::Add(upper, at);
        rows[2] = V::GatherPairs(upperBase, upperAt, valid);
        rows[3] = V::GatherPairs(upperBase, V::Add(upperAt, c.pitch), valid);
    }
    Interpolate<V>(lanes, c, rows, x, y, fz, valid, volume.HasPadding);
}

// The slices of each lane, by pointer: for stacks whose slices differ in pitch, for
// runs of slices that cross segments, and for lanes whose z wraps around.
template <int kLanes>
struct LaneSlices {
    const std::uint8_t* lower[kLanes];
    const std::uint8_t* upper[kLanes];
    std::int32_t lowerPitch[kLanes];
    std::int32_t upperPitch[kLanes];
};

// With kShared all lanes read the slices of lane 0. Lanes without a sample read
// (0, 0) of their slice, which must have an image.
template <class V, bool kShared, class Lanes>
void FinishPointers(Lanes& lanes, const QelSlabVolume& volume, const Constants<V>& c,
                    const LaneSlices<V::kLanes>& slices, bool sameSlices, typename V::I x, typename V::I y,
                    typename V::I fz, typename V::I valid) noexcept
{
    using I = typename V::I;
    constexpr int N = V::kLanes;
    valid = InsideSlices<V>(c, x, y, valid);
    if (V::MoveMask(valid) == 0)
        return;
    alignas(32) std::int32_t xi[N];
    alignas(32) std::int32_t yi[N];
    V::Store(xi, V::template Srai<16>(V::And(x, valid)));
    V::Store(yi, V::template Srai<16>(V::And(y, valid)));
    const std::uint8_t* at[4][N];
    for (int l = 0; l < N; ++l) {
        const int s = kShared ? 0 : l;
        const std::ptrdiff_t column = std::ptrdiff_t{xi[l]} * 2;
        at[0][l] = slices.lower[s] + std::ptrdiff_t{yi[l]} * slices.lowerPitch[s] + column;
        at[1][l] = at[0][l] + slices.lowerPitch[s];
        at[2][l] = slices.upper[s] + std::ptrdiff_t{yi[l]} * slices.upperPitch[s] + column;
        at[3][l] = at[2][l] + slices.upperPitch[s];
    }
    I rows[4];
    rows[0] = V::LoadPairs(at[0]);
    rows[1] = V::LoadPairs(at[1]);
    if (sameSlices) {
        rows[2] = rows[0];
        rows[3] = rows[1];
    } else {
        rows[2] = V::LoadPairs(at[2]);
        rows[3] = V::LoadPairs(at[3]);
    }
    Interpolate<V>(lanes, c, rows, x, y, fz, valid, volume.HasPadding);
}

template <class V>
typename V::I FloatBits(float value) noexcept
{
    std::int32_t bits = 0;
    std::memcpy(&bits, &value, sizeof bits);
    return V::Set1(bits);
}

// A gap holding a lane's z is found this many slices past the lowest lane's at most
// before the group goes lane by lane.
constexpr std::int32_t kLongestRun = 6;

// What each lane found of its slices: the lower slice's fixed z and gap factor, the
// segment offsets and missing flags of both slices.
template <class V>
struct RunSlices {
    typename V::I zLow, factor, lower, upper, lowerMissing, upperMissing;
};

// From the lanes' slices on: the z fraction, the on-slice rule and the reads. `valid`
// holds the active lanes whose z lies within the slices; the upper slice of a lane
// at or above the last slice's fixed z is a sentinel, which has no image. With
// `missing` false the run's missing flags are not looked at: every slice has an
// image, and only a lane on the last slice (which reads that slice alone) or past
// it (not valid) meets the sentinel.
template <class V, class Lanes>
[[gnu::always_inline]] inline void FinishRun(Lanes& lanes, const QelSlabVolume& volume, const Constants<V>& c,
                                             typename V::I x, typename V::I y, typename V::I z,
                                             RunSlices<V> run, typename V::I active, typename V::I valid,
                                             const std::uint8_t* base, bool missing) noexcept
{
    using I = typename V::I;
    const I above = V::Sub(z, run.zLow);
    // On a slice: that slice alone, so only its voxels are tested for padding.
    const I onSlice = V::CmpEq(above, c.zero);
    run.upper = V::Select(onSlice, run.upper, run.lower);
    if (missing) {
        run.upperMissing = V::Select(onSlice, run.upperMissing, run.lowerMissing);
        valid = V::AndNot(V::Or(run.lowerMissing, run.upperMissing), valid);
    }
    const int activeBits = V::MoveMask(active);
    const bool sameSlices = (V::MoveMask(onSlice) & activeBits) == activeBits;
    const I fz = V::template Srli<3>(V::TruncMulBits(above, run.factor));
    FinishIndexed<V>(lanes, volume, c, x, y, fz, base, run.lower, base, run.upper, valid, sameSlices);
}

// The lanes' slices by permutes of windows of the volume's columns, with no walk per
// lane: each lane starts from the coarse entry of its z and steps past at most
// CoarseSteps gaps, all lanes at once. `low` and `high` are the lowest and highest
// z of the lanes; false, with nothing done, when the lanes' entries or slices don't
// fit one window or their slices lie in more than one segment. Lanes outside the
// slices only read slices of the window and drop out.
template <class V, class Lanes>
[[gnu::always_inline]] inline bool SampleByPermutes(Lanes& lanes, const QelSlabVolume& volume,
                                                    const Constants<V>& c, typename V::I x, typename V::I y,
                                                    typename V::I z, typename V::I active, std::int32_t low,
                                                    std::int32_t high, std::int32_t& k) noexcept
{
    using I = typename V::I;
    constexpr int N = V::kLanes;
    const QelSlabColumns& columns = volume.Columns;
    const std::int32_t last = volume.LastFixedZ;
    const std::int32_t lowEntry = (low < 0 ? 0 : low) >> 16;
    const std::int32_t highEntry = (high > last ? last : high) >> 16;
    if (highEntry - lowEntry >= N)
        return false;
    const std::int32_t first = volume.Coarse[lowEntry];
    const std::int32_t bound = std::min(volume.Coarse[highEntry] + columns.CoarseSteps, volume.Count - 1);
    const QelSlabSlice* slices = volume.Slices;
    if (bound - first >= N || slices[first].SegmentBase != slices[bound + 1].SegmentBase)
        return false;
    const I clamped = V::Max(V::Min(z, V::Set1(last)), c.zero);
    I slice = V::Sub(V::Permute(V::Load(volume.Coarse + lowEntry), V::Sub(V::template Srai<16>(clamped),
                                                                             V::Set1(lowEntry))),
                     V::Set1(first));
    // A z at or past its gap's end (the next slice's fixed z) moves on: the highest
    // of equal slices wins, as in QelSlabFindSlice. The last slice's gap ends at the
    // first sentinel, above every clamped z.
    const I gapEnds = V::Load(columns.FixedZ + first + 1);
    for (std::int32_t step = 0; step < columns.CoarseSteps; ++step)
        slice = V::Sub(slice, V::AndNot(V::CmpGt(V::Permute(gapEnds, slice), clamped), c.ones));
    RunSlices<V> run{};
    run.zLow = V::Permute(V::Load(columns.FixedZ + first), slice);
    run.factor = V::Permute(V::Load(columns.GapFactor + first), slice);
    run.lower = V::Permute(V::Load(columns.SegmentOffset + first), slice);
    run.upper = V::Permute(V::Load(columns.SegmentOffset + first + 1), slice);
    const bool missing = !volume.AllImages;
    if (missing) {
        run.lowerMissing = V::Permute(V::Load(columns.Missing + first), slice);
        run.upperMissing = V::Permute(V::Load(columns.Missing + first + 1), slice);
    }
    const I inside = V::AndNot(V::CmpGt(z, V::Set1(last)), V::CmpGt(z, c.ones));
    k = first;
    FinishRun<V>(lanes, volume, c, x, y, z, run, active, V::And(active, inside), slices[first].SegmentBase, missing);
    return true;
}

// One sample in each of the first m lanes, at z = zFirst + lane * dz. `k` is the
// slice hint, left at a slice found.
template <class V, class Lanes>
void SampleLanes(Lanes& lanes, const QelSlabVolume& volume, const Constants<V>& c, typename V::I x,
                 typename V::I y, typename V::I z, std::int32_t m, std::int32_t zFirst, std::int32_t dz,
                 std::int32_t& k) noexcept
{
    using I = typename V::I;
    constexpr int N = V::kLanes;
    const I active = V::CmpGt(V::Set1(m), c.lanes);
    const std::int64_t zLast = std::int64_t{zFirst} + std::int64_t{m - 1} * dz;
    // Without wrapping the lanes' z lie on a line, so their gaps are a run of
    // neighbours found from the two ends: one lookup each, usually at the hint.
    if (volume.UniformPitch && zLast >= INT32_MIN && zLast <= INT32_MAX) {
        const std::int32_t low = dz >= 0 ? zFirst : static_cast<std::int32_t>(zLast);
        const std::int32_t high = dz >= 0 ? static_cast<std::int32_t>(zLast) : zFirst;
        if (high < 0 || low > volume.LastFixedZ)
            return;
        if constexpr (V::kPermutes) {
            if (SampleByPermutes<V>(lanes, volume, c, x, y, z, active, low, high, k))
                return;
        }
        std::int32_t lowSlice = k;
        QelSlabFindSlice(volume, low < 0 ? 0 : low, lowSlice);
        std::int32_t highSlice = lowSlice;
        QelSlabFindSlice(volume, high > volume.LastFixedZ ? volume.LastFixedZ : high, highSlice);
        k = dz >= 0 ? lowSlice : highSlice;
        const QelSlabSlice* slices = volume.Slices;
        // One segment holds the whole run unless the run crosses into slices that
        // were allocated far away, which go lane by lane.
        if (highSlice - lowSlice <= kLongestRun && slices[lowSlice].SegmentBase == slices[highSlice + 1].SegmentBase) {
            RunSlices<V> run{V::Set1(slices[lowSlice].FixedZ),       FloatBits<V>(slices[lowSlice].GapFactor),
                             V::Set1(slices[lowSlice].SegmentOffset), V::Set1(slices[lowSlice + 1].SegmentOffset),
                             V::Set1(slices[lowSlice].Missing),       V::Set1(slices[lowSlice + 1].Missing)};
            // A lane at or above the next slice's fixed z belongs to its gap, so the
            // highest of equal slices wins, as in QelSlabFindSlice.
            for (std::int32_t next = lowSlice + 1; next <= highSlice; ++next) {
                const I beyond = V::CmpGt(z, V::Set1(slices[next].FixedZ - 1));
                run.zLow = V::Select(beyond, run.zLow, V::Set1(slices[next].FixedZ));
                run.factor = V::Select(beyond, run.factor, FloatBits<V>(slices[next].GapFactor));
                run.lower = V::Select(beyond, run.lower, V::Set1(slices[next].SegmentOffset));
                run.upper = V::Select(beyond, run.upper, V::Set1(slices[next + 1].SegmentOffset));
                run.lowerMissing = V::Select(beyond, run.lowerMissing, V::Set1(slices[next].Missing));
                run.upperMissing = V::Select(beyond, run.upperMissing, V::Set1(slices[next + 1].Missing));
            }
            // Below the first slice a lane drops out here; above the last one its
            // upper slice is a sentinel, which has no image.
            FinishRun<V>(lanes, volume, c, x, y, z, run, active, V::And(active, V::CmpGt(z, c.ones)),
                         slices[lowSlice].SegmentBase, true);
            return;
        }
    }

    // Lane by lane, with the scalar lookup and z fraction.
    alignas(32) std::int32_t zs[N];
    V::Store(zs, z);
    const int activeBits = V::MoveMask(active);
    LaneSlices<N> slices;
    alignas(32) std::int32_t fz[N];
    alignas(32) std::int32_t valid[N];
    for (int l = 0; l < N; ++l) {
        slices.lower[l] = slices.upper[l] = volume.SafeOrigin;
        slices.lowerPitch[l] = slices.upperPitch[l] = volume.SafeBytesPerLine;
        fz[l] = 0;
        valid[l] = 0;
        QelSlabPair pair;
        if (!((activeBits >> l) & 1) || !QelSlabFindPair(volume, zs[l], k, pair))
            continue;
        slices.lower[l] = pair.Lower;
        slices.upper[l] = pair.Upper;
        slices.lowerPitch[l] = pair.LowerBytesPerLine;
        slices.upperPitch[l] = pair.UpperBytesPerLine;
        fz[l] = static_cast<std::int32_t>(pair.Fz);
        valid[l] = -1;
    }
    FinishPointers<V, false>(lanes, volume, c, slices, false, x, y, V::Load(fz), V::Load(valid));
}

// ---------------------------------------------------------------------------------
// Rows.

// 0, step, 2 x step, ... across the lanes, wrapping as the positions do.
template <class V>
typename V::I LaneMultiples(const Constants<V>& c, std::int32_t step) noexcept
{
    return V::MulLo(c.lanes, V::Set1(step));
}

// Pixel by pixel, kLanes pixels at once, each group through all its samples.
template <class V, class Lanes>
void GeneralRow(const QelSlabVolume& volume, const QelSlabPolicy& policy, QelSlabRow& row) noexcept
{
    using I = typename V::I;
    constexpr int N = V::kLanes;
    std::int32_t firstHint = QelSlabValidHint(volume, row.FirstHint);
    std::int32_t laterHint = QelSlabValidHint(volume, row.LaterHint);
    if (volume.SafeOrigin && volume.WidthLimit > 0 && volume.HeightLimit > 0) {
        const Constants<V> c(volume, policy);
        const I laneX = LaneMultiples<V>(c, row.XStep.X);
        const I laneY = LaneMultiples<V>(c, row.XStep.Y);
        const I laneZ = LaneMultiples<V>(c, row.XStep.Z);
        const std::int32_t laterFirst = row.FirstSample > 1 ? row.FirstSample : 1;
        // Every group starts its later samples at the same depth again: it starts
        // from the slice that the previous group found there.
        std::int32_t groupHint = laterHint;
        Stage<V> stage;
        for (std::int32_t j = 0; j < row.Pixels; j += N) {
            const std::int32_t m = row.Pixels - j < N ? row.Pixels - j : N;
            Lanes lanes;
            LoadLanes<V>(lanes, row, j, m, stage, c);
            if (row.FirstSample == 0) {
                const QelFixedPoint3 at = QelSlabWrapAddScaled(row.P, row.XStep, j);
                SampleLanes<V>(lanes, volume, c, V::Add(V::Set1(at.X), laneX), V::Add(V::Set1(at.Y), laneY),
                               V::Add(V::Set1(at.Z), laneZ), m, at.Z, row.XStep.Z, firstHint);
            }
            QelFixedPoint3 at = QelSlabWrapAddScaled(row.Q, row.XStep, j);
            std::int32_t k = groupHint;
            for (std::int32_t s = laterFirst; s <= row.LastSample; ++s) {
                SampleLanes<V>(lanes, volume, c, V::Add(V::Set1(at.X), laneX), V::Add(V::Set1(at.Y), laneY),
                               V::Add(V::Set1(at.Z), laneZ), m, at.Z, row.XStep.Z, k);
                if (s == laterFirst)
                    groupHint = k;
                at = QelSlabWrapAdd(at, row.SlabStep);
            }
            laterHint = k;
            StoreLanes<V>(lanes, row, j, m, stage, c);
        }
    }
    row.FirstHint = firstHint;
    row.LaterHint = laterHint;
}

// The signed-scale values of 2 * kLanes pixels from the sums of their two halves.
template <class V>
typename V::I Values16(typename V::I low, typename V::I high, const Constants<V>& c) noexcept
{
    return V::Packs32(V::template Srai<13>(V::Add(low, c.round)), V::template Srai<13>(V::Add(high, c.round)));
}

// Takes 2 * kLanes values in 16-bit lanes into pixels j onwards of the row.
template <class V>
void TakeInRound(const QelSlabRow& row, std::int32_t j, const Constants<V>& c, bool sum, typename V::I value,
                 typename V::I valid) noexcept
{
    using I = typename V::I;
    constexpr int N = V::kLanes;
    if (sum) {
        std::uint8_t* sums = row.Target + std::ptrdiff_t{j} * 4;
        const I low = V::And(V::Add(V::Widen16Lo(value), c.unsignedOffset), V::Widen16Lo(valid));
        const I high = V::And(V::Add(V::Widen16Hi(value), c.unsignedOffset), V::Widen16Hi(valid));
        V::Store(sums, V::Add(V::Load(sums), low));
        V::Store(sums + 4 * N, V::Add(V::Load(sums + 4 * N), high));
        std::uint8_t* counts = row.Flags + std::ptrdiff_t{j} * 2;
        V::Store(counts, V::Sub16(V::Load(counts), valid));
        return;
    }
    std::uint8_t* heldAt = row.Target + std::ptrdiff_t{j} * 2;
    const I held = V::Load(heldAt);
    const I heldSigned = V::Xor(held, c.toSigned16);
    const I better = V::CmpGt16(V::Xor(value, c.flip16), V::Xor(heldSigned, c.flip16));
    const I flags = V::LoadU8As16(row.Flags + j);
    // A held padding value gives way only when the stack has padding at all.
    const I replaces = V::Or(V::Or(V::CmpEq16(flags, c.zero), better),
                             V::And(V::CmpEq16(held, c.padding16), c.hasPadding16));
    V::Store(heldAt, V::Xor(V::Select(V::And(valid, replaces), heldSigned, value), c.toSigned16));
    V::StoreU16AsU8(row.Flags + j, V::Or(flags, V::And(valid, c.one16)));
}

// A plane row stepping exactly one voxel in x and none in y, cut to the pixels
// [first, last] inside the stack: x and y fractions, and so the weights, are the same
// for the whole row, and the corners of neighbouring pixels are neighbours in memory.
template <class V>
void UnitStepRow(const QelSlabVolume& volume, const QelSlabPolicy& policy, const Constants<V>& c,
                 const QelSlabRow& row, const QelSlabPair& pair, std::int32_t x0, std::int32_t y, std::int32_t first,
                 std::int32_t last) noexcept
{
    using I = typename V::I;
    constexpr int kRound = 2 * V::kLanes;
    // Pixel j sits at column (x0 >> 16) + j: the steps are whole voxels.
    const std::ptrdiff_t column = std::ptrdiff_t{x0 >> 16} * 2;
    const std::uint8_t* lower = pair.Lower + std::ptrdiff_t{y >> 16} * pair.LowerBytesPerLine + column;
    const std::uint8_t* upper = pair.Upper + std::ptrdiff_t{y >> 16} * pair.UpperBytesPerLine + column;
    const QelSlabWeights w = QelSlabCornerWeights(QelSlabFraction(x0), QelSlabFraction(y), pair.Fz);
    const auto weightPair = [](std::uint16_t low, std::uint16_t high) {
        return V::Set1(static_cast<std::int32_t>(low | (std::uint32_t{high} << 16)));
    };
    // On a voxel only z interpolates: the weights of the x and y neighbours are 0,
    // and without padding nothing else needs those corners.
    const bool zOnly = (x0 & 0xFFFF) == 0 && (y & 0xFFFF) == 0 && !volume.HasPadding;
    const I zWeights = weightPair(w.W[0], w.W[4]);
    const I lower0 = weightPair(w.W[0], w.W[1]);
    const I lower1 = weightPair(w.W[2], w.W[3]);
    const I upper0 = weightPair(w.W[4], w.W[5]);
    const I upper1 = weightPair(w.W[6], w.W[7]);
    // On a slice the upper weights are 0 and the upper slice is the lower one.
    const bool twoSlices = !pair.OnSlice;

    // kRound pixels whose first one's corners are at l (lower slice) and u (upper
    // slice), rows lp and up bytes apart, taken into pixel t onwards of `into`.
    const auto takeRound = [&](const std::uint8_t* l, std::ptrdiff_t lp, const std::uint8_t* u, std::ptrdiff_t up,
                               const QelSlabRow& into, std::int32_t t) {
        if (zOnly) {
            const I a = V::Sub16(V::Load(l), c.bias16);
            const I b = V::Sub16(V::Load(u), c.bias16);
            TakeInRound<V>(into, t, c, policy.Sum,
                           Values16<V>(V::Madd(V::Unpack16Lo(a, b), zWeights), V::Madd(V::Unpack16Hi(a, b), zWeights), c),
                           c.ones);
            return;
        }
        I hits = c.zero, low = c.zero, high = c.zero;
        // One slice's rows yi (at p) and yi + 1, weighed in pairs by w0 and w1.
        const auto addSlice = [&](const std::uint8_t* p, std::ptrdiff_t pitch, I w0, I w1) {
            const I p0 = V::Load(p), p1 = V::Load(p + 2);
            const I p2 = V::Load(p + pitch), p3 = V::Load(p + pitch + 2);
            hits = V::Or(hits, V::Or(V::Or(V::CmpEq16(p0, c.padding16), V::CmpEq16(p1, c.padding16)),
                                     V::Or(V::CmpEq16(p2, c.padding16), V::CmpEq16(p3, c.padding16))));
            const I a0 = V::Sub16(p0, c.bias16), a1 = V::Sub16(p1, c.bias16);
            const I a2 = V::Sub16(p2, c.bias16), a3 = V::Sub16(p3, c.bias16);
            low = V::Add(low, V::Add(V::Madd(V::Unpack16Lo(a0, a1), w0), V::Madd(V::Unpack16Lo(a2, a3), w1)));
            high = V::Add(high, V::Add(V::Madd(V::Unpack16Hi(a0, a1), w0), V::Madd(V::Unpack16Hi(a2, a3), w1)));
        };
        addSlice(l, lp, lower0, lower1);
        if (twoSlices)
            addSlice(u, up, upper0, upper1);
        const I valid = volume.HasPadding ? V::CmpEq16(hits, c.zero) : c.ones;
        TakeInRound<V>(into, t, c, policy.Sum, Values16<V>(low, high, c), valid);
    };

    std::int32_t j = first;
    for (; j + kRound - 1 <= last; j += kRound) {
        const std::ptrdiff_t at = 2 * std::ptrdiff_t{j};
        takeRound(lower + at, pair.LowerBytesPerLine, upper + at, pair.UpperBytesPerLine, row, j);
    }
    if (j > last)
        return;
    // The last m pixels, fewer than a round: a whole round would read past the last
    // voxel of the row, so their voxels (one more column for the x neighbour) and
    // accumulators go through a stage; lanes past m see zeros and are dropped.
    const auto m = static_cast<std::size_t>(last - j + 1);
    constexpr std::ptrdiff_t kLine = 2 * (kRound + 1);
    alignas(64) std::uint8_t voxels[4][kLine] = {};
    const std::ptrdiff_t at = 2 * std::ptrdiff_t{j};
    std::memcpy(voxels[0], lower + at, 2 * (m + 1));
    std::memcpy(voxels[1], lower + at + pair.LowerBytesPerLine, 2 * (m + 1));
    std::memcpy(voxels[2], upper + at, 2 * (m + 1));
    std::memcpy(voxels[3], upper + at + pair.UpperBytesPerLine, 2 * (m + 1));
    const std::size_t targetBytes = policy.Sum ? 4 : 2;
    const std::size_t flagBytes = policy.Sum ? 2 : 1;
    alignas(64) std::uint8_t target[kRound * 4] = {};
    alignas(64) std::uint8_t flags[kRound * 2] = {};
    std::memcpy(target, row.Target + j * targetBytes, m * targetBytes);
    std::memcpy(flags, row.Flags + j * flagBytes, m * flagBytes);
    QelSlabRow stage = row;
    stage.Target = target;
    stage.Flags = flags;
    takeRound(voxels[0], kLine, voxels[2], kLine, stage, 0);
    std::memcpy(row.Target + j * targetBytes, target, m * targetBytes);
    std::memcpy(row.Flags + j * flagBytes, flags, m * flagBytes);
}

// A group of a plane row whose x step has no y part: its corners lie in one row pair
// of its slices. For a level with a word permute, when they also lie within
// 2 * kLanes neighbouring voxels, plain loads of those voxels and the permute take
// the place of the gathers (where gathers are cheap, as for 8 lanes, they serve as
// well). False, with nothing done, for a group that reaches outside the slices or
// spreads wider (steps of more than about two voxels).
template <class V, class Lanes>
[[gnu::always_inline]] inline bool FinishAlongRow(Lanes& lanes, const QelSlabVolume& volume, const Constants<V>& c,
                                                  const QelSlabPair& pair, const QelFixedPoint3& at,
                                                  std::int32_t xStep, std::int32_t m, typename V::I x,
                                                  typename V::I fz, typename V::I active) noexcept
{
    using I = typename V::I;
    constexpr std::int32_t kWindow = 2 * V::kLanes;
    if (static_cast<std::uint32_t>(at.Y) >= static_cast<std::uint32_t>(volume.HeightLimit))
        return false;
    // The lanes' x lie on a line; with both ends inside, none wrapped.
    const std::int64_t xLast = std::int64_t{at.X} + std::int64_t{m - 1} * xStep;
    const std::int64_t low = std::min<std::int64_t>(at.X, xLast);
    const std::int64_t high = std::max<std::int64_t>(at.X, xLast);
    if (low < 0 || high >= volume.WidthLimit)
        return false;
    // The window may not run past the row's last voxel, so near the right edge it
    // starts earlier; xi + 1 of every lane must fall inside it.
    const std::int32_t base =
        std::min(static_cast<std::int32_t>(low >> 16), (volume.WidthLimit >> 16) + 1 - kWindow);
    if (base < 0 || static_cast<std::int32_t>(high >> 16) - base > kWindow - 2)
        return false;
    const std::ptrdiff_t column = std::ptrdiff_t{base} * 2;
    const std::uint8_t* lower = pair.Lower + std::ptrdiff_t{at.Y >> 16} * pair.LowerBytesPerLine + column;
    const std::uint8_t* upper = pair.Upper + std::ptrdiff_t{at.Y >> 16} * pair.UpperBytesPerLine + column;
    const I offset = V::Sub(V::template Srai<16>(x), V::Set1(base));
    I rows[4];
    rows[0] = V::WordPairs(V::Load(lower), offset);
    rows[1] = V::WordPairs(V::Load(lower + pair.LowerBytesPerLine), offset);
    if (pair.OnSlice) {
        rows[2] = rows[0];
        rows[3] = rows[1];
    } else {
        rows[2] = V::WordPairs(V::Load(upper), offset);
        rows[3] = V::WordPairs(V::Load(upper + pair.UpperBytesPerLine), offset);
    }
    Interpolate<V>(lanes, c, rows, x, V::Set1(at.Y), fz, active, volume.HasPadding);
    return true;
}

// One sample of a plane row for the first m of kLanes pixels whose first one lies at
// `at`: with no z in the x step they share the sample's slices. Any step but the
// unit one: the corners of neighbouring pixels are not neighbours in memory (or, for
// steps along image rows, only nearly so), so each pixel takes its own weights.
template <class V, class Lanes>
[[gnu::always_inline]] inline void PlaneSample(Lanes& lanes, const QelSlabVolume& volume, const Constants<V>& c,
                                               const QelSlabRow& row, const QelSlabPair& pair,
                                               const QelFixedPoint3& at, typename V::I laneX, typename V::I laneY,
                                               std::int32_t m) noexcept
{
    using I = typename V::I;
    const I x = V::Add(V::Set1(at.X), laneX);
    const I fz = V::Set1(static_cast<std::int32_t>(pair.Fz));
    const I active = V::CmpGt(V::Set1(m), c.lanes);
    if constexpr (V::kWordPairs) {
        if (row.XStep.Y == 0 && FinishAlongRow<V>(lanes, volume, c, pair, at, row.XStep.X, m, x, fz, active))
            return;
    }
    const I y = V::Add(V::Set1(at.Y), laneY);
    if (volume.UniformPitch) {
        FinishIndexed<V>(lanes, volume, c, x, y, fz, pair.Lower, c.zero, pair.Upper, c.zero, active, pair.OnSlice);
        return;
    }
    LaneSlices<V::kLanes> slices;
    slices.lower[0] = pair.Lower;
    slices.upper[0] = pair.Upper;
    slices.lowerPitch[0] = pair.LowerBytesPerLine;
    slices.upperPitch[0] = pair.UpperBytesPerLine;
    FinishPointers<V, true>(lanes, volume, c, slices, pair.OnSlice, x, y, fz, active);
}

// With no z in the x step all pixels of a sample share its slices, found once per
// sample. A row stepping one voxel goes sample by sample, each across the whole row;
// any other goes kLanes pixels at a time through all the samples, keeping their
// accumulators in registers. Either way every pixel takes its samples in order,
// which the extreme projections' padding rule needs.
template <class V, class Lanes>
void PlaneRow(const QelSlabVolume& volume, const QelSlabPolicy& policy, QelSlabRow& row) noexcept
{
    using I = typename V::I;
    constexpr int N = V::kLanes;
    std::int32_t firstHint = QelSlabValidHint(volume, row.FirstHint);
    std::int32_t laterHint = QelSlabValidHint(volume, row.LaterHint);
    const std::int32_t laterFirst = row.FirstSample > 1 ? row.FirstSample : 1;
    // The first pixel's position of sample s and its slices, false when it is
    // skipped. Inlined: a call would clear the registers' upper halves, and the body
    // then reloads its constants for every sample.
    const auto findPair = [&](std::int32_t s, QelFixedPoint3& start, QelSlabPair& pair) __attribute__((always_inline)) {
        start = s == 0 ? row.P : QelSlabWrapAddScaled(row.Q, row.SlabStep, s - laterFirst);
        return QelSlabFindPair(volume, start.Z, s == 0 ? firstHint : laterHint, pair);
    };
    if (volume.SafeOrigin && volume.WidthLimit > 0 && volume.HeightLimit > 0) {
        const Constants<V> c(volume, policy);
        const I laneX = LaneMultiples<V>(c, row.XStep.X);
        const I laneY = LaneMultiples<V>(c, row.XStep.Y);
        Stage<V> stage;
        // Groups of kLanes pixels across the row, each through the `found` samples
        // whose first pixels lie at `starts`.
        const auto takeGroups = [&](const QelFixedPoint3* starts, const QelSlabPair* pairs,
                                     std::int32_t found) __attribute__((always_inline)) {
            for (std::int32_t j = 0; found > 0 && j < row.Pixels; j += N) {
                const std::int32_t m = std::min(row.Pixels - j, N);
                Lanes lanes;
                LoadLanes<V>(lanes, row, j, m, stage, c);
                for (std::int32_t i = 0; i < found; ++i)
                    PlaneSample<V>(lanes, volume, c, row, pairs[i], QelSlabWrapAddScaled(starts[i], row.XStep, j),
                                   laneX, laneY, m);
                StoreLanes<V>(lanes, row, j, m, stage, c);
            }
        };
        if (row.XStep.X == 65536 && row.XStep.Y == 0) {
            for (std::int32_t s = row.FirstSample; s <= row.LastSample; ++s) {
                QelFixedPoint3 start;
                QelSlabPair pair;
                if (!findPair(s, start, pair))
                    continue;
                std::int32_t first = 0;
                std::int32_t last = -1;
                if (!QelSlabUnitStepSpan(volume, start.X, row.Pixels, first, last))
                    takeGroups(&start, &pair, 1);  // x wraps within the row
                else if (static_cast<std::uint32_t>(start.Y) < static_cast<std::uint32_t>(volume.HeightLimit) &&
                         first <= last)
                    UnitStepRow<V>(volume, policy, c, row, pair, start.X, start.Y, first, last);
            }
        } else {
            constexpr std::int32_t kBlock = 32;
            QelFixedPoint3 starts[kBlock];
            QelSlabPair pairs[kBlock];
            for (std::int32_t s0 = row.FirstSample; s0 <= row.LastSample; s0 += kBlock) {
                std::int32_t found = 0;
                for (std::int32_t s = s0; s <= std::min(row.LastSample, s0 + kBlock - 1); ++s)
                    found += findPair(s, starts[found], pairs[found]) ? 1 : 0;
                takeGroups(starts, pairs, found);
            }
        }
    }
    row.FirstHint = firstHint;
    row.LaterHint = laterHint;
}

template <class V>
void GeneralRowFor(const QelSlabVolume& volume, const QelSlabPolicy& policy, QelSlabRow& row) noexcept
{
    if (policy.Sum)
        GeneralRow<V, SumLanes<V>>(volume, policy, row);
    else
        GeneralRow<V, ExtremeLanes<V>>(volume, policy, row);
}

template <class V>
void PlaneRowFor(const QelSlabVolume& volume, const QelSlabPolicy& policy, QelSlabRow& row) noexcept
{
    if (policy.Sum)
        PlaneRow<V, SumLanes<V>>(volume, policy, row);
    else
        PlaneRow<V, ExtremeLanes<V>>(volume, policy, row);
}

}  // namespace qel::slab
