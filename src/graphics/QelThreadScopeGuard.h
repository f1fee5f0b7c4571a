#pragma once

#include "base/QelMaybe.h"
#include "graphics/QelRenderEnums.h"

#include <sched.h>

#include <algorithm>
#include <cstdint>

class QelRenderSpec;

// Thread priority levels. The render record speaks of priority levels as the
// host's threads have them: 0 normal, -1 below normal, -2 lowest, positive levels
// above normal. Under Linux's time-sharing policy a thread has no such level; the
// knob it has of its own is its nice value, which weighs its share of the
// processors. One level is kNicePerLevel nice steps: a below-normal worker should
// give way to normal work, and a single nice step (80% of the weight) would barely
// show, while five leave it a third.
//
// Lowering a thread's nice value needs CAP_SYS_NICE or an RLIMIT_NICE that allows
// it. Without either, a thread can drop to below normal but never return: see
// QelThreadScopeGuard.

inline constexpr int kNicePerLevel = 5;
inline constexpr int kHighestNice = -20;  // most urgent
inline constexpr int kLowestNice = 19;

/// The nice value of priority `level`, cut to the range Linux accepts.
[[nodiscard]] constexpr int QelNiceOfPriorityLevel(std::int32_t level) noexcept
{
    const std::int64_t nice = -std::int64_t{level} * kNicePerLevel;
    return static_cast<int>(std::clamp<std::int64_t>(nice, kHighestNice, kLowestNice));
}

/// The priority level nearest to `nice`.
[[nodiscard]] constexpr std::int32_t QelPriorityLevelOfNice(int nice) noexcept
{
    const int steps = nice >= 0 ? (nice + kNicePerLevel / 2) / kNicePerLevel
                                : -((-nice + kNicePerLevel / 2) / kNicePerLevel);
    return -steps;
}

/// The priority level of the calling thread; 0 when it can't be read.
[[nodiscard]] std::int32_t QelCurrentThreadPriorityLevel() noexcept;

/// Gives the calling thread a render's worker priority and processor affinity for
/// the life of the guard, and gives the thread back what it had when the guard ends.
/// A worker makes one on its own thread at the start of each piece of work; it must
/// end on the same thread. With neither a priority nor an affinity given, the guard
/// touches nothing.
///
/// Priority: the guard saves the thread's nice value and sets the nice value of the
/// level that QelThreadPriority::LevelOf gives. Restoring a nice value lower than the
/// one set (coming back from below normal) is refused to a thread without
/// CAP_SYS_NICE or a fitting RLIMIT_NICE; the thread then stays below normal after
/// the guard, and so does later work on it. The guard can't do better: no unprivileged
/// call lowers a nice value. Setting a level above the thread's present one is refused
/// in the same way, and then the guard leaves the priority as it is.
///
/// Affinity: bit i of the mask allows processor i, for processors 0 to 31. A mask that
/// allows no available processor is refused and leaves the affinity as it is. The
/// saved affinity comes back in full, processors above 31 included.
class QelThreadScopeGuard {
public:
    QelThreadScopeGuard(const QelMaybe<QelThreadPriority::QelThreadPriorityEnum>& priority,
                        const QelMaybe<std::uint32_t>& affinity, std::int32_t callerPriority) noexcept;
    /// The record's ThreadPriority, ThreadAffinity and CallerThreadPriority.
    explicit QelThreadScopeGuard(const QelRenderSpec& spec) noexcept;
    ~QelThreadScopeGuard();

    QelThreadScopeGuard(const QelThreadScopeGuard&) = delete;
    QelThreadScopeGuard& operator=(const QelThreadScopeGuard&) = delete;

    /// Whether the thread took the priority, and the affinity, that the guard was given.
    [[nodiscard]] bool PriorityApplied() const noexcept { return m_restorePriority; }
    [[nodiscard]] bool AffinityApplied() const noexcept { return m_restoreAffinity; }

private:
    int m_savedNice = 0;
    cpu_set_t m_savedAffinity;
    bool m_restorePriority = false;
    bool m_restoreAffinity = false;
};
