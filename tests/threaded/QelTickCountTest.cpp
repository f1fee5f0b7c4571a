#include "threaded/QelTickCount.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <thread>

namespace {

TEST(QelTickCountTest, TickBeforeOrdersTicksTheShortWayRoundTheWrap)
{
    EXPECT_TRUE(QelTickBefore(0xFFFFFFF0u, 0x00000010u));
    EXPECT_FALSE(QelTickBefore(0x00000010u, 0xFFFFFFF0u));
    EXPECT_FALSE(QelTickBefore(0xFFFFFFFFu, 0xFFFFFFFFu));
    // The longest span still orders; farther apart, the order flips.
    EXPECT_TRUE(QelTickBefore(0u, kQelLongestTickSpanMs));
    EXPECT_FALSE(QelTickBefore(kQelLongestTickSpanMs, 0u));
    EXPECT_FALSE(QelTickBefore(0u, kQelLongestTickSpanMs + 2u));
}

TEST(QelTickCountTest, TickAdvancesWithTheSteadyClockInMilliseconds)
{
    const std::uint32_t firstTick = QelGetTickCount();
    const auto firstTime = std::chrono::steady_clock::now();
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    const std::uint32_t tickSpan = QelGetTickCount() - firstTick;
    const auto elapsed = std::chrono::steady_clock::now() - firstTime;
    // Each side truncates to whole milliseconds on its own.
    EXPECT_NEAR(tickSpan, std::chrono::duration_cast<std::chrono::milliseconds>(elapsed).count(), 2);
}

}  // namespace
