#pragma once

#include <cstdint>
#include <string>

namespace Ax::Rendering {

/// How a reformat samples the volume between voxels.
enum class InterpolationMode : std::int32_t {
    BiLinear = 0,   // within one slice; no renderer draws it
    BiCubic = 1,    // within one slice; no renderer draws it
    TriLinear = 2,  // across slices, in fixed point
    TriCubic = 3,   // across slices, with a cubic filter
};

/// The enumerator's name, or the number for a value that has none.
[[nodiscard]] std::string ToString(InterpolationMode mode);

}  // namespace Ax::Rendering
