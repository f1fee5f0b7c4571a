#pragma once

#include "threaded/QelSyncObjects.h"

#include <condition_variable>
#include <cstdint>
#include <mutex>

/// A counter of free places, from 0 up to a maximum: Wait takes a place, blocking
/// while there is none, and Release puts places back. Unlike a lock it has no
/// owner, so one thread may wait and another release. It starts with no place free.
class QelSemaphore final : public QelLockObject {
public:
    /// A semaphore with no place free that holds at most `maxCount`; with a
    /// maximum of 0 or less, no Release ever succeeds.
    explicit QelSemaphore(std::int32_t maxCount);

    [[nodiscard]] bool Wait(std::uint32_t timeoutMs) override;
    void Wait() override;
    /// Release(1).
    bool Release() override;
    /// Puts `count` places back and wakes as many waiters. False, with nothing
    /// changed, when `count` isn't positive or would take the count past the maximum.
    bool Release(std::int32_t count);

private:
    const std::int32_t m_maxCount;
    std::int32_t m_count = 0;  // guarded by m_mutex
    std::mutex m_mutex;
    std::condition_variable m_placeFreed;
};
