#pragma once

#include "threaded/QelContinuation.h"
#include "threaded/QelSyncEvent.h"
#include "threaded/QelTPIntLoopMgr.h"

#include <atomic>
#include <cstdint>
#include <exception>
#include <memory>
#include <mutex>
#include <utility>

/// One thread of a manager: a closure that the pool runs once per phase, acting on
/// the manager's current action with the thread's own worker. Its fields are
/// written by the pool thread during a run and read by the manager after Done.
class QelTPIntLoopMgr::WkrThread final : public QelClosure {
public:
    WkrThread(QelTPIntLoopMgr* manager, int index);
    /// Waits for a run still under way unless the worker has been deleted.
    ~WkrThread() override;

    WkrThread(const WkrThread&) = delete;
    WkrThread& operator=(const WkrThread&) = delete;

    /// One run under the fault guard; signals Done at its end, fault or not.
    bool Go() override;

    /// The pool's entry.
    static void RunQueued(void* context) noexcept;

    /// Waits for the end of a queued run.
    void WaitDone();

    [[nodiscard]] std::uint32_t ExceptionCode() const noexcept { return m_exceptionCode; }
    [[nodiscard]] const void* ExceptionAddress() const noexcept { return m_exceptionAddress; }
    [[nodiscard]] bool Failed() const noexcept { return m_failed; }
    /// The exception the last run threw, taken away.
    [[nodiscard]] std::exception_ptr TakeThrown() noexcept { return std::exchange(m_thrown, nullptr); }
    [[nodiscard]] QelMTIntLoopWkr* Worker() const noexcept { return m_worker.get(); }

private:
    void Act();
    void MakeWorker();
    bool HasWorker();
    void RunShare();
    void SignalDone();

    QelTPIntLoopMgr* m_manager;
    int m_index;
    std::uint32_t m_exceptionCode = 0;  // of this thread's latest fault
    const void* m_exceptionAddress = nullptr;
    bool m_failed = false;
    bool m_exited = false;
    std::exception_ptr m_thrown;
    QelSyncEvent m_done{false, false};  // auto-reset
    std::atomic<bool> m_ending{false};  // set just before Done, for a waiter watching before it blocks
    // Held while Done is set. The waiter can wake while Set is still under way on
    // the pool thread; taking this lock before the thread is destroyed waits that out.
    std::mutex m_signalling;
    std::unique_ptr<QelMTIntLoopWkr> m_worker;
};
