#pragma once

namespace Ax::Rendering {

/// The one start-up call. Call Initialize once, before making any other object of
/// the library and before sharing it between threads: it makes the process-wide
/// memory manager and installs the bug handler that turns a native report into a
/// RenderingException. A second call does nothing.
class Initializer {
public:
    Initializer() = delete;
    static void Initialize();
    [[nodiscard]] static bool IsInitialized() noexcept;
};

}  // namespace Ax::Rendering
