#include "threaded/QelSemaphore.h"

#include <chrono>

QelSemaphore::QelSemaphore(std::int32_t maxCount) : m_maxCount(maxCount) {}

bool QelSemaphore::Wait(std::uint32_t timeoutMs)
{
    if (timeoutMs == kQelWaitForever) {
        Wait();
        return true;
    }
    std::unique_lock lock(m_mutex);
    if (!m_placeFreed.wait_for(lock, std::chrono::milliseconds(timeoutMs), [this] { return m_count > 0; }))
        return false;
    --m_count;
    return true;
}

void QelSemaphore::Wait()
{
    std::unique_lock lock(m_mutex);
    m_placeFreed.wait(lock, [this] { return m_count > 0; });
    --m_count;
}

bool QelSemaphore::Release()
{
    return Release(1);
}

bool QelSemaphore::Release(std::int32_t count)
{
    {
        std::lock_guard lock(m_mutex);
        // Written so that nothing can overflow: 0 <= m_count <= m_maxCount here.
        if (count <= 0 || count > m_maxCount - m_count)
            return false;
        m_count += count;
    }
    if (count == 1)
        m_placeFreed.notify_one();
    else
        m_placeFreed.notify_all();
    return true;
}
