#pragma once

#include "threaded/QelSyncObjects.h"

#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <thread>

/// A lock with a true timed wait, for where a thread must be able to give up.
/// Recursive for its owner, and it knows its owner: a Release by any other thread
/// fails and leaves the lock as it was.
class QelMutex final : public QelLockObject {
public:
    QelMutex() = default;

    [[nodiscard]] bool Wait(std::uint32_t timeoutMs) override;
    void Wait() override;
    /// False, with nothing changed, when the calling thread doesn't hold the mutex.
    bool Release() override;

private:
    [[nodiscard]] bool IsFreeFor(std::thread::id thread) const { return m_depth == 0 || m_owner == thread; }

    // The ownership is kept here rather than in a timed mutex of the library,
    // whose timed lock is a call that thread checkers don't follow.
    std::mutex m_state;
    std::condition_variable m_freed;
    std::thread::id m_owner;   // guarded by m_state; meaningful while m_depth > 0
    std::uint32_t m_depth = 0;  // guarded by m_state: the owner's Waits not yet released
};
