#include "base/imp/QelThrowBugHandler.h"

#include "base/QelFormat.h"

#include <algorithm>
#include <cstring>
#include <execinfo.h>

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
    std::lock_guard guard(m_lock);
    Open("QEL_ASSERT in ", file, line, e_exception_type::Assert);
}

void QelThrowBugHandler::Error(const char* file, int line)
{
    if (!m_armed)
        throw ErrorException("Error() object must be armed");
    std::lock_guard guard(m_lock);
    Open("QEL_ERROR in ", file, line, e_exception_type::Error);
}

void QelThrowBugHandler::Open(const char* heading, const char* file, int line, e_exception_type kind)
{
    const std::string text = heading + std::string(file ? file : "") + ", line " + std::to_string(line) + "\n";
    m_length = 0;
    Append(text.data(), text.size());
    m_kind = kind;
}

void QelThrowBugHandler::Append(const char* text, std::size_t length) noexcept
{
    const std::size_t room = kCapacity - m_length;
    const std::size_t taken = std::min(length, room);
    std::memcpy(m_message + m_length, text, taken);
    m_length += static_cast<std::uint32_t>(taken);
}

int QelThrowBugHandler::VPrintf(const char* format, std::va_list args)
{
    if (m_length >= kCapacity)
        return 0;
    const std::string text = QelVFormat(format, args);
    Append(text.data(), text.size());
    return static_cast<int>(text.size());
}

void QelThrowBugHandler::Flush()
{
    if (!m_armed)
        throw ErrorException("Error() object must be armed");
    std::string text(m_message, m_length);
    switch (m_kind) {
    case e_exception_type::Assert:
        throw AssertException(std::move(text));
    case e_exception_type::Error:
        throw ErrorException(std::move(text));
    case e_exception_type::Trace:
        break;
    }
    throw TraceException(std::move(text));
}
