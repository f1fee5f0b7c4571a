#pragma once

#include "View.h"

#include "ax/rendering/ImageStack.h"
#include "ax/rendering/MprRenderer.h"
#include "ax/rendering/ProjectionMode.h"
#include "ax/rendering/RasterImage.h"

#include <cstdint>
#include <stdexcept>

namespace Axr {

/// Why a render gave no picture: "did not finish", or "failed: " and the library's text.
class RenderFailure : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// Renders `plane` of `stack` into `canvas`, a slab of `sliceCount` samples
/// `sliceSpacing` voxels apart, with `undefined` where there is no data; returns the
/// milliseconds the render took. Throws RenderFailure.
double RenderView(Ax::Rendering::MprRenderer& renderer, Ax::Rendering::ImageStack& stack, std::uint16_t undefined,
                  const ViewPlane& plane, Ax::Rendering::ProjectionMode mode, std::int32_t sliceCount,
                  float sliceSpacing, Ax::Rendering::RasterImage& canvas);

}  // namespace Axr
