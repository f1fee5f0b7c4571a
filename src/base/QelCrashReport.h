#pragma once

#include <array>
#include <cstdint>
#include <string>

/// What a fault guard knows about a hardware fault: the operating system's code
/// for it (access violation 0xC0000005, integer divide by zero 0xC0000094, ...),
/// the signal that carried it, the faulting address and the stack at the fault.
struct QelFaultRecord {
    static constexpr int kMaxFrames = 60;

    std::uint32_t Code = 0;
    int Signal = 0;
    const void* Address = nullptr;
    std::array<void*, kMaxFrames> Frames{};
    int FrameCount = 0;
};

/// The code of a fault delivered as `signal` with the signal's `siCode`; 0 for a
/// signal that is not a hardware fault.
[[nodiscard]] std::uint32_t QelExceptionCodeFromSignal(int signal, int siCode) noexcept;

/// The name of a fault code, "EXCEPTION_ACCESS_VIOLATION" and so on, or
/// "Unknown exception".
[[nodiscard]] const char* QelExceptionName(std::uint32_t code) noexcept;

/// Crash reports are off until a prefix is set; nothing in the library sets one.
/// A report goes to "<prefix>_<counter>_<guard name>.dmp", with every "::", ":"
/// and "." of prefix and name turned into "-".
void QelSetDumpPathPrefix(std::string prefix);
[[nodiscard]] std::string QelGetDumpPathPrefix();
/// The code given to the latest QelCrashReport call.
[[nodiscard]] std::uint32_t QelLastExceptionCode() noexcept;

/// Called by the fault guard named `name` for the fault in `fault` (or, when it is
/// null, for the calling stack) with the fault's code. Writes a text report (code,
/// name, signal, address, thread, backtrace) when a prefix is set and returns
/// whether it was written; without a prefix it only stores the code. `fullMemory`
/// is noted in the report: a text report holds no memory either way.
bool QelCrashReport(const char* name, const QelFaultRecord* fault, std::uint32_t code, bool fullMemory);

/// The file name rule, exposed for tests.
[[nodiscard]] std::string QelCleanDumpName(std::string text);
