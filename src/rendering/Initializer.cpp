#include "ax/rendering/Initializer.h"

#include "MemoryManager.h"
#include "ax/rendering/BugHandler.h"

namespace Ax::Rendering {

namespace {
bool s_initialized = false;
}

void Initializer::Initialize()
{
    if (s_initialized)
        return;
    // The manager first: the handler needs none, but every renderer needs both.
    if (!MemoryManager::StandardMemoryManagerInitialized())
        MemoryManager::InitializeStandardMemoryManager();
    BugHandler::SetManagedBugHandler();
    s_initialized = true;
}

bool Initializer::IsInitialized() noexcept
{
    return s_initialized;
}

}  // namespace Ax::Rendering
