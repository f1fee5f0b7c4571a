#pragma once

#include "ax/rendering/ImageStack.h"

#include <cstdint>
#include <memory>
#include <vector>

namespace Axr {

/// What the built-in phantom looks like: a head and neck on a table, N^3 voxels of
/// 16-bit grey on the Hounsfield scale + 1024 (air 0). The anatomy lives in
/// normalized coordinates (-1 .. 1 on each axis), so every size shows the same head:
/// x runs right to left of the patient, y front to back, z feet to head.
struct PhantomOptions {
    std::int32_t size = 256;          // voxels per axis, 16 .. 1024
    bool unevenSpacing = false;       // a few slice gaps twice as wide as the rest
    std::int32_t generatorThreads = 0;  // 0: one per hardware thread
};

/// The phantom's physical scale: the head is the same size in millimetres at any N.
[[nodiscard]] constexpr double PhantomVoxelMillimetres(std::int32_t size) noexcept { return 256.0 / size; }

/// The z of every slice in stack units (voxels): k plus the doubled gaps below k.
[[nodiscard]] std::vector<double> PhantomSliceZ(std::int32_t size, bool unevenSpacing);

/// The voxel coordinate (x or y index, or stack z) of a normalized coordinate.
[[nodiscard]] constexpr double PhantomVoxelOf(double normalized, std::int32_t size) noexcept
{
    return (normalized + 1.0) * 0.5 * size - 0.5;
}

/// Places in normalized coordinates that the demo aims at and tests probe.
namespace PhantomLandmarks {
inline constexpr double kBrainCentre[3] = {0.0, 0.02, 0.20};
inline constexpr double kVentricleZ = 0.30;
inline constexpr double kSkullTop[3] = {0.0, 0.02, 0.20 + 0.62 * 0.905};  // mid-thickness of the vault
inline constexpr double kCarotidLeft[3] = {0.15, -0.02, -0.60};
}  // namespace PhantomLandmarks

/// The phantom as Gray16 MemoryRasterImage slices in a new stack, without padding.
/// The bytes depend only on the size and the spacing option, never on the thread
/// count. Requires Ax::Rendering::Initializer::Initialize. Throws
/// std::invalid_argument for a size outside 16 .. 1024.
[[nodiscard]] std::unique_ptr<Ax::Rendering::ImageStack> MakePhantom(const PhantomOptions& options);

}  // namespace Axr
