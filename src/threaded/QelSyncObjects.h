#pragma once

#include "base/QelNoncopyable.h"

#include <cstdint>

/// A timeout that never runs out: Wait(kQelWaitForever) is Wait().
inline constexpr std::uint32_t kQelWaitForever = 0xFFFFFFFF;

/// Something a thread can wait for. All sync objects may be shared between threads
/// once made; destroy one only when no thread waits for it or holds it.
class QelSyncObject : public QelNoncopyable {
public:
    virtual ~QelSyncObject();

    /// True when the object was got within `timeoutMs` milliseconds; 0 only tries.
    [[nodiscard]] virtual bool Wait(std::uint32_t timeoutMs) = 0;
    /// Blocks until the object is got.
    virtual void Wait() = 0;
};

/// A sync object that a thread holds after a successful Wait and gives back with
/// Release. Critical sections and mutexes are recursive for their owner: each
/// Wait needs its Release.
class QelLockObject : public QelSyncObject {
public:
    ~QelLockObject() override;

    /// False, with nothing changed, when there was nothing to give back: a
    /// semaphore at its maximum, or a mutex that the caller doesn't hold.
    virtual bool Release() = 0;
};

/// Holds a lock for its own lifetime: Wait in the constructor, Release in the
/// destructor. Lives on one thread's stack.
class QelAutoLock : public QelNoncopyable {
public:
    explicit QelAutoLock(QelLockObject& lock);
    ~QelAutoLock();

private:
    QelLockObject& m_lock;
};
