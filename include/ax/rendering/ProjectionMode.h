#pragma once

#include <cstdint>
#include <string>

namespace Ax::Rendering {

/// How the samples along a ray or through a slab reduce to one pixel.
enum class ProjectionMode : std::int32_t {
    Maximum = 0,  // the highest sample
    Minimum = 1,  // the lowest sample
    Average = 2,  // the mean of the samples
};

/// The enumerator's name, or the number for a value that has none.
[[nodiscard]] std::string ToString(ProjectionMode mode);

}  // namespace Ax::Rendering
