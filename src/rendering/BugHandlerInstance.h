#pragma once

#include "base/QelDebug.h"

#include <array>
#include <cstdint>
#include <memory>

namespace Ax::Rendering {

/// Throws RenderingException with `text` across the native frames above it.
[[noreturn]] void RaiseManagedException(const char* text);
/// Stops in an attached debugger, or ends the process with status 1.
void ManagedBreakInDebuggerOrExit();

/// The handler the public layer installs. Every message ends in Flush, and Flush
/// always throws RenderingException, so a trace stops the operation as surely as an
/// assertion. Misuse (a message opened twice, text with no message open, a message
/// over 4096 bytes with its terminator) throws RenderingException at once.
/// One buffer and no lock: two threads reporting at the same moment would mix their
/// texts. Workers report only broken invariants, and a loop manager hands the first
/// report of its threads to its caller.
class BugHandlerInstance final : public QelBugHandler {
public:
    static constexpr std::int32_t kBufferSize = 4096;

    BugHandlerInstance();

    bool Arm() override;
    void Disarm() override;
    [[nodiscard]] bool IsArmed() const override { return m_armed; }
    void Trace(const char* file, int line) override;
    void Assert(const char* file, int line) override;
    void Error(const char* file, int line) override;
    /// Returns the formatted length plus 1.
    int VPrintf(const char* format, std::va_list args) override;
    [[noreturn]] void Flush() override;
    void Exit() override;

    [[nodiscard]] bool MessageOpen() const noexcept { return m_messageOpen; }
    [[nodiscard]] std::int32_t Length() const noexcept { return m_length; }

private:
    void Open(const char* misuseText, const char* file, int line, const char* heading);

    bool m_armed = false;
    bool m_messageOpen = false;
    std::unique_ptr<std::array<char, kBufferSize>> m_buffer;
    std::int32_t m_length = 0;
};

}  // namespace Ax::Rendering
