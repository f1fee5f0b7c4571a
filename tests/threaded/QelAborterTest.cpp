#include "threaded/QelAborter.h"

#include "threaded/QelTickCount.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <limits>
#include <thread>
#include <vector>

namespace {

using namespace std::chrono_literals;

// Reset lowers the flag only: a clock that has run out stays run out until a new
// limit. A limit below 0 has run out already rather than wrapping round to a long
// one; past the largest span the 32-bit tick can count there is no limit.
TEST(QelAborterTest, AbortAndTheClockRaiseTheFlagAndOnlyANewLimitRestartsTheClock)
{
    QelAborter aborter(false);
    aborter.Abort();
    EXPECT_TRUE(aborter.HasAborted());
    aborter.Reset();
    EXPECT_FALSE(aborter.HasAborted());

    const std::uint32_t before = QelGetTickCount();
    aborter.SetTimeLimit(-5.0);
    EXPECT_LE(aborter.TimeLeft(), 0.0);
    while (QelGetTickCount() == before)
        std::this_thread::sleep_for(200us);
    EXPECT_TRUE(aborter.HasAborted());
    aborter.Reset();
    EXPECT_TRUE(aborter.HasAborted());
    aborter.SetTimeLimit(4294966.0);
    EXPECT_NEAR(aborter.TimeLeft(), 4294966.0, 0.1);
    EXPECT_FALSE(aborter.HasAborted());
    aborter.SetTimeLimit(4294967.0);
    EXPECT_EQ(aborter.TimeLeft(), std::numeric_limits<double>::max());
}

// Workers poll from threads of their own: the pause gate holds them all, and an
// Abort from elsewhere reaches every one.
TEST(QelAborterTest, PollingWorkersWaitAtThePauseGateAndAllSeeAnAbort)
{
    EXPECT_FALSE(QelAborter(false).Pause());
    QelAborter aborter(true);
    EXPECT_FALSE(aborter.HasAborted());  // the gate starts open
    ASSERT_TRUE(aborter.Pause());
    std::atomic<int> polls{0};
    std::vector<std::jthread> workers;
    for (int i = 0; i < 3; ++i)
        workers.emplace_back([&] {
            while (!aborter.HasAborted())
                ++polls;
        });
    std::this_thread::sleep_for(30ms);
    EXPECT_EQ(polls, 0);
    ASSERT_TRUE(aborter.Resume());
    std::this_thread::sleep_for(5ms);
    aborter.Abort();
    workers.clear();
    EXPECT_GT(polls, 0);
}

// The tick wraps every 49.7 days; the longest span still orders, farther apart the order flips.
TEST(QelTickCountTest, TickBeforeOrdersTicksTheShortWayRoundTheWrap)
{
    EXPECT_TRUE(QelTickBefore(0xFFFFFFF0u, 0x00000010u));
    EXPECT_FALSE(QelTickBefore(0x00000010u, 0xFFFFFFF0u) || QelTickBefore(0xFFFFFFFFu, 0xFFFFFFFFu));
    EXPECT_TRUE(QelTickBefore(0u, kQelLongestTickSpanMs));
    EXPECT_FALSE(QelTickBefore(0u, kQelLongestTickSpanMs + 2u));
}

}  // namespace
