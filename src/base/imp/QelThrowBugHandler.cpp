#include "base/imp/QelThrowBugHandler.h"

#include "base/QelFormat.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <execinfo.h>

namespace {

// The report the calling thread is writing: heading, then text, until Flush.
struct Report {
    std::array<char, QelThrowBugHandler::kCapacity> message{};
    std::uint32_t length = 0;
    QelThrowBugHandler::e_exception_type kind = QelThrowBugHandler::e_exception_type::Trace;

    void Append(const char* text, std::size_t count) noexcept
    {
        const std::size_t taken = std::min<std::size_t>(count, message.size() - length);
        std::memcpy(message.data() + length, text, taken);
        length += static_cast<std::uint32_t>(taken);
    }
};

thread_local Report t_report;

}  // namespace

QelThrowBugHandler::QelBacktraceException::QelBacktraceException(std::string message)
    : m_message(std::move(message)), m_frames(kMaxFrames)
{
    const int count = backtrace(m_frames.data(), kMaxFrames);
    m_frames.resize(static_cast<std::size_t>(std::max(count, 0)));
}

bool QelThrowBugHandler::Arm()
{
    if (m_armed)
        throw ErrorException("Arm() object is already armed.");
    m_armed = true;
    return true;
}

void QelThrowBugHandler::Disarm()
{
    if (!m_armed)
        throw ErrorException("QelThrowBugHandler::Disarm(): object must be armed");
    m_armed = false;
}

void QelThrowBugHandler::Trace(const char* file, int line)
{
    if (!m_armed)
        throw ErrorException("QelThrowBugHandler::Trace(..): object must be armed");
    Open("QEL_TRACE in ", file, line, e_exception_type::Trace);
}

void QelThrowBugHandler::Assert(const char* file, int line)
{
    if (!m_armed)
        throw ErrorException("QelThrowBugHandler::Assert(..): object must be armed");
    Open("QEL_ASSERT in ", file, line, e_exception_type::Assert);
}

void QelThrowBugHandler::Error(const char* file, int line)
{
    if (!m_armed)
        throw ErrorException("Error() object must be armed");
    Open("QEL_ERROR in ", file, line, e_exception_type::Error);
}

void QelThrowBugHandler::Open(const char* heading, const char* file, int line, e_exception_type kind)
{
    const std::string text = heading + std::string(file ? file : "") + ", line " + std::to_string(line) + "\n";
    t_report.length = 0;
    t_report.Append(text.data(), text.size());
    t_report.kind = kind;
}

int QelThrowBugHandler::VPrintf(const char* format, std::va_list args)
{
    if (t_report.length >= kCapacity)
        return 0;
    const std::string text = QelVFormat(format, args);
    t_report.Append(text.data(), text.size());
    return static_cast<int>(text.size());
}

void QelThrowBugHandler::Flush()
{
    if (!m_armed)
        throw ErrorException("Error() object must be armed");
    std::string text(t_report.message.data(), t_report.length);
    switch (t_report.kind) {
    case e_exception_type::Assert:
        throw AssertException(std::move(text));
    case e_exception_type::Error:
        throw ErrorException(std::move(text));
    case e_exception_type::Trace:
        break;
    }
    throw TraceException(std::move(text));
}
