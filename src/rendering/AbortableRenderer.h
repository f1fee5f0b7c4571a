#pragma once

#include "ax/rendering/IAborter.h"
#include "ax/rendering/StatusCode.h"

class QelImageStack;
class QelImageStackSteppableRenderer;
class QelRenderSpec;

namespace Ax::Rendering {

/// The one loop that drives every public render to its end.
class AbortableRenderer {
public:
    /// StartDraw, then Step until the renderer is done, asking `aborter` (may be
    /// null) before every step; an abort calls the renderer's Abort and returns
    /// StatusCode::Aborted. A failed StartDraw or Step throws RenderingException with
    /// the renderer's error text, or the memory failure text, or a plain one. A
    /// native exception leaving the renderer becomes InvalidOperationException with
    /// its text; the library's own exceptions and the aborter's pass unchanged.
    static StatusCode Render(QelImageStackSteppableRenderer* renderer, QelImageStack* imageStack,
                             QelRenderSpec* renderSpec, IAborter* aborter);

    AbortableRenderer() = delete;
};

}  // namespace Ax::Rendering
