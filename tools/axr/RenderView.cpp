#include "RenderView.h"
#include "Progress.h"

#include "CommandLine.h"

#include "ax/rendering/Initializer.h"
#include "ax/rendering/StatusCode.h"

#include <sched.h>

#include <cerrno>
#include <chrono>
#include <cstring>
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
    return MillisecondsSince(start);
}

void LimitRenderThreads(std::string_view context, std::int32_t threads)
{
    if (Ax::Rendering::Initializer::IsInitialized())
        throw std::logic_error("the render threads are fixed once the library has started");
    cpu_set_t allowed;
    CPU_ZERO(&allowed);
    if (sched_getaffinity(0, sizeof allowed, &allowed) != 0)
        throw std::runtime_error(std::string("cannot read the processor set: ") + std::strerror(errno));
    const int available = CPU_COUNT(&allowed);
    if (threads > available)
        throw UsageError(std::string(context) + ": --threads " + std::to_string(threads) +
                         ", but the tool may use only " + std::to_string(available) + " processors");
    int kept = 0;
    for (int cpu = 0; cpu < CPU_SETSIZE; ++cpu)
        if (CPU_ISSET(cpu, &allowed) && kept++ >= threads)
            CPU_CLR(cpu, &allowed);
    if (sched_setaffinity(0, sizeof allowed, &allowed) != 0)
        throw std::runtime_error(std::string("cannot limit the processor set: ") + std::strerror(errno));
}

}  // namespace Axr
