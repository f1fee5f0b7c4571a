#include "threaded/QelTickCount.h"

#include <gtest/gtest.h>

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

}  // namespace
