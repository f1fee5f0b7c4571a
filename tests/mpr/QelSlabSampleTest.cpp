#include "mpr/imp/QelSlabSample.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <random>

namespace {

std::uint32_t Total(const QelSlabWeights& w)
{
    std::uint32_t total = 0;
    for (std::uint16_t weight : w.W)
        total += weight;
    return total;
}

TEST(QelSlabSample, HalfFractionsGiveEveryCornerAnEighth)
{
    const QelSlabWeights w = QelSlabCornerWeights(4096, 4096, 4096);
    for (int i = 0; i < 8; ++i)
        EXPECT_EQ(w.W[i], 1024) << "corner " << i;
}

TEST(QelSlabSample, WeightsAlwaysTotal8192)
{
    std::mt19937 random(7);
    std::uniform_int_distribution<std::uint32_t> fraction(0, 8191);
    const std::uint32_t edges[] = {0, 1, 7, 8, 4095, 4096, 8184, 8191};
    for (std::uint32_t fx : edges)
        for (std::uint32_t fy : edges)
            for (std::uint32_t fz : edges)
                ASSERT_EQ(Total(QelSlabCornerWeights(fx, fy, fz)), 8192u) << fx << " " << fy << " " << fz;
    for (int i = 0; i < 100000; ++i) {
        const std::uint32_t fx = fraction(random), fy = fraction(random), fz = fraction(random);
        ASSERT_EQ(Total(QelSlabCornerWeights(fx, fy, fz)), 8192u) << fx << " " << fy << " " << fz;
    }
}

TEST(QelSlabSample, WeightsFollowTheFractions)
{
    // No fraction: all on (xi, yi) of the lower slice.
    EXPECT_EQ(QelSlabCornerWeights(0, 0, 0).W[0], 8192);
    // Each upper share is rounded down to a multiple of 8: 8192 * 8191 / 65536 = 1023.875.
    const QelSlabWeights nearUpper = QelSlabCornerWeights(0, 0, 8191);
    EXPECT_EQ(nearUpper.W[4], 8184);
    EXPECT_EQ(nearUpper.W[0], 8);
    // x alone: (xi + 1, yi) takes fx rounded down to a multiple of 8.
    const QelSlabWeights quarter = QelSlabCornerWeights(2048 + 5, 0, 0);
    EXPECT_EQ(quarter.W[1], 2048);
    EXPECT_EQ(quarter.W[0], 8192 - 2048);
}

TEST(QelSlabSample, ZFractionFollowsTheGapFactor)
{
    // A gap of 3 fixed units: 1 unit above the lower slice is a third of the way.
    EXPECT_EQ(QelSlabZFraction(65536.0f / 3.0f, 1), 21845u >> 3);
    // The widest gap has factor 1: the fraction is the 16-bit offset's top 13 bits.
    EXPECT_EQ(QelSlabZFraction(1.0f, 65535), 8191u);
    EXPECT_EQ(QelSlabZFraction(2.0f, 16384), 4096u);
    // Just below the next slice of a narrow gap the product stays below 65536.
    for (std::int32_t gap = 1; gap <= 70000; gap += gap < 100 ? 1 : 997)
        ASSERT_LE(QelSlabZFraction(65536.0f / static_cast<float>(gap), gap - 1), 8191u) << gap;
}

TEST(QelSlabSample, ValueRoundsToTheNearestAndKeepsTheScale)
{
    const QelSlabWeights half = QelSlabCornerWeights(4096, 0, 0);  // (xi, yi) and (xi + 1, yi) evenly
    // Unsigned: the value itself; 0.5 rounds up.
    EXPECT_EQ(QelSlabValue({1000, 1000, 0, 0, 0, 0, 0, 0}, half, 0x8000), 1000u);
    EXPECT_EQ(QelSlabValue({0, 1, 0, 0, 0, 0, 0, 0}, half, 0x8000), 1u);
    EXPECT_EQ(QelSlabValue({0xFFFF, 0xFFFF, 0, 0, 0, 0, 0, 0}, half, 0x8000), 0xFFFFu);
    EXPECT_EQ(QelSlabValue({0, 0, 0, 0, 0, 0, 0, 0}, half, 0x8000), 0u);
    // Signed: the value + 0x8000, so -32768 is 0 and 32767 is 0xFFFF.
    const auto s = [](std::int16_t v) { return static_cast<std::uint16_t>(v); };
    EXPECT_EQ(QelSlabValue({s(-32768), s(-32768), 0, 0, 0, 0, 0, 0}, half, 0), 0u);
    EXPECT_EQ(QelSlabValue({s(32767), s(32767), 0, 0, 0, 0, 0, 0}, half, 0), 0xFFFFu);
    EXPECT_EQ(QelSlabValue({s(-1), s(0), 0, 0, 0, 0, 0, 0}, half, 0), 0x8000u);  // -0.5 rounds up to 0
    EXPECT_EQ(QelSlabValue({s(-3), s(-3), 0, 0, 0, 0, 0, 0}, half, 0), 0x8000u - 3);
}

TEST(QelSlabSample, ExtremesCompareAsThePixelType)
{
    std::uint16_t held = 0x7FFF;  // 32767
    std::uint8_t flag = 1;
    QelSlabTakeExtreme<short, QelMip>(held, flag, 0 /* -32768 */, false, 0);
    EXPECT_EQ(held, 0x7FFF);
    QelSlabTakeExtreme<unsigned short, QelMip>(held, flag, 0x8000, false, 0);
    EXPECT_EQ(held, 0x8000);  // unsigned: 0x8000 is above 0x7FFF
    QelSlabTakeExtreme<short, QelMinip>(held, flag, 0xFFFF /* 32767 */, false, 0);
    EXPECT_EQ(held, 0x8000);  // signed: 0x8000 is -32768, nothing is lower
}

}  // namespace
