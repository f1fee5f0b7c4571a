#include "base/QelDebug.h"

#include "base/imp/QelThrowBugHandler.h"

#include <atomic>
#include <mutex>
#include <new>

namespace {

constinit std::atomic<QelBugHandler*> s_handler{nullptr};
constinit std::mutex s_creationLock;

// Deletes whatever handler is installed when the process ends.
struct HandlerOwner {
    ~HandlerOwner() { delete s_handler.exchange(nullptr); }
} s_handlerOwner;

// va_end must run even when the handler throws out of VPrintf.
class VaListGuard {
public:
    explicit VaListGuard(std::va_list& args) noexcept : m_args(args) {}
    ~VaListGuard() { va_end(m_args); }
    VaListGuard(const VaListGuard&) = delete;
    VaListGuard& operator=(const VaListGuard&) = delete;

private:
    std::va_list& m_args;
};

// One message: open, text, deliver, and for the two severe forms, end the operation.
void Deliver(void (QelBugHandler::*open)(const char*, int), bool thenExit, const char* file,
             int line, const char* format, std::va_list args)
{
    QelBugHandler* handler = QelDebug::BugHandler();
    (handler->*open)(file, line);
    handler->VPrintf(format, args);
    handler->Flush();
    if (thenExit)
        handler->Exit();
}

}  // namespace

int QelBugHandler::Printf(const char* format, ...)
{
    std::va_list args;
    va_start(args, format);
    VaListGuard guard(args);
    return VPrintf(format, args);
}

QelBugHandler* QelDebug::BugHandler()
{
    if (QelBugHandler* handler = s_handler.load(std::memory_order_acquire))
        return handler;
    std::lock_guard lock(s_creationLock);
    if (QelBugHandler* handler = s_handler.load(std::memory_order_acquire))
        return handler;
    std::unique_ptr<QelBugHandler> created(new (std::nothrow) QelThrowBugHandler);
    if (!created)
        throw QelThrowBugHandler::ErrorException("Could not create QelThrowHandler");
    created->Arm();
    s_handler.store(created.get(), std::memory_order_release);
    return created.release();
}

std::unique_ptr<QelBugHandler> QelDebug::SetBugHandler(std::unique_ptr<QelBugHandler> handler)
{
    std::unique_ptr<QelBugHandler> old(s_handler.load(std::memory_order_acquire));
    if (old)
        old->Disarm();
    s_handler.store(handler.get(), std::memory_order_release);
    if (handler)
        handler->Arm();
    handler.release();
    return old;
}

void QelDebug::ReportAssert(const char* file, int line, const char* format, ...)
{
    std::va_list args;
    va_start(args, format);
    VaListGuard guard(args);
    Deliver(&QelBugHandler::Assert, true, file, line, format, args);
}

void QelDebug::ReportError(const char* file, int line, const char* format, ...)
{
    std::va_list args;
    va_start(args, format);
    VaListGuard guard(args);
    Deliver(&QelBugHandler::Error, true, file, line, format, args);
}

void QelDebug::ReportTrace(const char* file, int line, const char* format, ...)
{
    std::va_list args;
    va_start(args, format);
    VaListGuard guard(args);
    Deliver(&QelBugHandler::Trace, false, file, line, format, args);
}
