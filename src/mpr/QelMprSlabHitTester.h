#pragma once

#include "base/QelVector.h"

#include <cstdint>

class QelImageStack;
class QelRenderSpec;

/// What a canvas pixel of a slab reformat shows.
struct QelMprSlabHit {
    bool Hit = false;
    QelVector3 Position{};  // x, y in voxels, z in the unit of the stack's z positions
    std::int32_t Value = 0;  // the voxel value there, signed or unsigned after the stack
};

/// Answers which point of the volume a pixel of a MIP or MinIP slab shows: the
/// sample of the slab through that pixel that won the projection. It keeps no
/// state, so any thread may ask while the stack and the record stay unchanged.
class QelMprSlabHitTester {
public:
    virtual ~QelMprSlabHitTester() = default;

    /// The slab through canvas pixel (`canvasX`, `canvasY`) under the record's
    /// Transform, SampleSliceNumber, CurrSliceSpacing and SlabMode: for MIP its
    /// highest sample, for MINIP its lowest, the first of equal ones. False, with
    /// `result.Hit` false, for the mean projection and when no sample of the slab
    /// lies inside the volume. An unset SlabMode is a bug report.
    virtual bool GetTargetCoordinates(const QelImageStack& stack, const QelRenderSpec& spec, float canvasX,
                                      float canvasY, QelMprSlabHit& result) const;

    /// Samples `numSamples` evenly spaced points from `start` to `end`, both
    /// included, and gives the fraction of the way at which the best value lies,
    /// that value in `value`: the lowest with `lowestWanted`, else the highest.
    /// Points outside the volume and on padding don't count; -1 when none counts.
    /// Fewer than 1 sample is a bug report, and 0.
    [[nodiscard]] static float GetFrac(const QelImageStack& stack, const QelVector3& start, const QelVector3& end,
                                       std::int32_t numSamples, std::int32_t& value, bool lowestWanted);

protected:
    QelMprSlabHitTester() = default;
    QelMprSlabHitTester(const QelMprSlabHitTester&) = default;
    QelMprSlabHitTester& operator=(const QelMprSlabHitTester&) = default;
};
