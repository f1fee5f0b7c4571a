#include "threaded/QelCriticalSection.h"

#include "threaded/QelTickCount.h"

#include <algorithm>
#include <thread>

bool QelCriticalSection::Wait(std::uint32_t timeoutMs)
{
    if (timeoutMs == kQelWaitForever) {
        Wait();
        return true;
    }
    // Past the longest span the tick comparison would see the end as already gone.
    const std::uint32_t end = QelGetTickCount() + std::min(timeoutMs, kQelLongestTickSpanMs);
    for (;;) {
        if (m_section.try_lock())
            return true;
        if (!QelTickBefore(QelGetTickCount(), end))
            return false;
        // Give the holder a chance to run and leave the section.
        std::this_thread::yield();
    }
}

void QelCriticalSection::Wait()
{
    m_section.lock();
}

bool QelCriticalSection::Release()
{
    m_section.unlock();
    return true;
}

QelAutoLockCriticalSection::QelAutoLockCriticalSection(QelCriticalSection& lock) : m_lock(lock)
{
    m_lock.Wait();
}

QelAutoLockCriticalSection::~QelAutoLockCriticalSection()
{
    m_lock.Release();
}
