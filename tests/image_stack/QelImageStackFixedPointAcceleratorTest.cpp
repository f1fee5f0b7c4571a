#include "image_stack/QelImageStackFixedPointAccelerator.h"

#include "image_stack/TestSlices.h"
#include "support/AssertionText.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <random>
#include <tuple>
#include <vector>

namespace {

using Accelerator = QelImageStackFixedPointAccelerator;
using Fixed = std::vector<std::int32_t>;

std::unique_ptr<Accelerator> FromZ(const std::vector<float>& z)
{
    auto array = QelArray<float>::New(static_cast<int>(z.size()), 0.0f, nullptr);
    std::copy(z.begin(), z.end(), array->Data());
    return Accelerator::New(*array);
}

Fixed FixedZOf(const Accelerator& accelerator)
{
    Fixed fixed;
    for (std::int32_t i = 0; i < accelerator.Count(); ++i)
        fixed.push_back(accelerator.Record(i).FixedZ);
    return fixed;
}

TEST(QelImageStackFixedPointAcceleratorTest, TheLargestGapIs65536AndTheFirstSliceLiesAtZero)
{
    struct Case {
        std::vector<float> z;
        double scale;
        Fixed fixed;
        std::uint32_t firstReciprocal;
    };
    const Case cases[] = {
        {{0.0f, 1.0f}, 65536.0, {0, 65536}, 65536u},
        {{0.0f, 1.0f, 3.0f}, 32768.0, {0, 32768, 98304}, 131072u},
        {{100.0f, 101.0f}, 65536.0, {0, 65536}, 65536u},
        // 2^-16 apart is one fixed unit when the largest gap is 1, 2^-20 rounds to none:
        // both clamp the reciprocal instead of dividing by zero.
        {{0.0f, 0x1p-16f, 1.0f + 0x1p-16f}, 65536.0, {0, 1, 65537}, 4294967295u},
        {{0.0f, 0x1p-20f, 1.0f}, 65536.0 / (1.0 - 0x1p-20), {0, 0, 65536}, 4294967295u},
        {{7.5f}, 65536.0, {0}, 0u},  // one slice has no gap
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(::testing::PrintToString(c.z));
        const auto accelerator = FromZ(c.z);
        EXPECT_EQ(accelerator->Scale(), c.scale);
        EXPECT_EQ(FixedZOf(*accelerator), c.fixed);
        EXPECT_EQ(accelerator->LastFixedZ(), c.fixed.back());
        EXPECT_EQ(accelerator->Record(0).GapReciprocal, c.firstReciprocal);
        // The last record has no gap above it.
        EXPECT_EQ(accelerator->Record(accelerator->LastIndex()).GapReciprocal, 0u);
        EXPECT_EQ(accelerator->Record(accelerator->LastIndex()).ZToByteScale, 0.0f);
    }
    EXPECT_EQ(FromZ({0.0f, 1.0f})->Record(0).ZToByteScale, 16383.0f);
    // Moving a record works the scale and every record out again.
    const auto moved = FromZ({0.0f, 1.0f, 2.0f});
    moved->UpdateRecord(2, nullptr, 3.0f);
    EXPECT_EQ(FixedZOf(*moved), (Fixed{0, 32768, 98304}));
    // Positions are unrounded and may lie below the first slice.
    const auto far = FromZ({100.0f, 101.0f});
    EXPECT_EQ(far->ToFixed(100.25), 16384.0);
    EXPECT_EQ(far->ToFixed(99.5), -32768.0);
}

// The stack's limit of 16384 slices exists for this bound: however the slices are
// spaced, none lies above 2^30, because no gap exceeds 65536.
TEST(QelImageStackFixedPointAcceleratorTest, SixteenThousandSlicesStayWithinTwoToTheThirtyAndWhatDoesNotFitIsReported)
{
    std::mt19937 random(12345);
    std::uniform_real_distribution<float> gap(0.01f, 3.0f);
    std::vector<float> z(16384, -20000.0f);
    for (std::size_t i = 1; i < z.size(); ++i)
        z[i] = z[i - 1] + gap(random);
    const auto uneven = FromZ(z);
    EXPECT_LE(uneven->LastFixedZ(), 1 << 30);
    for (std::int32_t i = 0; i < uneven->LastIndex(); ++i)
        ASSERT_LE(uneven->Record(i + 1).FixedZ - uneven->Record(i).FixedZ, 65536) << i;

    // Evenly spaced, 16385 slices end exactly on the bound and one more goes past it.
    EXPECT_EQ(Accelerator::New(0.0f, 16385.0f, 16385)->LastFixedZ(), 1 << 30);
    EXPECT_EQ(AssertionText([] { (void)Accelerator::New(0.0f, 16386.0f, 16386); }),
              "Math error (max_z = 1073807360.000000)\n");
    // (last - first) / count: the records stop one step short of the last z.
    const auto even = Accelerator::New(0.0f, 8.0f, 4);
    EXPECT_EQ(even->Record(3).Z, 6.0f);
    EXPECT_EQ(even->Scale(), 32768.0);
    EXPECT_EQ(Accelerator::New(5.0f, 9.0f, 1)->Scale(), 65536.0);
    EXPECT_EQ(AssertionText([] { (void)Accelerator::New(0.0f, 1.0f, 0); }),
              "The image stack must have at least one image !\n");
    for (std::int32_t index : {4, -1})
        EXPECT_EQ(AssertionText([&] { even->UpdateRecord(index, nullptr, 7.0f); }),
                  "UpdateRecord (incorrect index)\n");
}

class FixedPointLookupTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        for (std::int32_t i = 0; i < 4; ++i)
            m_accelerator->UpdateRecord(i, &m_slices[i]);
    }
    const std::uint8_t* Origin(std::int32_t i) const { return i < 0 ? nullptr : m_slices[i].OriginAddress(); }

    // Index, lower and upper fixed z.
    std::tuple<int, int, int> FindPair(std::int32_t fixedZ, std::int32_t index) const
    {
        std::int32_t upper = -7, lower = -7;
        m_accelerator->FindPair(fixedZ, index, upper, lower);
        return {index, lower, upper};
    }
    using Slices = std::tuple<int, const std::uint8_t*, int, const std::uint8_t*, int, int>;
    // Index, lower origin and fixed z, upper origin and fixed z, and the hint after.
    static Slices FindSlices(const Accelerator& accelerator, std::int32_t fixedZ, std::int32_t hint)
    {
        std::int32_t index = 0, upperFixed = 0, lowerFixed = 0;
        const std::uint8_t *upper = nullptr, *lower = nullptr;
        accelerator.FindSlices(fixedZ, hint, index, upper, upperFixed, lower, lowerFixed);
        return {index, lower, lowerFixed, upper, upperFixed, hint};
    }

    TestSlice m_slices[4] = {{2, 2}, {2, 2}, {2, 2}, {2, 2}};
    std::unique_ptr<Accelerator> m_accelerator = FromZ({0.0f, 2.0f, 3.0f, 4.0f});
};

TEST_F(FixedPointLookupTest, FindPairWalksFromTheHintAndFindsNoPairOutsideTheSlices)
{
    using Pair = std::tuple<int, int, int>;
    EXPECT_EQ(FindPair(70000, 0), Pair(1, 65536, 98304));
    // Walking down onto a slice gives the gap above it; the hint's own slice is a pair of one.
    EXPECT_EQ(FindPair(65536, 2), Pair(1, 65536, 98304));
    EXPECT_EQ(FindPair(98304, 2), Pair(2, 98304, 98304));
    // A hint past either end starts from the first slice.
    EXPECT_EQ(FindPair(100000, 4), Pair(2, 98304, 131072));
    EXPECT_EQ(FindPair(0, -1), Pair(0, 0, 0));
    // Below the first slice, and the last slice reached by walking, are no pair.
    for (auto [fixedZ, hint] : {std::pair{-1, 2}, {131072, 0}, {200000, 1}})
        EXPECT_EQ(std::get<0>(FindPair(fixedZ, hint)), -1) << fixedZ;
}

TEST_F(FixedPointLookupTest, FindSlicesGivesTheGapOrTheNearestSliceAndLeavesTheHintThere)
{
    const Accelerator& four = *m_accelerator;
    EXPECT_EQ(FindSlices(four, -5, 2), Slices(-1, nullptr, -1, Origin(0), 0, 0));
    for (std::int32_t hint : {0, 2, -7, 99})
        EXPECT_EQ(FindSlices(four, 100000, hint), Slices(2, Origin(2), 98304, Origin(3), 131072, 2)) << hint;
    EXPECT_EQ(FindSlices(four, 65536, 0), Slices(1, Origin(1), 65536, Origin(2), 98304, 1));
    EXPECT_EQ(FindSlices(four, 131072, 0), Slices(-1, Origin(3), 131072, Origin(3), 131072, 2));
    EXPECT_EQ(FindSlices(four, 131073, 1), Slices(-1, Origin(3), 131072, nullptr, -1, 2));
    // One slice: below it, it is the upper one; on it, the lower one only.
    const auto one = FromZ({7.5f});
    one->UpdateRecord(0, &m_slices[0]);
    EXPECT_EQ(FindSlices(*one, -1, 5), Slices(-1, nullptr, -1, Origin(0), 0, 0));
    EXPECT_EQ(FindSlices(*one, 0, 5), Slices(-1, Origin(0), 0, nullptr, -1, 0));
}

TEST_F(FixedPointLookupTest, FindIndicesAgreesWithFindSlices)
{
    for (std::int32_t fixedZ = -70000; fixedZ <= 200000; fixedZ += 4099) {
        for (std::int32_t hint : {0, 1, 2}) {
            std::int32_t indicesHint = hint, upperIndex = 0, lowerIndex = 0;
            m_accelerator->FindIndices(fixedZ, indicesHint, upperIndex, lowerIndex);
            const Slices slices = FindSlices(*m_accelerator, fixedZ, hint);
            EXPECT_EQ(Origin(lowerIndex), std::get<1>(slices)) << fixedZ;
            EXPECT_EQ(Origin(upperIndex), std::get<3>(slices)) << fixedZ;
            EXPECT_EQ(indicesHint, std::get<5>(slices)) << fixedZ;
        }
    }
    // An empty gap holds nothing: fixed z 0 lies in the gap above it.
    std::int32_t hint = 0, upper = 0, lower = 0;
    FromZ({0.0f, 0x1p-20f, 1.0f})->FindIndices(0, hint, upper, lower);
    EXPECT_EQ(lower, 1);
    EXPECT_EQ(upper, 2);
}

}  // namespace
