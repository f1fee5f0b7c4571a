#include "Phantom.h"

#include "axr/AxrTestSupport.h"

#include "ax/rendering/Initializer.h"

#include <algorithm>
#include <cmath>
#include <stdexcept>

namespace {

using Axr::MakePhantom;
namespace Landmarks = Axr::PhantomLandmarks;

constexpr std::int32_t kSize = 64;

std::int32_t IndexOf(double normalized)
{
    return static_cast<std::int32_t>(std::lround(Axr::PhantomVoxelOf(normalized, kSize)));
}

class PhantomTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() { Ax::Rendering::Initializer::Initialize(); }
};

// Uneven spacing, so that anatomy placed by slice index instead of z shows.
TEST_F(PhantomTest, LandmarksLieInTheirTissueRangesWhateverTheSpacingAndThreadCount)
{
    const std::vector<double> z = Axr::PhantomSliceZ(kSize, true);
    const auto phantom = MakePhantom({kSize, true, 2}), single = MakePhantom({kSize, true, 1});
    ASSERT_EQ(z.size(), std::size_t{kSize});
    ASSERT_EQ(phantom->NumberOfImages(), kSize);
    int wide = 0;
    for (std::int32_t k = 1; k < kSize; ++k) {
        wide += z[k] - z[k - 1] == 2.0;
        EXPECT_EQ(z[k], k + wide) << "every gap 1 or 2";
        EXPECT_EQ((*phantom)[k].ZCoord(), z[k]);
    }
    EXPECT_EQ(wide, 3);
    EXPECT_EQ(Axr::PhantomSliceZ(kSize, false).back(), kSize - 1);
    const struct {
        const double (&point)[3];
        std::int32_t lowest, highest;
    } landmarks[] = {{Landmarks::kBrainCentre, 1050, 1070}, {Landmarks::kSkullTop, 1700, 2500},
                     {Landmarks::kCarotidLeft, 1300, 1500}};
    for (const auto& [point, lowest, highest] : landmarks) {
        // The first slice no more than half a voxel below the landmark.
        const auto k = std::lower_bound(z.begin(), z.end(), Axr::PhantomVoxelOf(point[2], kSize) - 0.5) - z.begin();
        const std::int32_t value = AxrTest::Voxel(*phantom, std::int32_t(k), IndexOf(point[0]), IndexOf(point[1]));
        EXPECT_GE(value, lowest);
        EXPECT_LE(value, highest);
    }
    // The noise stays out of the air.
    EXPECT_EQ(AxrTest::Voxel(*phantom, 0, 0, 0), 0);
    EXPECT_EQ(AxrTest::Voxel(*phantom, kSize - 1, kSize - 1, 0), 0);
    for (std::int32_t i = 0; i < kSize * kSize; ++i)
        ASSERT_EQ(std::memcmp((*single)[i / kSize].Image()->GetPixelAddress(0, i % kSize),
                              (*phantom)[i / kSize].Image()->GetPixelAddress(0, i % kSize), kSize * 2),
                  0)
            << "the thread count changed row " << i % kSize << " of slice " << i / kSize;
    EXPECT_THROW((void)MakePhantom({15, false, 1}), std::invalid_argument);
    EXPECT_THROW((void)MakePhantom({1025, false, 1}), std::invalid_argument);
}

}  // namespace
