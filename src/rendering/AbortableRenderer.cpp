#include "AbortableRenderer.h"

#include "ax/rendering/RenderingException.h"
#include "ax/system/Exception.h"
#include "threaded/QelImageStackRenderer.h"

#include <array>
#include <exception>
#include <string>

namespace Ax::Rendering {

namespace {

// Runs a call into the renderer. An exception of the engine's own (a bug report of
// the native handler, a failed allocation) reaches the caller as an
// InvalidOperationException; the public layer's exceptions, such as the public bug
// handler's RenderingException, pass as they are.
template <class Call>
auto IntoRenderer(Call call)
{
    try {
        return call();
    } catch (const Ax::System::Exception&) {
        throw;
    } catch (const std::exception& e) {
        throw Ax::System::InvalidOperationException(e.what());
    }
}

[[noreturn]] void ThrowExceptionForRendererError(const QelImageStackSteppableRenderer& renderer)
{
    constexpr std::uint32_t kTextSize = 1000;
    std::array<char, kTextSize> text{};
    if (IntoRenderer([&] { return renderer.GetErrorText(text.data(), kTextSize); })) {
        text.back() = '\0';  // whatever the renderer wrote, the text ends in the buffer
        throw RenderingException("Renderer crashed: \"" + std::string(text.data()) + "\"");
    }
    if (IntoRenderer([&] { return renderer.HasFailed(); }))
        throw RenderingException("Renderer failed to Draw because of a memory failure");
    throw RenderingException("Renderer failed to Draw");
}

}  // namespace

StatusCode AbortableRenderer::Render(QelImageStackSteppableRenderer* renderer, QelImageStack* imageStack,
                                     QelRenderSpec* renderSpec, IAborter* aborter)
{
    bool running = IntoRenderer([&] { return renderer->StartDraw(imageStack, renderSpec); });
    while (running && !IntoRenderer([&] { return renderer->IsDone(); })) {
        if (aborter && aborter->HasAborted()) {
            IntoRenderer([&] { renderer->Abort(); });
            return StatusCode::Aborted;
        }
        running = IntoRenderer([&] { return renderer->Step(); });
    }
    if (!running)
        ThrowExceptionForRendererError(*renderer);
    return StatusCode::Finished;
}

}  // namespace Ax::Rendering
