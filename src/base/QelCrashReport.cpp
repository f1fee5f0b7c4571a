#include "base/QelCrashReport.h"

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <execinfo.h>
#include <fcntl.h>
#include <mutex>
#include <string>
#include <string_view>
#include <sys/syscall.h>
#include <unistd.h>
#include <utility>

namespace {

struct CrashState {
    std::mutex lock;
    std::string dumpPathPrefix;
    std::uint32_t lastCode = 0;
    std::uint32_t dumpCounter = 1;
};

CrashState& State()
{
    static CrashState state;
    return state;
}

struct CodeName {
    std::uint32_t code;
    const char* name;
};

constexpr CodeName kCodeNames[] = {
    {0xC0000005, "EXCEPTION_ACCESS_VIOLATION"},
    {0xC000008C, "EXCEPTION_ARRAY_BOUNDS_EXCEEDED"},
    {0x80000003, "EXCEPTION_BREAKPOINT"},
    {0x80000002, "EXCEPTION_DATATYPE_MISALIGNMENT"},
    {0xC000008D, "EXCEPTION_FLT_DENORMAL_OPERAND"},
    {0xC000008E, "EXCEPTION_FLT_DIVIDE_BY_ZERO"},
    {0xC000008F, "EXCEPTION_FLT_INEXACT_RESULT"},
    {0xC0000090, "EXCEPTION_FLT_INVALID_OPERATION"},
    {0xC0000091, "EXCEPTION_FLT_OVERFLOW"},
    {0xC0000092, "EXCEPTION_FLT_STACK_CHECK"},
    {0xC0000093, "EXCEPTION_FLT_UNDERFLOW"},
    {0xC000001D, "EXCEPTION_ILLEGAL_INSTRUCTION"},
    {0xC0000006, "EXCEPTION_IN_PAGE_ERROR"},
    {0xC0000094, "EXCEPTION_INT_DIVIDE_BY_ZERO"},
    {0xC0000095, "EXCEPTION_INT_OVERFLOW"},
    {0xC0000026, "EXCEPTION_INVALID_DISPOSITION"},
    {0xC0000025, "EXCEPTION_NONCONTINUABLE_EXCEPTION"},
    {0xC0000096, "EXCEPTION_PRIV_INSTRUCTION"},
    {0x80000004, "EXCEPTION_SINGLE_STEP"},
    {0xC00000FD, "EXCEPTION_STACK_OVERFLOW"},
    {0x80000001, "EXCEPTION_GUARD_PAGE"},
    {0xC0000008, "EXCEPTION_INVALID_HANDLE"},
};

void ReplaceAll(std::string& text, std::string_view from, std::string_view to)
{
    std::string result;
    result.reserve(text.size());
    std::size_t start = 0;
    for (std::size_t at = text.find(from); at != std::string::npos; at = text.find(from, start)) {
        result.append(text, start, at - start).append(to);
        start = at + from.size();
    }
    result.append(text, start, std::string::npos);
    text = std::move(result);
}

void WriteText(int fd, std::string_view text)
{
    while (!text.empty()) {
        const ssize_t written = write(fd, text.data(), text.size());
        if (written <= 0)
            return;
        text.remove_prefix(static_cast<std::size_t>(written));
    }
}

const char* SignalName(int signal) noexcept
{
    switch (signal) {
    case SIGSEGV: return "SIGSEGV";
    case SIGBUS: return "SIGBUS";
    case SIGFPE: return "SIGFPE";
    case SIGILL: return "SIGILL";
    case 0: return "none";
    default: return "other";
    }
}

bool WriteReport(int fd, const char* name, const QelFaultRecord* fault, std::uint32_t code, bool fullMemory)
{
    char line[256];
    const auto put = [&](int length) {
        if (length > 0)
            WriteText(fd, std::string_view(line, std::min<std::size_t>(static_cast<std::size_t>(length), sizeof line - 1)));
    };
    WriteText(fd, fullMemory ? "APPLICATION HAS CRASHED - FULL MEMORY REQUESTED\n"
                             : "APPLICATION HAS CRASHED - MINI REPORT\n");
    put(std::snprintf(line, sizeof line, "Guard: %s\n", name ? name : ""));
    put(std::snprintf(line, sizeof line, "Code: 0x%08X %s\n", code, QelExceptionName(code)));
    if (fault) {
        put(std::snprintf(line, sizeof line, "Signal: %d (%s)\n", fault->Signal, SignalName(fault->Signal)));
        put(std::snprintf(line, sizeof line, "Address: %p\n", fault->Address));
    }
    put(std::snprintf(line, sizeof line, "Thread: %ld\n", static_cast<long>(syscall(SYS_gettid))));
    WriteText(fd, "Backtrace:\n");
    if (fault && fault->FrameCount > 0) {
        backtrace_symbols_fd(fault->Frames.data(), fault->FrameCount, fd);
    } else {
        std::array<void*, QelFaultRecord::kMaxFrames> frames{};
        backtrace_symbols_fd(frames.data(), backtrace(frames.data(), QelFaultRecord::kMaxFrames), fd);
    }
    return true;
}

}  // namespace

std::uint32_t QelExceptionCodeFromSignal(int signal, int siCode) noexcept
{
    switch (signal) {
    case SIGSEGV:
        return 0xC0000005;
    case SIGBUS:
        return siCode == BUS_ADRALN ? 0x80000002 : 0xC0000006;
    case SIGILL:
        return siCode == ILL_PRVOPC || siCode == ILL_PRVREG ? 0xC0000096 : 0xC000001D;
    case SIGFPE:
        switch (siCode) {
        case FPE_INTDIV: return 0xC0000094;
        case FPE_INTOVF: return 0xC0000095;
        case FPE_FLTDIV: return 0xC000008E;
        case FPE_FLTOVF: return 0xC0000091;
        case FPE_FLTUND: return 0xC0000093;
        case FPE_FLTRES: return 0xC000008F;
        case FPE_FLTSUB: return 0xC000008C;
        default: return 0xC0000090;
        }
    default:
        return 0;
    }
}

const char* QelExceptionName(std::uint32_t code) noexcept
{
    for (const CodeName& entry : kCodeNames) {
        if (entry.code == code)
            return entry.name;
    }
    return "Unknown exception";
}

std::string QelCleanDumpName(std::string text)
{
    ReplaceAll(text, "::", "-");
    ReplaceAll(text, ":", "-");
    ReplaceAll(text, ".", "-");
    return text;
}

void QelSetDumpPathPrefix(std::string prefix)
{
    CrashState& state = State();
    std::lock_guard lock(state.lock);
    state.dumpPathPrefix = std::move(prefix);
}

std::string QelGetDumpPathPrefix()
{
    CrashState& state = State();
    std::lock_guard lock(state.lock);
    return state.dumpPathPrefix;
}

std::uint32_t QelLastExceptionCode() noexcept
{
    CrashState& state = State();
    std::lock_guard lock(state.lock);
    return state.lastCode;
}

bool QelCrashReport(const char* name, const QelFaultRecord* fault, std::uint32_t code, bool fullMemory)
{
    CrashState& state = State();
    std::lock_guard lock(state.lock);
    state.lastCode = code;
    if (state.dumpPathPrefix.empty())
        return false;
    const std::string path = QelCleanDumpName(state.dumpPathPrefix) + "_" + std::to_string(state.dumpCounter) +
                             "_" + QelCleanDumpName(name ? name : "") + ".dmp";
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0)
        return false;
    const char* banner = fullMemory ? "APPLICATION HAS CRASHED - DUMPING FULL MEMORY\r\n"
                                    : "APPLICATION HAS CRASHED - DUMPING MINI DUMP\r\n";
    std::fputs(banner, stdout);
    std::fflush(stdout);
    const bool written = WriteReport(fd, name, fault, code, fullMemory);
    close(fd);
    ++state.dumpCounter;
    return written;
}
