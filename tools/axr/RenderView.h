#pragma once

#include "View.h"

#include "ax/rendering/ImageStack.h"
#include "ax/rendering/MprRenderer.h"
#include "ax/rendering/ProjectionMode.h"
#include "ax/rendering/RasterImage.h"

#include <cstdint>
#include <stdexcept>
#include <string_view>

namespace Axr {

/// Why a render gave no picture: "did not finish", or "failed: " and the library's text.
class RenderFailure : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// Renders `stack` seen through `volumeToView` into `canvas`, a slab of `sliceCount` samples
/// `sliceSpacing` view z units apart, with `undefined` where there is no data; returns the
/// milliseconds the render took. `aborter`, when given, is polled before every step.
/// Throws RenderFailure.
double RenderView(Ax::Rendering::MprRenderer& renderer, Ax::Rendering::ImageStack& stack, std::uint16_t undefined,
                  const Ax::Primitives::Matrix44& volumeToView, Ax::Rendering::ProjectionMode mode,
                  std::int32_t sliceCount, float sliceSpacing, Ax::Rendering::RasterImage& canvas,
                  Ax::Rendering::IAborter* aborter = nullptr);

/// Keeps the process to the first `threads` processors it may use. The library sizes
/// its render threads from that set when it starts, so this must come before
/// Initializer::Initialize; afterwards it throws std::logic_error. Throws UsageError,
/// naming `context`, for more threads than processors.
void LimitRenderThreads(std::string_view context, std::int32_t threads);

}  // namespace Axr
