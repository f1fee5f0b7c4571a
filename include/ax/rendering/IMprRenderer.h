#pragma once

#include "ax/primitives/Matrix44.h"
#include "ax/rendering/IAborter.h"
#include "ax/rendering/ProjectionMode.h"
#include "ax/rendering/StatusCode.h"

#include <cstdint>

namespace Ax::Rendering {

class ImageStack;
class RasterImage;

/// A renderer of multi-planar reformats: planes and slabs cut through an image
/// stack at any angle.
class IMprRenderer {
public:
    virtual ~IMprRenderer() = default;

    /// Draws the slab whose centre plane is canvas z 0 under
    /// `volumeToViewTransform` into `renderCanvas`: `sliceCount` samples per pixel,
    /// `sliceSpacingVoxels` apart along the plane's normal, reduced by
    /// `projectionMode`. Pixels without data get `unusedValue`. `aborter` (may be
    /// null) is asked before every step of the render.
    virtual StatusCode Render(ImageStack& imageStack, std::uint16_t unusedValue,
                              const Ax::Primitives::Matrix44& volumeToViewTransform, ProjectionMode projectionMode,
                              std::int32_t sliceCount, float sliceSpacingVoxels, RasterImage& renderCanvas,
                              IAborter* aborter) = 0;

protected:
    IMprRenderer() = default;
    IMprRenderer(const IMprRenderer&) = default;
    IMprRenderer& operator=(const IMprRenderer&) = default;
};

}  // namespace Ax::Rendering
