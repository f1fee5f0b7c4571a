#include "graphics/QelThreadScopeGuard.h"

#include "graphics/QelRenderSpec.h"

#include <gtest/gtest.h>

#include <linux/capability.h>
#include <pthread.h>
#include <sched.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <thread>

// Every test changes threads of its own only, so the test process keeps its
// priority and affinity whatever the outcome.

namespace {

using Priority = QelMaybe<QelThreadPriority::QelThreadPriorityEnum>;
using Affinity = QelMaybe<std::uint32_t>;

constexpr int kBelowNormalNice = kNicePerLevel;

int Nice()
{
    return getpriority(PRIO_PROCESS, static_cast<id_t>(gettid()));
}

bool SetNice(int nice)
{
    return setpriority(PRIO_PROCESS, static_cast<id_t>(gettid()), nice) == 0;
}

cpu_set_t CurrentAffinity()
{
    cpu_set_t set;
    CPU_ZERO(&set);
    EXPECT_EQ(pthread_getaffinity_np(pthread_self(), sizeof set, &set), 0);
    return set;
}

bool IsCurrentAffinity(const cpu_set_t& expected)
{
    const cpu_set_t current = CurrentAffinity();
    return CPU_EQUAL(&current, &expected);
}

template <class Body>
void OnOwnThread(Body body)
{
    std::thread(body).join();
}

// Whether a thread like the calling one (same nice value, same capabilities) may
// lower its nice value to `nice`.
bool MayLowerNiceTo(int nice)
{
    bool allowed = false;
    OnOwnThread([&] { allowed = SetNice(kLowestNice) && SetNice(nice); });
    return allowed;
}

// Takes CAP_SYS_NICE from the calling thread alone, as an unprivileged process lacks it.
bool DropSysNice()
{
    __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct data[_LINUX_CAPABILITY_U32S_3] = {};
    if (syscall(SYS_capget, &header, data) != 0)
        return false;
    data[CAP_TO_INDEX(CAP_SYS_NICE)].effective &= ~CAP_TO_MASK(CAP_SYS_NICE);
    return syscall(SYS_capset, &header, data) == 0;
}

TEST(QelThreadScopeGuardTest, LevelsMapToNiceValuesWithinLinuxRange)
{
    EXPECT_EQ(QelNiceOfPriorityLevel(-15), kLowestNice);  // the host's idle level
    EXPECT_EQ(QelNiceOfPriorityLevel(15), kHighestNice);  // its time-critical level
    EXPECT_EQ(QelNiceOfPriorityLevel(INT32_MIN), kLowestNice);
    EXPECT_EQ(QelPriorityLevelOfNice(3), -1);  // the nearest level
    EXPECT_EQ(QelPriorityLevelOfNice(-2), 0);
}

// Below normal inside the scope; afterwards back where it was when the thread may
// lower its nice value, otherwise still below normal.
TEST(QelThreadScopeGuardTest, BelowNormalHoldsForTheScopeAndIsRestoredWhenPermitted)
{
    if (Nice() >= kBelowNormalNice)
        GTEST_SKIP() << "the process already runs at or below the below-normal nice value";
    for (const bool dropSysNice : {false, true}) {
        OnOwnThread([&] {
            SCOPED_TRACE(dropSysNice ? "without CAP_SYS_NICE" : "as the process runs");
            if (dropSysNice) {
                ASSERT_TRUE(DropSysNice());
            }
            const int before = Nice();
            const bool mayRestore = MayLowerNiceTo(before);
            {
                const QelThreadScopeGuard guard(Priority(static_cast<QelThreadPriority::QelThreadPriorityEnum>(5)),
                                                Affinity(), 0);
                EXPECT_TRUE(guard.PriorityApplied());
                EXPECT_EQ(Nice(), kBelowNormalNice);
            }
            EXPECT_EQ(Nice(), mayRestore ? before : kBelowNormalNice) << "may restore: " << mayRestore;
        });
    }
}

TEST(QelThreadScopeGuardTest, AffinityHoldsForTheScopeAndIsRestored)
{
    const cpu_set_t all = CurrentAffinity();
    int cpu = 0;
    while (cpu < 32 && !CPU_ISSET(cpu, &all))
        ++cpu;
    if (cpu == 32 || CPU_COUNT(&all) < 2)
        GTEST_SKIP() << "needs two processors, one of them below 32";

    OnOwnThread([&] {
        cpu_set_t one;
        CPU_ZERO(&one);
        CPU_SET(cpu, &one);
        {
            const QelThreadScopeGuard guard(Priority(), Affinity(std::uint32_t{1} << cpu), 0);
            EXPECT_TRUE(guard.AffinityApplied());
            EXPECT_TRUE(IsCurrentAffinity(one));
        }
        EXPECT_TRUE(IsCurrentAffinity(all));

        const QelThreadScopeGuard none(Priority(), Affinity(0u), 0);  // no processor: refused
        EXPECT_FALSE(none.AffinityApplied());
        EXPECT_TRUE(IsCurrentAffinity(all));
    });
}

TEST(QelThreadScopeGuardTest, EachSettingTouchesOnlyWhatItNames)
{
    OnOwnThread([&] {
        // A thread away from the defaults, so that a guard that set anything would show.
        const int raised = std::max(Nice(), 3);
        ASSERT_TRUE(SetNice(raised));
        const cpu_set_t all = CurrentAffinity();
        {
            const QelThreadScopeGuard guard(QelRenderSpec{});
            EXPECT_FALSE(guard.PriorityApplied() || guard.AffinityApplied());
            EXPECT_EQ(Nice(), raised);
        }
        {
            const QelThreadScopeGuard guard(Priority(QelThreadPriority::BelowNormal), Affinity(), 0);
            EXPECT_TRUE(IsCurrentAffinity(all));
        }
        const QelThreadScopeGuard guard(Priority(), Affinity(1u), 0);
        EXPECT_EQ(Nice(), raised);
    });
}

TEST(QelThreadScopeGuardTest, CallerPriorityTravelsFromStartDrawToTheWorkers)
{
    QelRenderSpec spec;
    OnOwnThread([&] {
        ASSERT_TRUE(SetNice(std::max(Nice(), 10)));
        spec.ThreadPriority() = QelThreadPriority::Normal;
        spec.CaptureCallerPriority();  // not asked for
        EXPECT_EQ(spec.CallerThreadPriority(), 0);
        spec.ThreadPriority() = QelThreadPriority::Caller;
        spec.CaptureCallerPriority();
        EXPECT_EQ(spec.CallerThreadPriority(), QelPriorityLevelOfNice(Nice()));
    });
    const int callerNice = QelNiceOfPriorityLevel(spec.CallerThreadPriority());
    if (Nice() > callerNice && !MayLowerNiceTo(callerNice))
        GTEST_SKIP() << "the process runs below the caller's priority and may not rise to it";
    OnOwnThread([&] {
        const QelThreadScopeGuard guard(spec);
        EXPECT_EQ(Nice(), callerNice);
    });
}

}  // namespace
