#include "graphics/QelThreadScopeGuard.h"

#include "graphics/QelRenderSpec.h"

#include <pthread.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cerrno>

namespace {

// PRIO_PROCESS with a thread id addresses that one thread: Linux keeps a nice value
// per thread, and the process-wide form would be getpid(), the main thread.
[[nodiscard]] bool ReadNice(int& nice) noexcept
{
    // -1 is both a valid nice value and the error return; only errno tells them apart.
    errno = 0;
    const int value = getpriority(PRIO_PROCESS, static_cast<id_t>(gettid()));
    if (value == -1 && errno != 0)
        return false;
    nice = value;
    return true;
}

[[nodiscard]] bool WriteNice(int nice) noexcept
{
    return setpriority(PRIO_PROCESS, static_cast<id_t>(gettid()), nice) == 0;
}

}  // namespace

std::int32_t QelCurrentThreadPriorityLevel() noexcept
{
    int nice = 0;
    return ReadNice(nice) ? QelPriorityLevelOfNice(nice) : 0;
}

QelThreadScopeGuard::QelThreadScopeGuard(const QelMaybe<QelThreadPriority::QelThreadPriorityEnum>& priority,
                                         const QelMaybe<std::uint32_t>& affinity,
                                         std::int32_t callerPriority) noexcept
{
    CPU_ZERO(&m_savedAffinity);
    // A change that can't be undone is not made: without the old value there is
    // nothing to restore.
    if (priority.HasValue() && ReadNice(m_savedNice)) {
        const int nice = QelNiceOfPriorityLevel(QelThreadPriority::LevelOf(priority.Value(), callerPriority));
        m_restorePriority = WriteNice(nice);
    }
    if (affinity.HasValue()
        && pthread_getaffinity_np(pthread_self(), sizeof m_savedAffinity, &m_savedAffinity) == 0) {
        cpu_set_t wanted;
        CPU_ZERO(&wanted);
        for (int cpu = 0; cpu < 32; ++cpu)
            if (affinity.Value() & (std::uint32_t{1} << cpu))
                CPU_SET(cpu, &wanted);
        m_restoreAffinity = pthread_setaffinity_np(pthread_self(), sizeof wanted, &wanted) == 0;
    }
}

QelThreadScopeGuard::QelThreadScopeGuard(const QelRenderSpec& spec) noexcept
    : QelThreadScopeGuard(spec.ThreadPriority(), spec.ThreadAffinity(), spec.CallerThreadPriority())
{
}

QelThreadScopeGuard::~QelThreadScopeGuard()
{
    // Failures are dropped: a destructor has no one to tell, and a refused restore of
    // the nice value is the documented limit above, not a fault of the render.
    if (m_restoreAffinity)
        (void)pthread_setaffinity_np(pthread_self(), sizeof m_savedAffinity, &m_savedAffinity);
    if (m_restorePriority)
        (void)WriteNice(m_savedNice);
}
