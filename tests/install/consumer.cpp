// Uses the installed library the way an application does: start it up, use an
// image, and see a native failure arrive as the library's exception.
#include <ax/rendering/Initializer.h>
#include <ax/rendering/MemoryRasterImage.h>
#include <ax/rendering/RenderingException.h>

#include <cstdio>

int main()
{
    using namespace Ax::Rendering;
    using Ax::Primitives::GrayscalePixelFormat;
    using Ax::Primitives::Size;

    Initializer::Initialize();
    if (!Initializer::IsInitialized()) {
        std::puts("not initialized");
        return 1;
    }

    MemoryRasterImage image;
    image.Resize(GrayscalePixelFormat::Gray16(), Size(4, 3));
    image.Clear(0xBEEF);
    const std::uint8_t* last = image.GetPixelAddress(3, 2);
    if (last[0] != 0xEF || last[1] != 0xBE) {
        std::puts("clear did not fill the image");
        return 1;
    }

    try {
        image.Resize(GrayscalePixelFormat::Gray16(), Size(0, 0));
        std::puts("an empty size was accepted");
        return 1;
    } catch (const RenderingException& e) {
        std::printf("caught: %s\n", e.what());
    }
    std::puts("consumer ok");
    return 0;
}
