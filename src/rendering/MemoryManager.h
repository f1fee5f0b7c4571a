#pragma once

#include <memory>

class QelMemoryManager;

namespace Ax::Rendering {

/// The process-wide memory manager that public classes hand to every native
/// factory. It is made once, by Initializer::Initialize, and lives until the
/// process ends.
class MemoryManager {
public:
    MemoryManager() = delete;

    /// Throws InvalidOperationException "No memory manager has been initialized."
    /// before Initializer::Initialize.
    [[nodiscard]] static QelMemoryManager* Instance();
    [[nodiscard]] static bool StandardMemoryManagerInitialized() noexcept;
    /// Throws InvalidOperationException "A memory manager is already initialized!"
    /// when called a second time.
    static void InitializeStandardMemoryManager();

private:
    static void SetMemoryManager(std::unique_ptr<QelMemoryManager> manager);
};

}  // namespace Ax::Rendering
