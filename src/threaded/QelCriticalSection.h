#pragma once

#include "threaded/QelSyncObjects.h"

#include <cstdint>
#include <mutex>

/// The cheap lock for short stretches of code, such as the lazy building of a
/// table. Recursive for its owner. It has no timed wait of its own: Wait(timeout)
/// polls, yielding the processor between tries.
class QelCriticalSection final : public QelLockObject {
public:
    QelCriticalSection() = default;

    /// Tries at least once, and again until the timeout has passed; Wait(0) tries once.
    [[nodiscard]] bool Wait(std::uint32_t timeoutMs) override;
    void Wait() override;
    /// Only the owner may release. Always true.
    bool Release() override;

private:
    std::recursive_mutex m_section;
};

/// Holds a critical section for its own lifetime. Lives on one thread's stack.
class QelAutoLockCriticalSection : public QelNoncopyable {
public:
    explicit QelAutoLockCriticalSection(QelCriticalSection& lock);
    ~QelAutoLockCriticalSection();

private:
    QelCriticalSection& m_lock;
};
