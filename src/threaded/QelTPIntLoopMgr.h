#pragma once

#include "base/QelIntRange.h"
#include "base/QelNoncopyable.h"
#include "threaded/QelAtomicInt.h"
#include "threaded/QelMTIntLoopWkr.h"

#include <cstdint>
#include <memory>
#include <vector>

/// Runs a loop over an integer range on the process's thread pool. Each thread of
/// the manager owns one worker from the client's factory; the workers are made once
/// and reused for every loop. DoLoop blocks the caller until all threads have
/// finished, so the pool threads work only inside a DoLoop.
///
/// Calling order: New, SetFactory, CreateWorkers, any number of DoLoop, delete.
/// One thread drives a manager; there is no lock against a second caller.
///
/// A hardware fault in a worker ends that thread's share and makes DoLoop return
/// false, with the fault's code and address in ExceptionCode and ExceptionAddress;
/// the other threads finish their shares first. A bug report (or any exception)
/// thrown by a worker is caught on its thread and thrown again from DoLoop or
/// CreateWorkers on the caller, once all threads have finished. In serial mode
/// nothing is caught: a fault reaches the guard of whoever called DoLoop.
class QelTPIntLoopMgr : QelNoncopyable {
public:
    /// How the range [min, max] is cut among n threads.
    static constexpr int kSerial = 0;       // no threads: the caller runs the range in order
    static constexpr int kDynamic = 1;      // each thread takes the next index from a shared counter
    static constexpr int kInterleaved = 2;  // thread t takes min + t, min + t + n, ...
    static constexpr int kChunked = 3;      // runs of ChunkSize dealt out in turn
    static constexpr int kSplit = 4;        // n consecutive shares; the last takes the remainder

    /// A manager of `numThreads` threads; 0 means QelSystemInfo's RenderThreadCount(),
    /// and serial mode when that is below 2; -1 means serial mode. Null when a
    /// thread could not be made.
    [[nodiscard]] static std::unique_ptr<QelTPIntLoopMgr> New(int mode, int numThreads);

    /// Deletes the workers on the calling thread.
    virtual ~QelTPIntLoopMgr();

    /// Must come first. Not owned: the factory must outlive the manager's
    /// CreateWorkers calls.
    void SetFactory(QelMTIntLoopWkrFactory* factory);
    /// Makes every thread's worker, deleting old ones: before the first DoLoop, and
    /// again after a change of the factory's state. False on failure.
    [[nodiscard]] bool CreateWorkers();
    /// Length of the runs of the chunked mode; initially 16. Below 1 counts as 1.
    void SetChunkSize(int n) noexcept { m_chunkSize = n; }
    /// Skip the workers' Setup or Finish in the following loops, for a client that
    /// runs one logical loop as several DoLoop calls.
    void SetSkipSetup(bool skip) noexcept { m_skipSetup = skip; }
    void SetSkipFinish(bool skip) noexcept { m_skipFinish = skip; }

    /// Runs Setup, the range, and Finish on every worker. True at once, with no
    /// Setup or Finish, for the empty range. False when a thread faulted or the pool
    /// refused an item.
    [[nodiscard]] bool DoLoop(const QelIntRange& range);

    /// 1 in serial mode, otherwise the threads of the manager.
    [[nodiscard]] int NumberOfThreads() const noexcept;
    /// The worker of thread i, the serial worker in serial mode; null when there is
    /// none. Clients read results out of the workers after a DoLoop.
    [[nodiscard]] QelMTIntLoopWkr* Worker(int i) const noexcept;
    [[nodiscard]] int Mode() const noexcept { return m_mode; }

    /// The fault data of the last phase: each thread's latest fault, the highest
    /// thread winning, so a thread that didn't fault this time still reports its
    /// old fault, or 0.
    [[nodiscard]] std::uint32_t ExceptionCode() const noexcept { return m_exceptionCode; }
    [[nodiscard]] const void* ExceptionAddress() const noexcept { return m_exceptionAddress; }
    /// Whether a thread of the last phase faulted or threw.
    [[nodiscard]] bool Failed() const noexcept { return m_failed; }

private:
    class WkrThread;

    // What the threads do on their next run.
    enum class Action : int { CreateWorker = 0, Setup = 1, Run = 2, Finish = 3, Exit = 4, None = 5 };

    explicit QelTPIntLoopMgr(int mode) noexcept;

    bool CreateThreads(int n);
    // Queues one run of every thread and waits for all of them.
    bool RunPhase(Action action);
    bool RunSerial(const QelIntRange& range);

    std::vector<std::unique_ptr<WkrThread>> m_threads;  // empty in serial mode
    Action m_action = Action::None;
    QelAtomicInt m_nextIndex{-1};                        // the dynamic mode's counter
    QelIntRange m_range{0, 0};
    QelMTIntLoopWkrFactory* m_factory = nullptr;
    int m_mode;
    std::unique_ptr<QelMTIntLoopWkr> m_serialWorker;
    int m_chunkSize = 16;
    bool m_skipSetup = false;
    bool m_skipFinish = false;
    std::uint32_t m_exceptionCode = 0;
    const void* m_exceptionAddress = nullptr;
    bool m_failed = false;
};
