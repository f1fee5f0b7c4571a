#include "mpr/QelMprSlabHitTester.h"

#include "MprTestVolumes.h"
#include "mpr/QelImageStackSlabMprRenderer.h"
#include "mpr/imp/QelTrilinearSampler.h"
#include "support/BaseTestSupport.h"

#include <gtest/gtest.h>

#include <limits>

namespace {

constexpr std::int32_t kOutside = std::numeric_limits<std::int32_t>::max();

// Voxel 2x + 3y + 10z on slices at z 0, 1 and 3: linear in the voxel grid, so a
// trilinear sample reproduces the ramp between slices of either gap.
std::unique_ptr<QelImageStack> RampStack(std::optional<std::int32_t> padding = std::nullopt)
{
    static const float zs[] = {0.0f, 1.0f, 3.0f};
    return MakeStack({8, 8, {zs[0], zs[1], zs[2]}, false, padding, {}},
                     [](auto x, auto y, auto k) { return static_cast<std::uint16_t>(2 * x + 3 * y + 10 * zs[k]); });
}

// The sampler the hit tester reads through, then the hit tester: where a slab's
// highest or lowest sample lies, and the first of equal samples along a ray.
TEST(QelMprSlabHitTesterTest, SamplesFollowARampAndTheSlabFindsItsExtremeSample)
{
    auto stack = RampStack();
    auto sampler = QelTrilinearSampler::New(*stack, kOutside, 0.001f);
    ASSERT_TRUE(sampler);
    // 3 + 6.75 + 20 = 29.75, rounded; column width - 1 has no right neighbour.
    EXPECT_EQ(std::pair(sampler->Sample({1.5f, 2.25f, 2.0f}), sampler->Sample({7.0f, 1.0f, 1.0f})),
              std::pair(30, kOutside));
    // Voxel (2, 2) of slice 1 is 2 * 2 + 3 * 2 + 10 = 20: make that the padding.
    auto padded = RampStack(20);
    auto paddedSampler = QelTrilinearSampler::New(*padded, kOutside, 0.001f);
    // 11 + 16.5 + 5, half away from 0.
    EXPECT_EQ(std::pair(paddedSampler->Sample({1.5f, 1.5f, 0.5f}), paddedSampler->Sample({5.5f, 5.5f, 0.5f})),
              std::pair(20, 33));
    auto flat = MakeStack(4, 4, {0.0f, 1.0f, 2.0f}, [](auto x, auto, auto) { return static_cast<std::uint16_t>(x); });
    EXPECT_FALSE(QelTrilinearSampler::New(*MakeStack(4, 4, {0.0f}, [](auto, auto, auto) { return std::uint16_t{1}; }),
                                          kOutside, 0.001f));  // needs two slices

    auto renderer = QelImageStackSlabMprRenderer::New(nullptr, 1);
    auto canvas = MakeImage(2, {0, 7}, {0, 7});
    QelRenderSpec spec;
    // A slab of 7 samples 0.5 apart through z 1.5: z 0 to 3, the last one outside.
    FillSpec(spec, canvas.get(), AxialView(1.5f), QelSlabMode::MIP, 7, 0.5f, 0);
    QelMprSlabHit hit;
    ASSERT_TRUE(renderer->GetTargetCoordinates(*stack, spec, 3.0f, 4.0f, hit));
    EXPECT_EQ(std::pair(hit.Position, hit.Value), std::pair(QelVector3(3.0f, 4.0f, 2.5f), 6 + 12 + 25));
    spec.SetSlabMode(QelSlabMode::MINIP);
    ASSERT_TRUE(renderer->GetTargetCoordinates(*stack, spec, 3.0f, 4.0f, hit));
    EXPECT_EQ(std::pair(hit.Position, hit.Value), std::pair(QelVector3(3.0f, 4.0f, 0.0f), 6 + 12));
    // Outside the volume there is no point, and the mean has none anywhere.
    EXPECT_FALSE(renderer->GetTargetCoordinates(*stack, spec, 30.0f, 4.0f, hit) || hit.Hit);
    spec.SetSlabMode(QelSlabMode::AVIP);
    EXPECT_FALSE(renderer->GetTargetCoordinates(*stack, spec, 3.0f, 4.0f, hit) || hit.Hit);

    // Constant along z at a pixel: every sample is equal, so the first one wins. With
    // slice 2 padded, the highest sample of a ramp would lie there.
    std::int32_t value = -1;
    EXPECT_FLOAT_EQ(QelMprSlabHitTester::GetFrac(*flat, {1.0f, 1.0f, 0.0f}, {1.0f, 1.0f, 1.5f}, 4, value, false), 0.0f);
    EXPECT_EQ(value, 1);
    auto top = MakeStack({4, 4, {0.0f, 1.0f, 2.0f}, false, 999, {}},
                         [](auto, auto, auto k) { return static_cast<std::uint16_t>(k == 2 ? 999 : 10 * k); });
    EXPECT_FLOAT_EQ(QelMprSlabHitTester::GetFrac(*top, {1.0f, 1.0f, 0.0f}, {1.0f, 1.0f, 1.5f}, 4, value, false),
                    1.0f / 3.0f);
    EXPECT_EQ(value, 5);
    EXPECT_FLOAT_EQ(QelMprSlabHitTester::GetFrac(*flat, {1.0f, 1.0f, 2.0f}, {}, 1, value, true), -1.0f);
    EXPECT_FLOAT_EQ(QelMprSlabHitTester::GetFrac(*top, {1.0f, 1.0f, 1.5f}, {}, 1, value, true), -1.0f);
    EXPECT_EQ(CatchReport<QelThrowBugHandler::QelBacktraceException>(
                  [&] { (void)QelMprSlabHitTester::GetFrac(*flat, {}, {}, 0, value, true); }).text,
              "num_samples is '0' but needs to be >= 1 in QelMprSlabHitTester::GetFrac().");
}

}  // namespace
