#pragma once

#include <cstdarg>
#include <memory>

/// Something that is armed while it is the installed one. The bug handlers are
/// armed and disarmed only by QelDebug::SetBugHandler.
class QelArmable {
public:
    virtual bool Arm() = 0;
    virtual void Disarm() = 0;
    [[nodiscard]] virtual bool IsArmed() const = 0;
    virtual ~QelArmable() = default;
};

/// Receives the reports of programming errors and hopeless conditions. A message is
/// opened by Trace, Assert or Error, filled by one or more Printf calls, and
/// delivered by Flush; Exit ends the operation when Flush has returned.
/// One message buffer a handler: two threads failing at once may mix their text.
class QelBugHandler : public QelArmable {
public:
    virtual void Trace(const char* file, int line) = 0;
    virtual void Assert(const char* file, int line) = 0;
    virtual void Error(const char* file, int line) = 0;
    /// Appends formatted text to the open message; returns what the handler counts.
    virtual int VPrintf(const char* format, std::va_list args) = 0;
    virtual void Flush() = 0;
    virtual void Exit() = 0;

    [[gnu::format(printf, 2, 3)]] int Printf(const char* format, ...);
};

/// Global access to the installed bug handler.
class QelDebug {
public:
    QelDebug() = delete;

    /// The installed handler; the first call with none installed makes and arms the
    /// default handler, which throws native exceptions. Safe from any thread.
    static QelBugHandler* BugHandler();

    /// Installs `handler` (armed unless null) and returns the old one, disarmed, to
    /// the caller. Takes no lock: a host installs its handler before it shares the
    /// library between threads.
    static std::unique_ptr<QelBugHandler> SetBugHandler(std::unique_ptr<QelBugHandler> handler);

    // The bodies of the three report forms. A handler that throws from Flush (all
    // of ours do) never returns from these; one that returns goes on after them.
    [[gnu::format(printf, 3, 4)]] static void ReportAssert(const char* file, int line,
                                                           const char* format, ...);
    [[gnu::format(printf, 3, 4)]] static void ReportError(const char* file, int line,
                                                          const char* format, ...);
    [[gnu::format(printf, 3, 4)]] static void ReportTrace(const char* file, int line,
                                                          const char* format, ...);
};

// The only macros of the code base: they add the place of the report and nothing else.
#define QEL_ASSERT(condition, ...) \
    ((condition) ? static_cast<void>(0) : ::QelDebug::ReportAssert(__FILE__, __LINE__, __VA_ARGS__))
#define QEL_ERROR(...) ::QelDebug::ReportError(__FILE__, __LINE__, __VA_ARGS__)
#define QEL_TRACE(...) ::QelDebug::ReportTrace(__FILE__, __LINE__, __VA_ARGS__)
