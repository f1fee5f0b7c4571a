#include "Phantom.h"

#include "ax/rendering/Initializer.h"
#include "ax/rendering/MemoryRasterImage.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <stdexcept>

namespace {

using Axr::MakePhantom;
using Axr::PhantomOptions;
using Axr::PhantomVoxelOf;

constexpr std::int32_t kSize = 64;

class PhantomTest : public ::testing::Test {
protected:
    static void SetUpTestSuite()
    {
        Ax::Rendering::Initializer::Initialize();
        s_stack = MakePhantom({kSize, false, 2}).release();
    }
    static void TearDownTestSuite()
    {
        delete s_stack;
        s_stack = nullptr;
    }

    static std::uint16_t Voxel(const Ax::Rendering::ImageStack& stack, std::int32_t x, std::int32_t y, std::int32_t k)
    {
        std::uint16_t value;
        std::memcpy(&value, stack[k].Image()->GetPixelAddress(x, y), sizeof value);
        return value;
    }

    // The voxel nearest to a point in the phantom's normalized coordinates.
    static std::uint16_t At(const double (&point)[3])
    {
        const auto index = [](double n) { return static_cast<std::int32_t>(std::lround(PhantomVoxelOf(n, kSize))); };
        return Voxel(*s_stack, index(point[0]), index(point[1]), index(point[2]));
    }

    static Ax::Rendering::ImageStack* s_stack;
};

Ax::Rendering::ImageStack* PhantomTest::s_stack = nullptr;

TEST_F(PhantomTest, IsACubeOfGray16SlicesWithoutPadding)
{
    ASSERT_EQ(s_stack->NumberOfImages(), kSize);
    EXPECT_EQ(s_stack->ImageDimensions(), Ax::Primitives::Size(kSize, kSize));
    EXPECT_EQ(s_stack->PixelFormat(), Ax::Primitives::GrayscalePixelFormat::Gray16());
    EXPECT_FALSE(s_stack->HasPadding());
    EXPECT_EQ(s_stack->MaximumPoint().Z, kSize - 1);
}

TEST_F(PhantomTest, ValuesAtLandmarksLieInTheirTissueRanges)
{
    const std::uint16_t brain = At(Axr::PhantomLandmarks::kBrainCentre);
    EXPECT_GE(brain, 1050);
    EXPECT_LE(brain, 1070);
    const std::uint16_t skull = At(Axr::PhantomLandmarks::kSkullTop);
    EXPECT_GE(skull, 1700);
    EXPECT_LE(skull, 2500);
    const std::uint16_t carotid = At(Axr::PhantomLandmarks::kCarotidLeft);
    EXPECT_GE(carotid, 1300);
    EXPECT_LE(carotid, 1500);
    // Air is exactly 0: the noise stays out of it.
    EXPECT_EQ(Voxel(*s_stack, 0, 0, 0), 0);
    EXPECT_EQ(Voxel(*s_stack, kSize - 1, 0, kSize - 1), 0);
    EXPECT_EQ(Voxel(*s_stack, 0, 0, kSize / 2), 0);
}

TEST_F(PhantomTest, GivesTheSameBytesWhateverTheThreadCount)
{
    const auto single = MakePhantom({kSize, false, 1});
    for (std::int32_t k = 0; k < kSize; ++k) {
        SCOPED_TRACE(k);
        for (std::int32_t y = 0; y < kSize; ++y)
            ASSERT_EQ(std::memcmp((*single)[k].Image()->GetPixelAddress(0, y), (*s_stack)[k].Image()->GetPixelAddress(0, y),
                                  kSize * sizeof(std::uint16_t)),
                      0)
                << "row " << y;
    }
}

TEST_F(PhantomTest, UnevenSpacingDoublesAFewGapsAndKeepsTheAnatomyInPlace)
{
    const std::vector<double> z = Axr::PhantomSliceZ(kSize, true);
    ASSERT_EQ(z.size(), std::size_t{kSize});
    int wide = 0;
    for (std::size_t k = 1; k < z.size(); ++k) {
        const double gap = z[k] - z[k - 1];
        EXPECT_TRUE(gap == 1.0 || gap == 2.0) << "gap " << gap << " below slice " << k;
        if (gap == 2.0)
            ++wide;
        EXPECT_EQ(z[k], static_cast<double>(k + wide)) << "slice " << k;
    }
    EXPECT_EQ(wide, 3);
    EXPECT_EQ(Axr::PhantomSliceZ(kSize, false).back(), kSize - 1);

    const auto uneven = MakePhantom({kSize, true, 2});
    ASSERT_EQ(uneven->NumberOfImages(), kSize);
    for (std::int32_t k = 0; k < kSize; ++k)
        EXPECT_EQ((*uneven)[k].ZCoord(), z[static_cast<std::size_t>(k)]);
    // A slice lies where its z says: the one nearest the brain centre's z is brain.
    const double brainZ = PhantomVoxelOf(Axr::PhantomLandmarks::kBrainCentre[2], kSize);
    const auto record = uneven->GetImageAtZPosition(brainZ, 1.0);
    ASSERT_TRUE(record.has_value());
    std::uint16_t value;
    const auto centre = static_cast<std::int32_t>(std::lround(PhantomVoxelOf(0.02, kSize)));
    std::memcpy(&value, record->Image()->GetPixelAddress(kSize / 2, centre), sizeof value);
    EXPECT_GE(value, 1050);
    EXPECT_LE(value, 1070);
}

TEST_F(PhantomTest, RefusesSizesOutsideItsRange)
{
    EXPECT_THROW((void)MakePhantom({15, false, 1}), std::invalid_argument);
    EXPECT_THROW((void)MakePhantom({1025, false, 1}), std::invalid_argument);
}

}  // namespace
