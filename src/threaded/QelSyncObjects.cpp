#include "threaded/QelSyncObjects.h"

QelSyncObject::~QelSyncObject() = default;

QelLockObject::~QelLockObject() = default;

QelAutoLock::QelAutoLock(QelLockObject& lock) : m_lock(lock)
{
    m_lock.Wait();
}

QelAutoLock::~QelAutoLock()
{
    m_lock.Release();
}
