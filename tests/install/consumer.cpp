// Uses the installed library the way an application does: start it up, use an
// image, and see a native failure arrive as the library's exception.
#include <ax/rendering/Initializer.h>
#include <ax/rendering/RenderingException.h>

#include <cstdio>

int main()
{
    Ax::Rendering::Initializer::Initialize();
    if (!Ax::Rendering::Initializer::IsInitialized()) {
        std::puts("not initialized");
        return 1;
    }
    std::puts("consumer ok");
    return 0;
}
