#include "RenderView.h"

#include "ax/rendering/StatusCode.h"

#include <chrono>
#include <string>

namespace Axr {

double RenderView(Ax::Rendering::MprRenderer& renderer, Ax::Rendering::ImageStack& stack, std::uint16_t undefined,
                  const Ax::Primitives::Matrix44& volumeToView, Ax::Rendering::ProjectionMode mode,
                  std::int32_t sliceCount, float sliceSpacing, Ax::Rendering::RasterImage& canvas,
                  Ax::Rendering::IAborter* aborter)
{
    const auto start = std::chrono::steady_clock::now();
    Ax::Rendering::StatusCode status{};
    try {
        status = renderer.Render(stack, undefined, volumeToView, mode, sliceCount, sliceSpacing, canvas, aborter);
    } catch (const std::exception& e) {
        throw RenderFailure(std::string("failed: ") + e.what());
    }
    if (status != Ax::Rendering::StatusCode::Finished)
        throw RenderFailure("did not finish");
    return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
}

}  // namespace Axr
