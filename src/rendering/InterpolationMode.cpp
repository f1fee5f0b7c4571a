#include "ax/rendering/InterpolationMode.h"

namespace Ax::Rendering {

std::string ToString(InterpolationMode mode)
{
    switch (mode) {
    case InterpolationMode::BiLinear:
        return "BiLinear";
    case InterpolationMode::BiCubic:
        return "BiCubic";
    case InterpolationMode::TriLinear:
        return "TriLinear";
    case InterpolationMode::TriCubic:
        return "TriCubic";
    }
    return std::to_string(static_cast<std::int32_t>(mode));
}

}  // namespace Ax::Rendering
