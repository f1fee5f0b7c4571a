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

// Waits until the millisecond counter has moved past `tick`.
void WaitForTickAfter(std::uint32_t tick)
{
    while (QelGetTickCount() == tick)
        std::this_thread::sleep_for(200us);
}

TEST(QelAborterTest, FlagRisesWithAbortAndFallsWithResetWithoutALimit)
{
    QelAborter aborter(false);
    EXPECT_FALSE(aborter.HasAborted());
    EXPECT_EQ(aborter.TimeLeft(), kNoLimit);
    aborter.Abort();
    EXPECT_TRUE(aborter.HasAborted());
    aborter.Reset();
    EXPECT_FALSE(aborter.HasAborted());
    EXPECT_TRUE(aborter.Valid());
    EXPECT_FALSE(aborter.HasEvent());
}

TEST(QelAborterTest, ALimitOfZeroFiresOnlyOnceTheTickHasMoved)
{
    // The test is "more than the limit has passed", so within the tick the limit
    // was set in, a zero limit hasn't fired. Look for a run where the tick stood
    // still from before the construction to after the poll.
    bool sawStillTick = false;
    for (int attempt = 0; attempt < 100 && !sawStillTick; ++attempt) {
        const std::uint32_t before = QelGetTickCount();
        QelAborter aborter(0.0, false);
        const bool aborted = aborter.HasAborted();
        if (QelGetTickCount() != before)
            continue;
        sawStillTick = true;
        EXPECT_FALSE(aborted);
        WaitForTickAfter(before);
        EXPECT_TRUE(aborter.HasAborted());
    }
    EXPECT_TRUE(sawStillTick);
}

TEST(QelAborterTest, LimitsFromTheLargestCountableSpanOnAreNoLimit)
{
    QelAborter endless(4294967.0, false);
    EXPECT_EQ(endless.TimeLeft(), kNoLimit);
    EXPECT_FALSE(endless.HasAborted());

    QelAborter longest(4294966.0, false);
    EXPECT_NEAR(longest.TimeLeft(), 4294966.0, 0.1);
    EXPECT_FALSE(longest.HasAborted());

    longest.ClearTimeLimit();
    EXPECT_EQ(longest.TimeLeft(), kNoLimit);
}

TEST(QelAborterTest, TimeLeftCountsDownAndTurnsNegativeOnceTheLimitPassed)
{
    QelAborter second(1.0, false);
    EXPECT_GT(second.TimeLeft(), 0.5);
    EXPECT_LE(second.TimeLeft(), 1.0);

    QelAborter aborter(0.010, false);
    std::this_thread::sleep_for(30ms);
    EXPECT_LT(aborter.TimeLeft(), 0.0);
    EXPECT_TRUE(aborter.HasAborted());
    // Reset lowers the flag only; the clock has still run out.
    aborter.Reset();
    EXPECT_TRUE(aborter.HasAborted());
    // A new limit starts the clock again.
    aborter.SetTimeLimit(60.0);
    EXPECT_FALSE(aborter.HasAborted());
}

TEST(QelAborterTest, ANegativeLimitHasPassedAlreadyRatherThanWrappingToALongOne)
{
    const std::uint32_t before = QelGetTickCount();
    QelAborter aborter(-5.0, false);
    EXPECT_LE(aborter.TimeLeft(), 0.0);
    WaitForTickAfter(before);
    EXPECT_TRUE(aborter.HasAborted());
}

TEST(QelAborterTest, ThePauseGateHoldsPollingThreadsUntilResume)
{
    QelAborter withoutGate(false);
    EXPECT_FALSE(withoutGate.Pause());
    EXPECT_FALSE(withoutGate.Resume());

    QelAborter aborter(true);
    ASSERT_TRUE(aborter.HasEvent());
    EXPECT_FALSE(aborter.HasAborted());  // the gate starts open
    ASSERT_TRUE(aborter.Pause());
    std::atomic<bool> polled{false};
    std::thread poller([&] {
        (void)aborter.HasAborted();
        polled = true;
    });
    std::this_thread::sleep_for(30ms);
    EXPECT_FALSE(polled);
    ASSERT_TRUE(aborter.Resume());
    poller.join();
    EXPECT_TRUE(polled);
}

TEST(QelAborterTest, AnAbortFromAnotherThreadReachesEveryPollingWorker)
{
    QelAborter aborter(false);
    std::vector<std::thread> workers;
    std::atomic<int> stopped{0};
    for (int i = 0; i < 3; ++i) {
        workers.emplace_back([&] {
            while (!aborter.HasAborted())
                std::this_thread::yield();
            ++stopped;
        });
    }
    std::this_thread::sleep_for(5ms);
    aborter.Abort();
    for (std::thread& worker : workers)
        worker.join();
    EXPECT_EQ(stopped, 3);
}

}  // namespace
