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
    // z, scale, fixed z, first gap's reciprocal
    const std::tuple<std::vector<float>, double, Fixed, std::uint32_t> cases[] = {
        {{0.0f, 1.0f}, 65536.0, {0, 65536}, 65536u},
        {{0.0f, 1.0f, 3.0f}, 32768.0, {0, 32768, 98304}, 131072u},
        // 2^-16 apart is one fixed unit when the largest gap is 1, 2^-20 rounds to none:
        // both clamp the reciprocal instead of dividing by zero.
        {{0.0f, 0x1p-16f, 1.0f + 0x1p-16f}, 65536.0, {0, 1, 65537}, 4294967295u},
        {{0.0f, 0x1p-20f, 1.0f}, 65536.0 / (1.0 - 0x1p-20), {0, 0, 65536}, 4294967295u},
        {{7.5f}, 65536.0, {0}, 0u},  // one slice has no gap
    };
    for (const auto& [z, scale, fixed, reciprocal] : cases) {
        SCOPED_TRACE(::testing::PrintToString(z));
        const auto accelerator = FromZ(z);
        EXPECT_EQ(accelerator->Scale(), scale);
        EXPECT_EQ(FixedZOf(*accelerator), fixed);
        EXPECT_EQ(accelerator->Record(0).GapReciprocal, reciprocal);
        EXPECT_EQ(accelerator->Record(accelerator->LastIndex()).ZToByteScale, 0.0f);  // no gap above the last
    }
    EXPECT_EQ(FromZ({0.0f, 1.0f})->Record(0).ZToByteScale, 16383.0f);
    // Moving a record works the scale and every record out again.
    const auto moved = FromZ({0.0f, 1.0f, 2.0f});
    moved->UpdateRecord(2, nullptr, 3.0f);
    EXPECT_EQ(FixedZOf(*moved), (Fixed{0, 32768, 98304}));
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
    EXPECT_EQ(AssertionText([] { (void)Accelerator::New(0.0f, 1.0f, 0); }),
              "The image stack must have at least one image !\n");
    for (std::int32_t index : {4, -1})
        EXPECT_EQ(AssertionText([&] { even->UpdateRecord(index, nullptr, 7.0f); }),
                  "UpdateRecord (incorrect index)\n");
}

// Index, lower origin and fixed z, upper origin and fixed z, and the hint after.
using Slices = std::tuple<int, const std::uint8_t*, int, const std::uint8_t*, int, int>;
Slices FindSlices(const Accelerator& accelerator, std::int32_t fixedZ, std::int32_t hint)
{
    std::int32_t index = 0, upperFixed = 0, lowerFixed = 0;
    const std::uint8_t *upper = nullptr, *lower = nullptr;
    accelerator.FindSlices(fixedZ, hint, index, upper, upperFixed, lower, lowerFixed);
    return {index, lower, lowerFixed, upper, upperFixed, hint};
}

TEST(QelImageStackFixedPointAcceleratorTest, FindSlicesGivesTheGapOrTheNearestSliceAndFindIndicesAgrees)
{
    TestSlice slices[4] = {{2, 2}, {2, 2}, {2, 2}, {2, 2}};
    const auto origin = [&](std::int32_t i) { return i < 0 ? nullptr : slices[i].OriginAddress(); };
    const auto four = FromZ({0.0f, 2.0f, 3.0f, 4.0f});
    for (std::int32_t i = 0; i < 4; ++i)
        four->UpdateRecord(i, &slices[i]);
    EXPECT_EQ(FindSlices(*four, -5, 2), Slices(-1, nullptr, -1, origin(0), 0, 0));
    for (std::int32_t hint : {0, 2, -7, 99})
        EXPECT_EQ(FindSlices(*four, 100000, hint), Slices(2, origin(2), 98304, origin(3), 131072, 2)) << hint;
    EXPECT_EQ(FindSlices(*four, 131072, 0), Slices(-1, origin(3), 131072, origin(3), 131072, 2));
    EXPECT_EQ(FindSlices(*four, 131073, 1), Slices(-1, origin(3), 131072, nullptr, -1, 2));
    // One slice: below it, it is the upper one; on it, the lower one only.
    const auto one = FromZ({7.5f});
    one->UpdateRecord(0, &slices[0]);
    EXPECT_EQ(FindSlices(*one, -1, 5), Slices(-1, nullptr, -1, origin(0), 0, 0));
    EXPECT_EQ(FindSlices(*one, 0, 5), Slices(-1, origin(0), 0, nullptr, -1, 0));

    for (std::int32_t fixedZ = -70000; fixedZ <= 200000; fixedZ += 4099)
        for (std::int32_t hint : {0, 1, 2}) {
            std::int32_t after = hint, upper = 0, lower = 0;
            four->FindIndices(fixedZ, after, upper, lower);
            const auto [index, lowerOrigin, lowerZ, upperOrigin, upperZ, hintAfter] = FindSlices(*four, fixedZ, hint);
            EXPECT_EQ(std::tuple(origin(lower), origin(upper), after), std::tuple(lowerOrigin, upperOrigin, hintAfter))
                << fixedZ;
        }
    // An empty gap holds nothing: fixed z 0 lies in the gap above it.
    std::int32_t hint = 0, upper = 0, lower = 0;
    FromZ({0.0f, 0x1p-20f, 1.0f})->FindIndices(0, hint, upper, lower);
    EXPECT_EQ(std::pair(lower, upper), std::pair(1, 2));
}

}  // namespace
