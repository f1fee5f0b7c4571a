#pragma once

// The row bodies of the slab accumulators, one table per instruction-set level. A
// helper picks its table once, when it is made; every table gives the scalar
// table's target and flag images bit for bit.

#include "base/QelIsa.h"
#include "mpr/QelImageStackSlabMprRendererHelper.h"
#include "mpr/imp/QelSlabSample.h"

#include <cstdint>

/// One slice as the loops see it.
struct QelSlabSlice {
    const std::uint8_t* Origin;  // pixel (0, 0); null for a slice without an image
    std::int32_t BytesPerLine;
    std::int32_t FixedZ;
    // The fixed z where this slice's gap ends: the next slice's fixed z, or for the
    // last slice its own + 1, so that its gap holds exactly the samples on it. Two
    // slices at one fixed z give the lower one an empty gap that no sample lands in.
    std::int32_t GapEnd;
    // 65536 / gap width, as float; 0 for an empty gap and for the last slice, where a
    // sample is always on the slice and no factor is used.
    float GapFactor;
    // 0 with an image, -1 without: vector bodies pick it lane by lane with the origin.
    std::int32_t Missing;
    // Neighbouring slices whose voxels all lie within 2^31 bytes of one origin share
    // it as their segment base, so that a vector body reaches them with 32-bit
    // offsets (Origin - SegmentBase; 0 without an image). A sentinel shares the last
    // slice's segment.
    const std::uint8_t* SegmentBase;
    std::int32_t SegmentOffset;
};

constexpr std::int32_t kSlabSentinels = 3;

/// The slices again, one column per field, for bodies that look up a slice for
/// every lane at once by permuting a window of a column held in one register. A
/// window starts at any slice (or the one after it) and is as long as the widest
/// register, so each column runs kSlabColumnPad entries past the last slice, with the
/// sentinels' values; the volume's Coarse runs as far past its last entry, repeating
/// it.
constexpr std::int32_t kSlabColumnPad = 17;

struct QelSlabColumns {
    const std::int32_t* FixedZ;  // read from slice k + 1 on, it is slice k's gap end
    const std::int32_t* GapFactor;  // the bits of the float
    const std::int32_t* SegmentOffset;
    const std::int32_t* Missing;
    // How many slices past a Coarse entry a walk within one entry's range can go:
    // 1 for evenly spaced slices, more where gaps are far narrower than the widest.
    std::int32_t CoarseSteps;
};

/// What the bodies read of the stack. Owned by the helper.
struct QelSlabVolume {
    // Count + kSlabSentinels entries: those past the last slice have no image and a
    // fixed z of INT32_MAX, above every sample.
    const QelSlabSlice* Slices;
    // One entry per 65536 of fixed z, from 0 to LastFixedZ: the highest slice at or
    // below the entry's start. A lookup walks up from there, so a stale hint never
    // costs a long walk.
    const std::int32_t* Coarse;
    QelSlabColumns Columns;
    // Some slice with an image: lanes without a sample read its first two pixels of
    // its first two rows instead of branching, and throw the result away.
    const std::uint8_t* SafeOrigin;
    std::int32_t SafeBytesPerLine;
    // When every slice with an image has one pitch, vector bodies work out each
    // lane's addresses in registers; otherwise they go lane by lane.
    bool UniformPitch;
    std::int32_t Pitch;  // the one pitch, with UniformPitch
    std::int32_t Count;
    bool AllImages;  // no slice lacks an image
    std::int32_t LastFixedZ;
    std::int32_t WidthLimit;   // (width - 1) * 65536: x must lie below it
    std::int32_t HeightLimit;  // (height - 1) * 65536
    std::uint16_t Bias;        // 0x8000 for unsigned pixels, 0 for signed
    bool HasPadding;
    std::uint16_t Padding;
};

/// How a pixel takes a sample in.
struct QelSlabPolicy {
    // Mean projection: 32-bit sums and 16-bit counts. Otherwise highest or lowest,
    // 16-bit values in place and byte flags.
    bool Sum;
    // The extreme projections compare on a signed scale: the value as short for
    // signed data and the value ^ 0x8000 for unsigned data, which orders like the
    // unsigned value. ToSigned is that xor (0 or 0x8000); Flip is 0 for the highest
    // and 0xFFFF for the lowest, since ~a > ~b exactly when a < b.
    std::uint16_t ToSigned;
    std::uint16_t Flip;
};

/// One row of a tile: pixels x first .. x last and samples s first .. s last.
struct QelSlabRow {
    std::uint8_t* Target;  // accumulator of the first pixel: uint32 sums or uint16 values
    std::uint8_t* Flags;   // of the first pixel: uint16 counts or uint8 flags
    std::int32_t Pixels;
    std::int32_t FirstSample;
    std::int32_t LastSample;
    QelFixedPoint3 P;  // sample 0 of the first pixel
    QelFixedPoint3 Q;  // sample max(first sample, 1) of the first pixel
    QelFixedPoint3 XStep;
    QelFixedPoint3 SlabStep;
    // In: where the slice lookups of sample 0 and of the later samples start. Out:
    // the last slices they found. Only speed depends on them.
    std::int32_t FirstHint;
    std::int32_t LaterHint;
};

/// The bodies. The general row takes pixel by pixel, each through its samples; the
/// plane row needs XStep.Z == 0, so that all pixels of a sample share its slices.
struct QelSlabKernels {
    void (*generalRow)(const QelSlabVolume& volume, const QelSlabPolicy& policy, QelSlabRow& row) noexcept;
    void (*planeRow)(const QelSlabVolume& volume, const QelSlabPolicy& policy, QelSlabRow& row) noexcept;
};

/// The table for `isa`, which the caller has checked with QelIsaSupported.
[[nodiscard]] const QelSlabKernels& QelSlabKernelsFor(QelIsa isa) noexcept;

namespace qel::sse2 {
extern const QelSlabKernels kSlabKernels;
}  // namespace qel::sse2
namespace qel::avx2 {
extern const QelSlabKernels kSlabKernels;
}  // namespace qel::avx2
namespace qel::avx512 {
extern const QelSlabKernels kSlabKernels;
}  // namespace qel::avx512

// Helpers shared by all bodies. Always inlined for the reason given in QelSlabSample.h.

/// int32 addition as the hardware does it: positions far outside the stack may wrap,
/// and every body must wrap the same way.
[[gnu::always_inline]] constexpr std::int32_t QelSlabWrapAdd(std::int32_t a, std::int32_t b) noexcept
{
    return static_cast<std::int32_t>(static_cast<std::uint32_t>(a) + static_cast<std::uint32_t>(b));
}
[[gnu::always_inline]] constexpr std::int32_t QelSlabWrapMul(std::int32_t a, std::int32_t b) noexcept
{
    return static_cast<std::int32_t>(static_cast<std::uint32_t>(a) * static_cast<std::uint32_t>(b));
}
[[gnu::always_inline]] constexpr QelFixedPoint3 QelSlabWrapAdd(const QelFixedPoint3& a, const QelFixedPoint3& b) noexcept
{
    return {QelSlabWrapAdd(a.X, b.X), QelSlabWrapAdd(a.Y, b.Y), QelSlabWrapAdd(a.Z, b.Z)};
}
/// a + b * n, wrapping.
[[gnu::always_inline]] constexpr QelFixedPoint3 QelSlabWrapAddScaled(const QelFixedPoint3& a, const QelFixedPoint3& b,
                                                                     std::int32_t n) noexcept
{
    return {QelSlabWrapAdd(a.X, QelSlabWrapMul(b.X, n)), QelSlabWrapAdd(a.Y, QelSlabWrapMul(b.Y, n)),
            QelSlabWrapAdd(a.Z, QelSlabWrapMul(b.Z, n))};
}

/// A hint that is not a slice index becomes 0.
[[gnu::always_inline]] constexpr std::int32_t QelSlabValidHint(const QelSlabVolume& volume, std::int32_t hint) noexcept
{
    return static_cast<std::uint32_t>(hint) < static_cast<std::uint32_t>(volume.Count) ? hint : 0;
}

/// The slice whose gap holds fixed z `z`: on return `k` satisfies
/// FixedZ(k) <= z < GapEnd(k), a pure function of z. So a z inside gap i takes the
/// pair (i, i + 1), and a z exactly on a slice takes that slice, also on the last
/// one; a z equal to the next slice's fixed z is on that slice, never the top of
/// gap i with the whole weight on the upper slice. False, with `k` unchanged, when z
/// lies below the first or above the last slice. `k` is a valid index on entry,
/// where the lookup starts: hints only save walking and never change the answer.
[[gnu::always_inline]] inline bool QelSlabFindSlice(const QelSlabVolume& volume, std::int32_t z,
                                                    std::int32_t& k) noexcept
{
    const QelSlabSlice& current = volume.Slices[k];
    if (static_cast<std::uint32_t>(z) - static_cast<std::uint32_t>(current.FixedZ) <
        static_cast<std::uint32_t>(current.GapEnd - current.FixedZ))
        return true;
    // The first slice lies at fixed z 0, so this also rejects every negative z.
    if (static_cast<std::uint32_t>(z) > static_cast<std::uint32_t>(volume.LastFixedZ))
        return false;
    std::int32_t i = volume.Coarse[z >> 16];
    while (z >= volume.Slices[i].GapEnd)
        ++i;
    k = i;
    return true;
}

/// The two slices of a sample in slice k's gap. On the slice itself the sample reads
/// that slice for both, so that only its own voxels are tested for padding; its weight
/// on the upper corners is 0 anyway. Null origins when either slice has no image.
struct QelSlabPair {
    const std::uint8_t* Lower;
    const std::uint8_t* Upper;
    std::int32_t LowerBytesPerLine;
    std::int32_t UpperBytesPerLine;
    std::uint32_t Fz;
    bool OnSlice;
};

[[gnu::always_inline]] inline QelSlabPair QelSlabPairAt(const QelSlabVolume& volume, std::int32_t z,
                                                        std::int32_t k) noexcept
{
    const QelSlabSlice& lower = volume.Slices[k];
    const bool onSlice = z == lower.FixedZ;
    const QelSlabSlice& upper = onSlice ? lower : volume.Slices[k + 1];
    const std::uint32_t fz = onSlice ? 0u : QelSlabZFraction(lower.GapFactor, z - lower.FixedZ);
    return {lower.Origin, upper.Origin, lower.BytesPerLine, upper.BytesPerLine, fz, onSlice};
}

/// The pair of a sample at fixed z `z`, looked up from hint `k`: false when the
/// sample is skipped, outside the slices or on a slice without an image.
[[gnu::always_inline]] inline bool QelSlabFindPair(const QelSlabVolume& volume, std::int32_t z, std::int32_t& k,
                                                   QelSlabPair& pair) noexcept
{
    if (!QelSlabFindSlice(volume, z, k))
        return false;
    pair = QelSlabPairAt(volume, z, k);
    return pair.Lower && pair.Upper;
}

/// Reads the eight corners of (xi, yi) in the order of QelSlabWeights.
[[gnu::always_inline]] inline void QelSlabReadCorners(const QelSlabPair& pair, std::int32_t xi, std::int32_t yi,
                                                      std::uint16_t (&corners)[8]) noexcept
{
    const std::uint8_t* lower = pair.Lower + std::ptrdiff_t{yi} * pair.LowerBytesPerLine + std::ptrdiff_t{xi} * 2;
    const std::uint8_t* upper = pair.Upper + std::ptrdiff_t{yi} * pair.UpperBytesPerLine + std::ptrdiff_t{xi} * 2;
    corners[0] = QelSlabLoad<std::uint16_t>(lower);
    corners[1] = QelSlabLoad<std::uint16_t>(lower + 2);
    corners[2] = QelSlabLoad<std::uint16_t>(lower + pair.LowerBytesPerLine);
    corners[3] = QelSlabLoad<std::uint16_t>(lower + pair.LowerBytesPerLine + 2);
    corners[4] = QelSlabLoad<std::uint16_t>(upper);
    corners[5] = QelSlabLoad<std::uint16_t>(upper + 2);
    corners[6] = QelSlabLoad<std::uint16_t>(upper + pair.UpperBytesPerLine);
    corners[7] = QelSlabLoad<std::uint16_t>(upper + pair.UpperBytesPerLine + 2);
}

/// One sample at (x, y) of a pair that has both images: the value on the unsigned
/// scale, or false when x or y lies outside the interpolation range or a corner is
/// padding. x at or above the width limit is skipped: the interpolation needs the
/// voxel to the right, so the last column is never sampled on its exact coordinate.
[[gnu::always_inline]] inline bool QelSlabSampleAt(const QelSlabVolume& volume, const QelSlabPair& pair,
                                                   std::int32_t x, std::int32_t y, std::uint32_t& value) noexcept
{
    // Unsigned compares reject negative coordinates too; the limits are not negative.
    if (static_cast<std::uint32_t>(x) >= static_cast<std::uint32_t>(volume.WidthLimit) ||
        static_cast<std::uint32_t>(y) >= static_cast<std::uint32_t>(volume.HeightLimit))
        return false;
    std::uint16_t corners[8];
    QelSlabReadCorners(pair, x >> 16, y >> 16, corners);
    if (volume.HasPadding && QelSlabTouchesPadding(corners, volume.Padding))
        return false;
    value = QelSlabValue(corners, QelSlabCornerWeights(QelSlabFraction(x), QelSlabFraction(y), pair.Fz), volume.Bias);
    return true;
}

/// Takes `value` (unsigned scale) into pixel j of the row's accumulators.
[[gnu::always_inline]] inline void QelSlabTakeIn(const QelSlabPolicy& policy, const QelSlabRow& row,
                                                 const QelSlabVolume& volume, std::int32_t j,
                                                 std::uint32_t value) noexcept
{
    if (policy.Sum) {
        std::uint8_t* sum = row.Target + std::ptrdiff_t{j} * 4;
        std::uint8_t* count = row.Flags + std::ptrdiff_t{j} * 2;
        QelSlabStore<std::uint32_t>(sum, QelSlabLoad<std::uint32_t>(sum) + value);
        QelSlabStore<std::uint16_t>(count, static_cast<std::uint16_t>(QelSlabLoad<std::uint16_t>(count) + 1));
        return;
    }
    std::uint8_t* heldAddress = row.Target + std::ptrdiff_t{j} * 2;
    std::uint8_t& flag = row.Flags[j];
    const auto held = QelSlabLoad<std::uint16_t>(heldAddress);
    // value ^ 0x8000 is the value on the signed scale as 16 bits.
    const auto u = static_cast<std::uint16_t>(value ^ 0x8000u ^ policy.ToSigned);
    const auto heldSigned = static_cast<std::int16_t>(held ^ policy.ToSigned ^ policy.Flip);
    const auto newSigned = static_cast<std::int16_t>(u ^ policy.ToSigned ^ policy.Flip);
    // A held padding value gives way only when the stack has padding at all.
    if (flag == 0 || (volume.HasPadding && held == volume.Padding) || newSigned > heldSigned)
        QelSlabStore<std::uint16_t>(heldAddress, u);
    flag = 1;
}

/// For a plane row stepping exactly one voxel in x and none in y: the pixels
/// [first, last] whose x lies in [0, width limit), from the step instead of a test
/// per pixel. False when x would wrap within the row, which the caller leaves to the
/// per-pixel handling; an empty range is first > last.
[[gnu::always_inline]] inline bool QelSlabUnitStepSpan(const QelSlabVolume& volume, std::int32_t x0,
                                                       std::int32_t pixels, std::int32_t& first,
                                                       std::int32_t& last) noexcept
{
    const std::int64_t lastX = std::int64_t{x0} + std::int64_t{pixels - 1} * 65536;
    if (lastX > INT32_MAX)
        return false;
    // Smallest j with x0 + j * 65536 >= 0 and largest with x0 + j * 65536 < limit.
    const std::int64_t lowest = x0 >= 0 ? 0 : (-std::int64_t{x0} + 65535) / 65536;
    const std::int64_t below = std::int64_t{volume.WidthLimit} - 1 - x0;
    const std::int64_t highest = below < 0 ? -1 : below / 65536;
    first = static_cast<std::int32_t>(lowest < pixels ? lowest : pixels);
    last = static_cast<std::int32_t>(highest < pixels - 1 ? highest : pixels - 1);
    return true;
}
