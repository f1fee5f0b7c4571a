#include "image_stack/QelImageStackFixedPointAccelerator.h"

#include "image/BugReportText.h"
#include "image_stack/TestSlices.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <random>
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
    const auto unit = FromZ({0.0f, 1.0f});
    EXPECT_EQ(unit->Scale(), 65536.0);
    EXPECT_EQ(FixedZOf(*unit), (Fixed{0, 65536}));
    EXPECT_EQ(unit->Record(0).GapReciprocal, 65536u);
    EXPECT_EQ(unit->Record(0).ZToByteScale, 16383.0f);
    // The last record has no gap above it.
    EXPECT_EQ(unit->Record(1).GapReciprocal, 0u);
    EXPECT_EQ(unit->Record(1).ZToByteScale, 0.0f);

    const auto uneven = FromZ({0.0f, 1.0f, 3.0f});
    EXPECT_EQ(uneven->Scale(), 32768.0);
    EXPECT_EQ(FixedZOf(*uneven), (Fixed{0, 32768, 98304}));
    EXPECT_EQ(uneven->LastFixedZ(), 98304);
    EXPECT_EQ(uneven->Record(0).GapReciprocal, 131072u);

    const auto far = FromZ({100.0f, 101.0f});
    EXPECT_EQ(FixedZOf(*far), (Fixed{0, 65536}));
    // Positions are unrounded and may lie below the first slice.
    EXPECT_EQ(far->ToFixed(100.25), 16384.0);
    EXPECT_EQ(far->ToFixed(99.5), -32768.0);
}

TEST(QelImageStackFixedPointAcceleratorTest, GapsOfOneFixedUnitOrLessClampTheReciprocal)
{
    // 2^-16 apart is one fixed unit when the largest gap is 1; 2^-20 rounds to none.
    const auto oneUnit = FromZ({0.0f, 0x1p-16f, 1.0f + 0x1p-16f});
    EXPECT_EQ(FixedZOf(*oneUnit), (Fixed{0, 1, 65537}));
    EXPECT_EQ(oneUnit->Record(0).GapReciprocal, 4294967295u);

    const auto noUnit = FromZ({0.0f, 0x1p-20f, 1.0f});
    EXPECT_EQ(FixedZOf(*noUnit), (Fixed{0, 0, 65536}));
    EXPECT_EQ(noUnit->Record(0).GapReciprocal, 4294967295u);
    // The empty gap holds nothing: fixed z 0 lies in the gap above it.
    std::int32_t hint = 0, upper = 0, lower = 0;
    noUnit->FindIndices(0, hint, upper, lower);
    EXPECT_EQ(lower, 1);
    EXPECT_EQ(upper, 2);
}

// The stack's limit of 16384 slices exists for this bound: however the slices are
// spaced, none lies above 2^30, because no gap exceeds 65536.
TEST(QelImageStackFixedPointAcceleratorTest, SixteenThousandSlicesStayWithinTwoToTheThirty)
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
    EXPECT_EQ(BugReportText([] { (void)Accelerator::New(0.0f, 16386.0f, 16386); }),
              "Math error (max_z = 1073807360.000000)\n");
}

TEST(QelImageStackFixedPointAcceleratorTest, EvenSpacingStepsByAnNthOfTheSpan)
{
    // (last - first) / count: the records stop one step short of the last z.
    const auto accelerator = Accelerator::New(0.0f, 8.0f, 4);
    EXPECT_EQ(accelerator->Record(3).Z, 6.0f);
    EXPECT_EQ(accelerator->Scale(), 32768.0);
    EXPECT_EQ(Accelerator::New(5.0f, 9.0f, 1)->Scale(), 65536.0);

    EXPECT_EQ(BugReportText([] { (void)Accelerator::New(0.0f, 1.0f, 0); }),
              "The image stack must have at least one image !\n");
}

TEST(QelImageStackFixedPointAcceleratorTest, UpdateRecordFillsSlicesAndMovesThem)
{
    TestSlice first(4, 3, 2, 16);
    TestSlice second(4, 3, 4);
    const auto accelerator = FromZ({0.0f, 1.0f, 2.0f});
    accelerator->UpdateRecord(1, &first);
    EXPECT_EQ(accelerator->Record(1).Origin, first.OriginAddress());
    EXPECT_EQ(accelerator->Record(1).BytesPerLine, 16);
    // The first image decides the pixel size.
    accelerator->UpdateRecord(2, &second);
    EXPECT_EQ(accelerator->BytesPerPixel(), 2);
    accelerator->UpdateRecord(1, nullptr);
    EXPECT_EQ(accelerator->Record(1).Origin, nullptr);
    EXPECT_EQ(accelerator->Record(1).BytesPerLine, 0);

    accelerator->UpdateRecord(2, &second, 3.0f);
    EXPECT_EQ(accelerator->Scale(), 32768.0);
    EXPECT_EQ(FixedZOf(*accelerator), (Fixed{0, 32768, 98304}));
    EXPECT_EQ(accelerator->Record(1).GapReciprocal, 65536u);

    EXPECT_EQ(BugReportText([&] { accelerator->UpdateRecord(3, nullptr); }), "UpdateRecord (incorrect index)\n");
    EXPECT_EQ(BugReportText([&] { accelerator->UpdateRecord(-1, nullptr, 3.0f); }),
              "UpdateRecord (incorrect index)\n");
}

// ---- Look-ups ----

class FixedPointLookupTest : public ::testing::Test {
protected:
    // Slices at fixed z 0, 65536, 98304, 131072.
    void SetUp() override
    {
        m_accelerator = FromZ({0.0f, 2.0f, 3.0f, 4.0f});
        for (std::int32_t i = 0; i < 4; ++i)
            m_accelerator->UpdateRecord(i, &m_slices[i]);
    }

    const std::uint8_t* Origin(std::int32_t i) const { return i < 0 ? nullptr : m_slices[i].OriginAddress(); }

    struct Pair {
        std::int32_t index, lowerFixed, upperFixed;
        bool operator==(const Pair&) const = default;
    };
    Pair FindPair(std::int32_t fixedZ, std::int32_t hint) const
    {
        Pair pair{hint, -7, -7};
        m_accelerator->FindPair(fixedZ, pair.index, pair.upperFixed, pair.lowerFixed);
        return pair;
    }

    struct Slices {
        std::int32_t index;
        const std::uint8_t* lower;
        std::int32_t lowerFixed;
        const std::uint8_t* upper;
        std::int32_t upperFixed;
        std::int32_t hint;
        bool operator==(const Slices&) const = default;
    };
    Slices FindSlices(std::int32_t fixedZ, std::int32_t hint) const
    {
        Slices s{};
        m_accelerator->FindSlices(fixedZ, hint, s.index, s.upper, s.upperFixed, s.lower, s.lowerFixed);
        s.hint = hint;
        return s;
    }

    TestSlice m_slices[4] = {{2, 2}, {2, 2}, {2, 2}, {2, 2}};
    std::unique_ptr<Accelerator> m_accelerator;
};

TEST_F(FixedPointLookupTest, FindPairWalksFromTheHintAndFindsNoPairOutsideTheSlices)
{
    EXPECT_EQ(FindPair(70000, 0), (Pair{1, 65536, 98304}));
    // Walking down onto a slice gives the gap above it; the hint's own slice is a pair of one.
    EXPECT_EQ(FindPair(65536, 2), (Pair{1, 65536, 98304}));
    EXPECT_EQ(FindPair(98304, 2), (Pair{2, 98304, 98304}));
    // A hint past either end starts from the first slice.
    EXPECT_EQ(FindPair(100000, 4), (Pair{2, 98304, 131072}));
    EXPECT_EQ(FindPair(0, -1), (Pair{0, 0, 0}));
    // Below the first slice, and the last slice reached by walking, are no pair.
    EXPECT_EQ(FindPair(-1, 2).index, -1);
    EXPECT_EQ(FindPair(131072, 0).index, -1);
    EXPECT_EQ(FindPair(200000, 1).index, -1);
}

TEST_F(FixedPointLookupTest, FindSlicesGivesTheGapOrTheNearestSliceAndLeavesTheHintThere)
{
    EXPECT_EQ(FindSlices(-5, 2), (Slices{-1, nullptr, -1, Origin(0), 0, 0}));
    for (std::int32_t hint : {0, 2, -7, 99})
        EXPECT_EQ(FindSlices(100000, hint), (Slices{2, Origin(2), 98304, Origin(3), 131072, 2})) << hint;
    EXPECT_EQ(FindSlices(65536, 0), (Slices{1, Origin(1), 65536, Origin(2), 98304, 1}));
    EXPECT_EQ(FindSlices(131072, 0), (Slices{-1, Origin(3), 131072, Origin(3), 131072, 2}));
    EXPECT_EQ(FindSlices(131073, 1), (Slices{-1, Origin(3), 131072, nullptr, -1, 2}));
}

TEST_F(FixedPointLookupTest, FindIndicesAgreesWithFindSlices)
{
    for (std::int32_t fixedZ = -70000; fixedZ <= 200000; fixedZ += 4099) {
        for (std::int32_t hint : {0, 1, 2}) {
            std::int32_t indicesHint = hint, upperIndex = 0, lowerIndex = 0;
            m_accelerator->FindIndices(fixedZ, indicesHint, upperIndex, lowerIndex);
            const Slices slices = FindSlices(fixedZ, hint);
            EXPECT_EQ(Origin(lowerIndex), slices.lower) << fixedZ;
            EXPECT_EQ(Origin(upperIndex), slices.upper) << fixedZ;
            EXPECT_EQ(indicesHint, slices.hint) << fixedZ;
        }
    }
}

TEST(QelImageStackFixedPointAcceleratorTest, OneSliceHasNoGapAndLiesBelowOrAboveEveryPosition)
{
    TestSlice slice(2, 2);
    const auto accelerator = FromZ({7.5f});
    EXPECT_EQ(accelerator->Scale(), 65536.0);
    EXPECT_EQ(accelerator->LastFixedZ(), 0);
    EXPECT_EQ(accelerator->Record(0).GapReciprocal, 0u);
    accelerator->UpdateRecord(0, &slice);

    std::int32_t hint = 5, index = 0, upperFixed = 0, lowerFixed = 0;
    const std::uint8_t* upper = nullptr;
    const std::uint8_t* lower = nullptr;
    accelerator->FindSlices(-1, hint, index, upper, upperFixed, lower, lowerFixed);
    EXPECT_EQ(index, -1);
    EXPECT_EQ(lower, nullptr);
    EXPECT_EQ(upper, slice.OriginAddress());
    // On the slice it is the lower one only.
    accelerator->FindSlices(0, hint, index, upper, upperFixed, lower, lowerFixed);
    EXPECT_EQ(lower, slice.OriginAddress());
    EXPECT_EQ(upper, nullptr);
    EXPECT_EQ(upperFixed, -1);
    EXPECT_EQ(hint, 0);
}

}  // namespace
