#include "threaded/QelMutex.h"

#include <chrono>

bool QelMutex::Wait(std::uint32_t timeoutMs)
{
    if (timeoutMs == kQelWaitForever) {
        Wait();
        return true;
    }
    const std::thread::id self = std::this_thread::get_id();
    std::unique_lock lock(m_state);
    if (!m_freed.wait_for(lock, std::chrono::milliseconds(timeoutMs), [&] { return IsFreeFor(self); }))
        return false;
    m_owner = self;
    ++m_depth;
    return true;
}

void QelMutex::Wait()
{
    const std::thread::id self = std::this_thread::get_id();
    std::unique_lock lock(m_state);
    m_freed.wait(lock, [&] { return IsFreeFor(self); });
    m_owner = self;
    ++m_depth;
}

bool QelMutex::Release()
{
    {
        std::lock_guard lock(m_state);
        if (m_depth == 0 || m_owner != std::this_thread::get_id())
            return false;
        if (--m_depth > 0)
            return true;
    }
    m_freed.notify_one();
    return true;
}
