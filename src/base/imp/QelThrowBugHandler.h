#pragma once

#include "base/QelDebug.h"

#include <cstdint>
#include <exception>
#include <string>
#include <vector>

/// The default handler: it throws a native exception from Flush, with the message
/// as its text. Messages longer than the buffer are cut without an error. Each
/// thread writes its report into a buffer of its own, so workers of a parallel loop
/// that report at the same moment don't mix their texts.
class QelThrowBugHandler final : public QelBugHandler {
public:
    /// A native exception that records the stack where it was made.
    class QelBacktraceException : public std::exception {
    public:
        explicit QelBacktraceException(std::string message);
        [[nodiscard]] const char* what() const noexcept override { return m_message.c_str(); }
        /// Return addresses, innermost first, at most kMaxFrames.
        [[nodiscard]] const std::vector<void*>& Frames() const noexcept { return m_frames; }

        static constexpr int kMaxFrames = 60;

    private:
        std::string m_message;
        std::vector<void*> m_frames;
    };
    class AssertException : public QelBacktraceException {
        using QelBacktraceException::QelBacktraceException;
    };
    class ErrorException : public QelBacktraceException {
        using QelBacktraceException::QelBacktraceException;
    };
    class TraceException : public QelBacktraceException {
        using QelBacktraceException::QelBacktraceException;
    };

    enum class e_exception_type : std::uint8_t { Trace = 0, Assert = 1, Error = 2 };

    static constexpr std::uint32_t kCapacity = 2048;

    bool Arm() override;
    void Disarm() override;
    [[nodiscard]] bool IsArmed() const override { return m_armed; }
    void Trace(const char* file, int line) override;
    void Assert(const char* file, int line) override;
    void Error(const char* file, int line) override;
    int VPrintf(const char* format, std::va_list args) override;
    [[noreturn]] void Flush() override;
    void Exit() override {}

private:
    static void Open(const char* heading, const char* file, int line, e_exception_type kind);

    bool m_armed = false;
};
