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

TEST(QelTrilinearSamplerTest, ReproducesALinearRampAndGivesTheOutsideOrPaddingValueWhereItCannot)
{
    auto stack = RampStack();
    auto sampler = QelTrilinearSampler::New(*stack, kOutside, 0.001f);
    ASSERT_TRUE(sampler);
    const std::pair<QelVector3, std::int32_t> cases[] = {
        {{1.5f, 2.25f, 2.0f}, 30},  // 3 + 6.75 + 20 = 29.75, rounded
        {{1.5f, 2.0f, 0.5f}, 14},   // across the narrow gap
        {{6.75f, 6.5f, 2.9f}, 62},  // 13.5 + 19.5 + 29
        {{0.0f, 0.0f, 0.0f}, 0},
        {{7.0f, 1.0f, 1.0f}, kOutside},  // column width - 1 has no right neighbour
        {{1.0f, 7.0f, 1.0f}, kOutside},
        {{1.0f, 1.0f, 3.0f}, kOutside},  // the last slice's z is the box's open end
        {{1.0f, 1.0f, -0.1f}, kOutside},
        {{-0.1f, 1.0f, 1.0f}, kOutside},
    };
    for (const auto& [at, value] : cases)
        EXPECT_EQ(sampler->Sample(at), value) << ::testing::PrintToString(at);

    // Voxel (2, 2) of slice 1 is 2 * 2 + 3 * 2 + 10 = 20: make that the padding.
    auto padded = RampStack(20);
    auto paddedSampler = QelTrilinearSampler::New(*padded, kOutside, 0.001f);
    EXPECT_EQ(paddedSampler->OutsideValue(), 20);
    EXPECT_EQ(paddedSampler->Sample({1.5f, 1.5f, 0.5f}), 20);
    EXPECT_EQ(paddedSampler->Sample({7.5f, 1.5f, 0.5f}), 20);
    EXPECT_EQ(paddedSampler->Sample({5.5f, 5.5f, 0.5f}), 33);  // 11 + 16.5 + 5, half away from 0

    auto single = MakeStack(4, 4, {0.0f}, [](auto, auto, auto) { return std::uint16_t{1}; });
    EXPECT_FALSE(QelTrilinearSampler::New(*single, kOutside, 0.001f));  // needs two slices
}

TEST(QelMprSlabHitTesterTest, MipFindsTheHighestSampleOfTheSlabAndMinipTheLowest)
{
    auto stack = RampStack();
    auto renderer = QelImageStackSlabMprRenderer::New(nullptr, 1);
    auto canvas = MakeImage(2, {0, 7}, {0, 7});
    QelRenderSpec spec;
    // A slab of 7 samples 0.5 apart through z 1.5: z 0 to 3, the last one outside.
    FillSpec(spec, canvas.get(), AxialView(1.5f), QelSlabMode::MIP, 7, 0.5f, 0);
    QelMprSlabHit hit;
    ASSERT_TRUE(renderer->GetTargetCoordinates(*stack, spec, 3.0f, 4.0f, hit));
    EXPECT_TRUE(hit.Hit);
    EXPECT_EQ(hit.Position, QelVector3(3.0f, 4.0f, 2.5f));
    EXPECT_EQ(hit.Value, 6 + 12 + 25);

    spec.SetSlabMode(QelSlabMode::MINIP);
    ASSERT_TRUE(renderer->GetTargetCoordinates(*stack, spec, 3.0f, 4.0f, hit));
    EXPECT_EQ(hit.Position, QelVector3(3.0f, 4.0f, 0.0f));
    EXPECT_EQ(hit.Value, 6 + 12);

    // Outside the volume there is no point, and the mean has none anywhere.
    EXPECT_FALSE(renderer->GetTargetCoordinates(*stack, spec, 30.0f, 4.0f, hit));
    EXPECT_FALSE(hit.Hit);
    spec.SetSlabMode(QelSlabMode::AVIP);
    EXPECT_FALSE(renderer->GetTargetCoordinates(*stack, spec, 3.0f, 4.0f, hit));
    EXPECT_FALSE(hit.Hit);
}

TEST(QelMprSlabHitTesterTest, GetFracTakesTheFirstOfEqualValuesSkipsPaddingAndWantsASample)
{
    // Constant along z at a pixel: every sample is equal, so the first one wins.
    auto flat = MakeStack(4, 4, {0.0f, 1.0f, 2.0f}, [](auto x, auto, auto) { return static_cast<std::uint16_t>(x); });
    std::int32_t value = -1;
    EXPECT_FLOAT_EQ(QelMprSlabHitTester::GetFrac(*flat, {1.0f, 1.0f, 0.0f}, {1.0f, 1.0f, 1.5f}, 4, value, false), 0.0f);
    EXPECT_EQ(value, 1);

    // Slice 2 padded: the highest sample of a ramp would lie there.
    auto padded = MakeStack({4, 4, {0.0f, 1.0f, 2.0f}, false, 999, {}},
                            [](auto, auto, auto k) { return static_cast<std::uint16_t>(k == 2 ? 999 : 10 * k); });
    EXPECT_FLOAT_EQ(QelMprSlabHitTester::GetFrac(*padded, {1.0f, 1.0f, 0.0f}, {1.0f, 1.0f, 1.5f}, 4, value, false),
                    1.0f / 3.0f);
    EXPECT_EQ(value, 5);

    EXPECT_FLOAT_EQ(QelMprSlabHitTester::GetFrac(*flat, {1.0f, 1.0f, 0.5f}, {}, 1, value, true), 0.0f);
    EXPECT_FLOAT_EQ(QelMprSlabHitTester::GetFrac(*flat, {1.0f, 1.0f, 2.0f}, {}, 1, value, true), -1.0f);
    EXPECT_FLOAT_EQ(QelMprSlabHitTester::GetFrac(*padded, {1.0f, 1.0f, 1.5f}, {}, 1, value, true), -1.0f);

    const CaughtReport report = CatchReport<QelThrowBugHandler::QelBacktraceException>(
        [&] { (void)QelMprSlabHitTester::GetFrac(*flat, {}, {}, 0, value, true); });
    EXPECT_EQ(report.text, "num_samples is '0' but needs to be >= 1 in QelMprSlabHitTester::GetFrac().");
}

}  // namespace
