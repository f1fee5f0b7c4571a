#pragma once

#include "base/QelNoncopyable.h"
#include "base/QelVector.h"

#include <cstdint>
#include <memory>
#include <vector>

class QelImageStack;

/// Trilinear samples of a stack at float positions, for picking: x and y in voxels,
/// z in the unit of the stack's z positions. It copies what it needs of the stack
/// when it is built and reads the slices without a lock, so any number of threads
/// may sample at once while the stack stays unchanged.
///
/// z maps to slices through runs of evenly spaced slices: within a run, whose gaps
/// differ from its first gap by less than the tolerance, z maps linearly to a slice
/// index, so nearly even spacing is treated as even.
class QelTrilinearSampler : QelNoncopyable {
public:
    /// Null for a stack of fewer than 2 slices or of other than 2 bytes per pixel,
    /// and when memory runs out. `outsideValue` is what Sample gives outside the
    /// volume; a stack with padding gives its padding value instead.
    [[nodiscard]] static std::unique_ptr<QelTrilinearSampler> New(const QelImageStack& stack,
                                                                  std::int32_t outsideValue, float tolerance);

    /// The value at `position`. Outside the box (0 <= x < width - 1, 0 <= y < height - 1,
    /// first z <= z < last z), and where one of the 8 voxels is padding: OutsideValue().
    /// Otherwise the weighted sum of the voxels, as signed or unsigned 16 bits after
    /// the stack, rounded to the nearest integer.
    [[nodiscard]] std::int32_t Sample(const QelVector3& position) const noexcept;

    [[nodiscard]] std::int32_t OutsideValue() const noexcept { return m_outsideValue; }

private:
    // Slices [StartIndex, StartIndex + Count - 1] lie evenly from FirstZ to LastZ.
    struct Region {
        float FirstZ;
        float LastZ;
        float Scale;  // slices per unit of z
        std::int32_t StartIndex;
        std::int32_t Count;
    };

    QelTrilinearSampler() = default;

    [[nodiscard]] std::int32_t Voxel(std::int32_t slice, std::int32_t x, std::int32_t y) const noexcept;
    [[nodiscard]] bool IsPadding(std::int32_t voxel) const noexcept;

    std::int32_t m_width = 0;
    std::int32_t m_height = 0;
    bool m_signed = false;
    bool m_hasPadding = false;
    std::int32_t m_paddingValue = 0;
    std::int32_t m_outsideValue = 0;
    float m_firstZ = 0.0f;
    float m_lastZ = 0.0f;
    std::vector<const std::uint8_t*> m_origins;
    std::vector<std::int32_t> m_bytesPerLine;
    std::vector<Region> m_regions;
};
