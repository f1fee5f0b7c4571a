#include "threaded/QelSyncEvent.h"

QelSyncEvent::QelSyncEvent(bool manualReset, bool initialState)
    : m_manualReset(manualReset), m_set(initialState)
{
}

// A waiter can't rely on seeing the event set when it wakes: a Reset, or the
// waiter before it, may have closed it again. So a Set hands its effect to the
// waiters blocked at that moment: a manual Set by a count that they compare, an
// auto Set by one pass that exactly one of them takes.
void QelSyncEvent::Wait()
{
    std::unique_lock lock(m_mutex);
    if (m_manualReset) {
        const std::uint32_t setCountAtStart = m_setCount;
        m_wake.wait(lock, [&] { return m_set || m_setCount != setCountAtStart; });
        return;
    }
    if (m_set) {
        m_set = false;
        return;
    }
    ++m_blocked;
    m_wake.wait(lock, [this] { return m_passes > 0; });
    --m_passes;
}

bool QelSyncEvent::Set()
{
    std::unique_lock lock(m_mutex);
    if (m_manualReset) {
        m_set = true;
        ++m_setCount;
        lock.unlock();
        m_wake.notify_all();
        return true;
    }
    if (m_blocked == 0) {
        m_set = true;
        return true;
    }
    --m_blocked;
    ++m_passes;
    lock.unlock();
    m_wake.notify_one();
    return true;
}

bool QelSyncEvent::Reset()
{
    std::lock_guard lock(m_mutex);
    m_set = false;
    return true;
}
