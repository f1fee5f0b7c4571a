#pragma once

#include "base/QelNoncopyable.h"

#include <condition_variable>
#include <cstdint>
#include <mutex>

/// A gate that threads wait at until it is set. A manual-reset event stays set,
/// letting every waiter through, until Reset; an auto-reset event lets exactly one
/// waiter through per Set and closes behind it. A Set reaches the threads that
/// wait at that moment even when a Reset or another Set follows at once.
/// Safe from any thread; destroy it only when no thread waits at it.
class QelSyncEvent : public QelNoncopyable {
public:
    QelSyncEvent(bool manualReset, bool initialState);

    /// Blocks without limit until the event is set.
    void Wait();
    /// Always true: nothing here can fail to be made.
    bool Set();
    bool Reset();
    [[nodiscard]] bool IsValid() const noexcept { return true; }

private:
    const bool m_manualReset;
    // All guarded by m_mutex.
    bool m_set;
    std::uint32_t m_setCount = 0;  // manual reset: Sets so far, to tell waiters who came before one
    std::uint32_t m_blocked = 0;   // auto reset: waiters that no Set has let through yet
    std::uint32_t m_passes = 0;    // auto reset: waiters let through that haven't woken yet
    std::mutex m_mutex;
    std::condition_variable m_wake;
};
