#pragma once

#include "base/QelNoncopyable.h"

/// The process's pool of threads for long-running work items, which the loop
/// managers queue one per thread and then wait for. So every item must start at
/// once: when no thread is idle the pool makes one, and an item never waits behind
/// another. Threads are made on first need, wait idle between items, and live as
/// long as the process: none exists before the first Queue, and none is ever
/// joined, so exit can't hang on one or tear down state one still waits on.
/// Safe from any thread.
class QelThreadPool {
public:
    QelThreadPool() = delete;

    using Callback = void (*)(void* context) noexcept;

    /// Runs `callback(context)` on a pool thread. False, with nothing queued, when
    /// no thread is idle and none can be made.
    [[nodiscard]] static bool Queue(Callback callback, void* context) noexcept;

    /// Threads made so far, busy or idle.
    [[nodiscard]] static int ThreadCount() noexcept;
    /// Threads waiting for an item.
    [[nodiscard]] static int IdleCount() noexcept;
};

/// For tests: while the object lives, the pool accepts `accepted` more items and
/// refuses the rest, as a pool that can make no thread would. Limits nest; they
/// are process-wide, so a test must not make them from two threads at once.
class QelThreadPoolLimit : QelNoncopyable {
public:
    explicit QelThreadPoolLimit(int accepted) noexcept;
    ~QelThreadPoolLimit();

private:
    int m_previous;
};
