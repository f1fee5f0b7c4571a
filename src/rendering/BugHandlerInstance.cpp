#include "BugHandlerInstance.h"

#include "ax/rendering/BugHandler.h"
#include "ax/rendering/RenderingException.h"

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>

namespace Ax::Rendering {

namespace {

bool DebuggerAttached()
{
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);) {
        if (line.rfind("TracerPid:", 0) == 0)
            return std::strtol(line.c_str() + 10, nullptr, 10) != 0;
    }
    return false;
}

}  // namespace

void RaiseManagedException(const char* text)
{
    throw RenderingException(text ? text : "");
}

void ManagedBreakInDebuggerOrExit()
{
    if (DebuggerAttached()) {
        std::raise(SIGTRAP);
        return;
    }
    std::exit(1);
}

BugHandlerInstance::BugHandlerInstance() : m_buffer(std::make_unique<std::array<char, kBufferSize>>()) {}

bool BugHandlerInstance::Arm()
{
    if (m_armed || m_messageOpen)
        RaiseManagedException("Unexpected call to Arm");
    m_armed = true;
    return true;
}

void BugHandlerInstance::Disarm()
{
    if (!m_armed || m_messageOpen)
        RaiseManagedException("Unexpected call to Disarm");
    m_armed = false;
}

void BugHandlerInstance::Open(const char* misuseText, const char* file, int line, const char* heading)
{
    if (!m_armed || m_messageOpen)
        RaiseManagedException(misuseText);
    m_messageOpen = true;
    m_buffer->fill('\0');
    m_length = 0;
    Printf(heading, file ? file : "", line);
}

void BugHandlerInstance::Trace(const char* file, int line)
{
    Open("Unexpected call to Trace", file, line, "%s: %d: Trace information.\n");
}

void BugHandlerInstance::Assert(const char* file, int line)
{
    Open("Unexpected call to Assert", file, line, "%s: %d: Assertation failed.\n");
}

void BugHandlerInstance::Error(const char* file, int line)
{
    Open("Unexpected call to Error", file, line, "%s: %d: Runtime error.\n");
}

int BugHandlerInstance::VPrintf(const char* format, std::va_list args)
{
    if (!m_armed || !m_messageOpen)
        RaiseManagedException("Unexpected call to Printf");
    std::va_list measure;
    va_copy(measure, args);
    const int formatted = std::vsnprintf(nullptr, 0, format, measure);
    va_end(measure);
    const std::int64_t needed = std::int64_t{formatted < 0 ? 0 : formatted} + 1;
    if (m_length + needed > kBufferSize)
        RaiseManagedException("Insufficient space in the message buffer!");
    std::vsnprintf(m_buffer->data() + m_length, static_cast<std::size_t>(needed), format, args);
    m_length += static_cast<std::int32_t>(needed - 1);
    return static_cast<int>(needed);
}

void BugHandlerInstance::Flush()
{
    if (!m_armed || !m_messageOpen)
        RaiseManagedException("Unexpected call to Flush");
    m_messageOpen = false;
    RaiseManagedException(std::string(m_buffer->data(), static_cast<std::size_t>(m_length)).c_str());
}

void BugHandlerInstance::Exit()
{
    ManagedBreakInDebuggerOrExit();
}

void BugHandler::SetManagedBugHandler()
{
    // The old handler comes back disarmed and is deleted here.
    QelDebug::SetBugHandler(std::make_unique<BugHandlerInstance>());
}

}  // namespace Ax::Rendering
