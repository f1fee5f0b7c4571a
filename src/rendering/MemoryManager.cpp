#include "MemoryManager.h"

#include "ax/system/Exception.h"
#include "base/QelMemoryManager.h"

namespace Ax::Rendering {

namespace {

std::unique_ptr<QelMemoryManager>& Singleton()
{
    static std::unique_ptr<QelMemoryManager> singleton;
    return singleton;
}

}  // namespace

QelMemoryManager* MemoryManager::Instance()
{
    QelMemoryManager* manager = Singleton().get();
    if (!manager)
        throw Ax::System::InvalidOperationException("No memory manager has been initialized.");
    return manager;
}

bool MemoryManager::StandardMemoryManagerInitialized() noexcept
{
    return Singleton() != nullptr;
}

void MemoryManager::InitializeStandardMemoryManager()
{
    SetMemoryManager(QelDumbMemoryManager::New());
}

void MemoryManager::SetMemoryManager(std::unique_ptr<QelMemoryManager> manager)
{
    if (Singleton())
        throw Ax::System::InvalidOperationException("A memory manager is already initialized!");
    Singleton() = std::move(manager);
}

}  // namespace Ax::Rendering
