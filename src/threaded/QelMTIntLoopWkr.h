#pragma once

#include <memory>

/// One thread's part of a parallel integer loop (see QelTPIntLoopMgr): each thread
/// of a manager owns one worker, which keeps its scratch state so that Process
/// needs no lock. A worker is called by one thread at a time, though not always
/// the same one, so per-thread state belongs in the worker, never in thread-local
/// storage. The results stop nothing: the loop runs to its end whatever they are,
/// and a worker that fails keeps the failure in its own state for its client.
class QelMTIntLoopWkr {
public:
    virtual ~QelMTIntLoopWkr() = default;

    /// Once per loop, before this worker's first index.
    virtual bool Setup() = 0;
    /// Once for each index of this worker's share. `threadIndex` is the thread's
    /// number in the manager, 0 to NumberOfThreads() - 1, and 0 in serial mode.
    virtual bool Process(int index, int threadIndex) = 0;
    /// Once per loop, after this worker's last index.
    virtual bool Finish() = 0;

protected:
    QelMTIntLoopWkr() = default;
    QelMTIntLoopWkr(const QelMTIntLoopWkr&) = default;
    QelMTIntLoopWkr& operator=(const QelMTIntLoopWkr&) = default;
};

/// Makes the workers of a loop manager. In the threaded modes every thread of the
/// manager calls CreateWorker at the same time, so it must be safe to call from
/// several threads at once.
class QelMTIntLoopWkrFactory {
public:
    virtual ~QelMTIntLoopWkrFactory() = default;

    /// A new worker, or null when none can be made.
    [[nodiscard]] virtual std::unique_ptr<QelMTIntLoopWkr> CreateWorker() = 0;

protected:
    QelMTIntLoopWkrFactory() = default;
    QelMTIntLoopWkrFactory(const QelMTIntLoopWkrFactory&) = default;
    QelMTIntLoopWkrFactory& operator=(const QelMTIntLoopWkrFactory&) = default;
};
