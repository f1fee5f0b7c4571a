#pragma once

#include <cstdint>

namespace Ax::Rendering {

/// How a render ended when it did not fail.
enum class StatusCode : std::int32_t {
    /// The render ran to its end.
    Finished = 1,
    /// The caller's IAborter stopped it; the canvas holds what was drawn so far.
    Aborted = 2,
};

}  // namespace Ax::Rendering
