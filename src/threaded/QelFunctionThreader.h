#pragma once

#include "base/QelIntRange.h"
#include "threaded/QelMTIntLoopWkr.h"
#include "threaded/QelTPIntLoopMgr.h"

#include <memory>

/// A loop body that is a plain function of the index and the caller's argument.
using QelThreadedFunction = void (*)(int index, void* argument);

/// Runs a plain function over an integer range, on the threads of a loop manager
/// that it owns, or on the calling thread when it has none. One thread drives it.
class QelFunctionThreader final : public QelMTIntLoopWkrFactory {
public:
    /// A threader with `numThreads` threads cutting the range by `mode`: -1 (and
    /// any count on a machine where RenderThreadCount() is 1) runs every job on the
    /// calling thread, 0 takes RenderThreadCount(). Null when the manager or its
    /// workers can't be made.
    [[nodiscard]] static std::unique_ptr<QelFunctionThreader> New(int numThreads = -1,
                                                                  int mode = QelTPIntLoopMgr::kDynamic);
    ~QelFunctionThreader() override;

    /// Makes a worker that calls the current job's function.
    [[nodiscard]] std::unique_ptr<QelMTIntLoopWkr> CreateWorker() override;

    /// Calls `function(index, argument)` once for each index of `range`: on the
    /// manager's threads, or in order on the calling thread when there is no
    /// manager. True at once for a null function. The whole job stands under a
    /// fault guard: false when the function faulted, here or on a pool thread.
    [[nodiscard]] bool DoJob(QelThreadedFunction function, void* argument, const QelIntRange& range);

    /// Whether jobs run on a manager's threads.
    [[nodiscard]] bool IsThreaded() const noexcept { return m_manager != nullptr; }

    /// The share [first, last) of thread `threadIndex` of `numThreads` when the
    /// range is cut into equal consecutive parts; the last thread takes the
    /// remainder. An infinite range counts 0x7FFFFFFF indices. Fewer than one
    /// thread counts as one.
    static void SplitRange(int threadIndex, int numThreads, const QelIntRange& range, int& first, int& last) noexcept;

private:
    friend class QelFunctionThreaderWkr;

    QelFunctionThreader() = default;

    // The current job; written before a DoLoop, read by the workers during it.
    QelThreadedFunction m_function = nullptr;
    void* m_argument = nullptr;
    std::unique_ptr<QelTPIntLoopMgr> m_manager;
};

/// The worker of a QelFunctionThreader: Process calls the job's function.
class QelFunctionThreaderWkr final : public QelMTIntLoopWkr {
public:
    explicit QelFunctionThreaderWkr(const QelFunctionThreader& threader) noexcept : m_threader(threader) {}

    bool Setup() override { return true; }
    bool Process(int index, int threadIndex) override;
    bool Finish() override { return true; }

private:
    const QelFunctionThreader& m_threader;
};
