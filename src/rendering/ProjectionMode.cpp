#include "ax/rendering/ProjectionMode.h"

namespace Ax::Rendering {

std::string ToString(ProjectionMode mode)
{
    switch (mode) {
    case ProjectionMode::Maximum:
        return "Maximum";
    case ProjectionMode::Minimum:
        return "Minimum";
    case ProjectionMode::Average:
        return "Average";
    }
    return std::to_string(static_cast<std::int32_t>(mode));
}

}  // namespace Ax::Rendering
