#include "graphics/QelThreadScopeGuard.h"

#include "graphics/QelRenderSpec.h"

#include <gtest/gtest.h>

#include <pthread.h>
#include <sched.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <functional>
#include <thread>
#include <vector>

// Every test changes threads of its own only, so the process keeps its priority and affinity.
namespace {

using Priority = QelMaybe<QelThreadPriority::QelThreadPriorityEnum>;
using Affinity = QelMaybe<std::uint32_t>;

constexpr int kBelowNormalNice = kNicePerLevel;

int Nice() { return getpriority(PRIO_PROCESS, static_cast<id_t>(gettid())); }
bool SetNice(int nice) { return setpriority(PRIO_PROCESS, static_cast<id_t>(gettid()), nice) == 0; }

// The calling thread's processors.
std::vector<int> Processors()
{
    cpu_set_t set;
    CPU_ZERO(&set);
    EXPECT_EQ(pthread_getaffinity_np(pthread_self(), sizeof set, &set), 0);
    std::vector<int> cpus;
    for (int cpu = 0; cpu < CPU_SETSIZE; ++cpu)
        if (CPU_ISSET(cpu, &set))
            cpus.push_back(cpu);
    return cpus;
}

void OnOwnThread(const std::function<void()>& body) { std::thread(body).join(); }

// Whether a thread like the calling one (same nice value, same capabilities) may lower its nice value to `nice`.
bool MayLowerNiceTo(int nice)
{
    bool allowed = false;
    OnOwnThread([&] { allowed = SetNice(kLowestNice) && SetNice(nice); });
    return allowed;
}

// Afterwards back where it was when the thread may lower its nice value. Whether it
// may (CAP_SYS_NICE, RLIMIT_NICE) is the kernel's call: the guard does the same either way.
TEST(QelThreadScopeGuardTest, BelowNormalHoldsForTheScopeAndIsRestoredWhenPermitted)
{
    if (Nice() >= kBelowNormalNice)
        GTEST_SKIP() << "the process already runs at or below the below-normal nice value";
    OnOwnThread([&] {
        const int before = Nice();
        const bool mayRestore = MayLowerNiceTo(before);
        {
            const QelThreadScopeGuard guard(Priority(QelThreadPriority::BelowNormal), Affinity(), 0);
            EXPECT_TRUE(guard.PriorityApplied());
            EXPECT_EQ(Nice(), kBelowNormalNice);
        }
        EXPECT_EQ(Nice(), mayRestore ? before : kBelowNormalNice) << "may restore: " << mayRestore;
    });
}

// A setting holds for the scope and is restored; an unset one is not touched.
TEST(QelThreadScopeGuardTest, AffinityHoldsForTheScopeAndOnlyNamedSettingsChange)
{
    const std::vector<int> all = Processors();
    if (all.size() < 2 || all[0] >= 32)
        GTEST_SKIP() << "needs two processors, one of them below 32";
    OnOwnThread([&] {
        const int raised = std::max(Nice(), 3);  // away from the default, so that a change would show
        ASSERT_TRUE(SetNice(raised));
        {
            const QelThreadScopeGuard guard(Priority(), Affinity(std::uint32_t{1} << all[0]), 0);
            EXPECT_TRUE(guard.AffinityApplied());
            EXPECT_EQ(Processors(), std::vector<int>{all[0]});
            EXPECT_EQ(Nice(), raised);
        }
        EXPECT_EQ(Processors(), all);
        const QelThreadScopeGuard none(Priority(), Affinity(0u), 0);  // no processor: refused
        EXPECT_FALSE(none.AffinityApplied());
        const QelThreadScopeGuard below(Priority(QelThreadPriority::BelowNormal), Affinity(), 0);
        EXPECT_EQ(Processors(), all);
    });
}

TEST(QelThreadScopeGuardTest, CallerPriorityTravelsFromStartDrawToTheWorkers)
{
    EXPECT_EQ(QelNiceOfPriorityLevel(15), kHighestNice);
    EXPECT_EQ(QelNiceOfPriorityLevel(INT32_MIN), kLowestNice);
    EXPECT_EQ(QelPriorityLevelOfNice(3), -1);  // the nearest level
    QelRenderSpec spec;
    OnOwnThread([&] {
        ASSERT_TRUE(SetNice(std::max(Nice(), 10)));
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
