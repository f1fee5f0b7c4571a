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

constexpr double kNoLimit = std::numeric_limits<double>::max();

// Reset lowers the flag only: a clock that has run out stays run out until a new limit.
TEST(QelAborterTest, AbortAndTheClockRaiseTheFlagAndOnlyANewLimitRestartsTheClock)
{
    QelAborter aborter(false);
    EXPECT_EQ(aborter.TimeLeft(), kNoLimit);
    aborter.Abort();
    EXPECT_TRUE(aborter.HasAborted());
    aborter.Reset();
    EXPECT_FALSE(aborter.HasAborted());

    aborter.SetTimeLimit(0.010);
    std::this_thread::sleep_for(30ms);
    EXPECT_LT(aborter.TimeLeft(), 0.0);
    EXPECT_TRUE(aborter.HasAborted());
    aborter.Reset();
    EXPECT_TRUE(aborter.HasAborted());
    aborter.SetTimeLimit(60.0);
    EXPECT_FALSE(aborter.HasAborted());
}

// Past the largest span the 32-bit tick can count there is no limit; below 0 the
// limit has passed already rather than wrapping round to a long one.
TEST(QelAborterTest, LimitsAtEitherEndOfTheCountableSpan)
{
    EXPECT_EQ(QelAborter(4294967.0, false).TimeLeft(), kNoLimit);
    QelAborter longest(4294966.0, false);
    EXPECT_NEAR(longest.TimeLeft(), 4294966.0, 0.1);
    EXPECT_FALSE(longest.HasAborted());
    longest.ClearTimeLimit();
    EXPECT_EQ(longest.TimeLeft(), kNoLimit);

    const std::uint32_t before = QelGetTickCount();
    QelAborter negative(-5.0, false);
    EXPECT_LE(negative.TimeLeft(), 0.0);
    while (QelGetTickCount() == before)
        std::this_thread::sleep_for(200us);
    EXPECT_TRUE(negative.HasAborted());
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
