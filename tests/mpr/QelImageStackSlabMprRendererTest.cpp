#include "mpr/QelImageStackSlabMprRenderer.h"

#include "MprTestVolumes.h"
#include "SlabMprReference.h"
#include "base/QelIsa.h"
#include "mpr/imp/QelImageStackSlabMprRendererWorker.h"
#include "support/BaseTestSupport.h"
#include "threaded/QelAborter.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <string>

namespace {

constexpr std::uint16_t kUndefined = 0xABCD;

std::vector<std::uint16_t> Reference(const QelImageStack& stack, const QelRenderSpec& spec)
{
    const QelRasterImage& canvas = *spec.Canvas();
    return SlabMprReference(stack, spec.SlabCenterTransform(), spec.SlabMode(), spec.SampleSliceNumber(),
                            spec.CurrSliceSpacing(), spec.UndefinedPixelVal().AsUnsigned16())
        .Render(canvas.XRange(), canvas.YRange());
}

struct RandomCase {
    std::unique_ptr<QelImageStack> stack;
    std::unique_ptr<QelMemoryRasterImage> canvas;
    QelRenderSpec spec;
};

// Random volumes, views and slabs.
void MakeCase(Dice& d, RandomCase& c)
{
    const std::int32_t width = d.Int(2, 40), height = d.Int(2, 40), slices = d.Chance(0.15) ? d.Int(2, 4) : d.Int(2, 70);
    const bool isSigned = d.Chance(0.5), even = d.Chance(0.5);
    std::vector<float> zs{d.Real(-5.0f, 5.0f)};
    const float evenGap = d.Chance(0.5) ? 1.0f : d.Real(0.3f, 3.0f);
    for (std::int32_t k = 1; k < slices; ++k)
        zs.push_back(zs.back() + (even ? evenGap : d.Real(0.2f, 3.0f)));
    std::optional<std::int32_t> padding;
    if (d.Chance(0.5))
        // The smooth data cross -1500 or 2000 often, so that interpolated values
        // equal the padding value without a padded corner now and then.
        padding = isSigned ? d.Pick<std::int32_t>({-32768, -1024, 0, 32767, -1500})
                           : d.Pick<std::int32_t>({0, 65535, 4000, 2000});
    const float base = isSigned ? -1500.0f : 2000.0f;
    c.stack = MakeStack({width, height, zs, isSigned, padding, {}}, [&](auto x, auto y, auto k) {
        const float smooth = base + 900.0f * std::sin(0.4f * x + 0.1f * k) + 700.0f * std::cos(0.3f * y) + 40.0f * k;
        auto value = static_cast<std::int32_t>(smooth) + d.Int(-200, 200);
        const double roll = d.Real(0.0f, 1.0f);
        if (roll < 0.05)
            value = d.Pick<std::int32_t>({0, 0xFFFF, 0x8000, 0x7FFF, 1});
        else if (roll < 0.08)
            value = d.Int(0, 0xFFFF);
        else if (roll < 0.11 && padding)
            value = *padding;
        return static_cast<std::uint16_t>(value);
    });

    const std::int32_t canvasWidth = d.Int(1, 75), canvasHeight = d.Int(1, 70);
    const std::int32_t left = d.Chance(0.2) ? d.Int(-20, 20) : 0, top = d.Chance(0.2) ? d.Int(-20, 20) : 0;
    c.canvas = MakeImage(2, {left, left + canvasWidth - 1}, {top, top + canvasHeight - 1});

    // Mostly views that cross the volume with a margin around it, sometimes views
    // that graze or miss it.
    const float reach = d.Chance(0.9) ? 0.3f : 0.7f;
    QelVector3 centre{d.Real(0.5f - reach, 0.5f + reach) * width, d.Real(0.5f - reach, 0.5f + reach) * height,
                      0.5f * (zs.front() + zs.back()) + d.Real(-reach, reach) * (zs.back() - zs.front())};
    const float meanGap = (zs.back() - zs.front()) / static_cast<float>(slices - 1);
    // A pixel size at which the canvas spans about the volume.
    const float fit =
        static_cast<float>(std::max(width, height)) / static_cast<float>(std::max(canvasWidth, canvasHeight));
    auto pixelSize = [&] { return d.Chance(0.15) ? d.Real(0.3f, 1.6f) : fit * d.Real(0.5f, 1.2f); };
    QelVector3 across, down, normal{0.0f, 0.0f, 1.0f};
    switch (d.Int(0, 3)) {
    case 0:
        d.Oblique(pixelSize(), across, down, normal);
        break;
    case 1: {  // in the plane of the slices, turned
        const float angle = d.Real(0.0f, 6.2831853f);
        const float s = d.Chance(0.3) ? 1.0f : pixelSize();
        across = QelVector3{std::cos(angle), std::sin(angle), 0.0f} * s;
        down = QelVector3{-std::sin(angle), std::cos(angle), 0.0f} * s;
        break;
    }
    case 2: {  // along the axes: axial, coronal or sagittal, flipped or not
        const float s = d.Pick<float>({0.5f, 1.0f, 1.25f, pixelSize()});
        const float flip = d.Chance(0.5) ? -1.0f : 1.0f;
        const std::int32_t axis = d.Int(0, 2);
        across = axis == 2 ? QelVector3{0.0f, s * flip, 0.0f} : QelVector3{s * flip, 0.0f, 0.0f};
        down = axis == 0 ? QelVector3{0.0f, s, 0.0f} : QelVector3{0.0f, 0.0f, meanGap * s};
        normal = axis == 0 ? normal : axis == 1 ? QelVector3{0.0f, 1.0f, 0.0f} : QelVector3{1.0f, 0.0f, 0.0f};
        break;
    }
    default: {  // axial on whole voxels, on a slice or between two
        across = {1.0f, 0.0f, 0.0f};
        down = {0.0f, 1.0f, 0.0f};
        const auto k = static_cast<std::size_t>(d.Int(0, slices - 1));
        centre = {std::floor(centre.X()), std::floor(centre.Y()),
                  d.Chance(0.6) ? zs[k] : 0.5f * (zs[k] + zs[std::min(k + 1, zs.size() - 1)])};
        break;
    }
    }
    const QelMatrix34 view = ViewThrough(centre, std::floor(left + 0.5f * canvasWidth),
                                         std::floor(top + 0.5f * canvasHeight), across, down, normal);

    const std::int32_t samples = d.Chance(0.2) ? 1 : d.Chance(0.1) ? 18 : d.Int(1, 40);
    const float spacing = d.Chance(0.1) ? 0.0f : d.Chance(0.2) ? 1.0f : d.Real(0.1f, 2.5f);
    const auto mode = static_cast<QelSlabMode::QelSlabModeEnum>(d.Chance(0.05) ? 7 : d.Int(0, 2));
    FillSpec(c.spec, c.canvas.get(), view, mode, samples, spacing, static_cast<std::uint16_t>(d.Int(0, 0xFFFF)));
}

unsigned TestSeed()
{
    const char* text = std::getenv("AX_TEST_SEED");
    return text ? static_cast<unsigned>(std::strtoul(text, nullptr, 10)) : 20240611u;
}

// Each case draws on 1, 2 or 3 threads, under one of the instruction-set levels, in
// steps or in one Draw, with one renderer per thread count reused across volumes.
TEST(QelImageStackSlabMprRendererTest, RandomSlabsMatchThePlainReformatBitForBit)
{
    const unsigned seed = TestSeed();
    SCOPED_TRACE("seed " + std::to_string(seed) + " (set AX_TEST_SEED to repeat another)");
    Dice dice(seed);
    const std::vector<QelIsa> isas = QelSupportedIsas();
    std::unique_ptr<QelImageStackSlabMprRenderer> renderers[4];
    for (int i = 0; i < 200; ++i) {
        RandomCase c;
        MakeCase(dice, c);
        const int threads = 1 + i % 3;
        const QelIsa isa = isas[static_cast<std::size_t>(i / 3) % isas.size()];
        SCOPED_TRACE("case " + std::to_string(i) + ", " + std::to_string(threads) + " threads, " + QelIsaName(isa));
        const std::vector<std::uint16_t> expected = Reference(*c.stack, c.spec);
        if (!renderers[threads])
            renderers[threads] = QelImageStackSlabMprRenderer::New(nullptr, threads);
        QelImageStackSlabMprRenderer& renderer = *renderers[threads];
        {
            const QelIsaLimit limit(isa);
            ASSERT_TRUE(i % 2 == 0 ? RenderInSteps(renderer, c.stack.get(), &c.spec)
                                   : renderer.Draw(c.stack.get(), &c.spec));
        }
        EXPECT_EQ(renderer.State(), QelSlabMprState::Finished);
        ASSERT_EQ(Pixels(*c.canvas), expected);
    }
}

TEST(QelImageStackSlabMprRendererTest, PlanesThatMissTheVolumeAreUndefined)
{
    auto stack = MakeStack(8, 8, {0.0f, 1.0f, 2.0f}, [](auto x, auto, auto) { return std::uint16_t(x); });
    auto renderer = QelImageStackSlabMprRenderer::New(nullptr, 2);
    // The second so far off that the start lies beyond the 16.16 range and must not wrap into the volume.
    const QelVector3 x{1.0f, 0.0f, 0.0f}, y{0.0f, 1.0f, 0.0f}, z{0.0f, 0.0f, 1.0f};
    for (const QelMatrix34& view : {AxialView(40.0f), ViewThrough({1.0e6f, -1.0e6f, 1.0f}, 0.0f, 0.0f, x, y, z)}) {
        auto canvas = MakeImage(2, {0, 40}, {0, 20});
        QelRenderSpec spec;
        FillSpec(spec, canvas.get(), view, QelSlabMode::AVIP, 5, 1.0f, kUndefined);
        ASSERT_TRUE(RenderInSteps(*renderer, stack.get(), &spec));
        EXPECT_EQ(Pixels(*canvas), std::vector<std::uint16_t>(41 * 21, kUndefined));
    }
}

class SlabDrawTest : public ::testing::Test {
protected:
    void Prepare(const QelIntRange& columns, const QelIntRange& rows)
    {
        m_canvas = MakeImage(2, columns, rows);
        const QelMatrix34 view = ViewThrough({10.0f, 10.0f, 1.2f}, 0.0f, 150.0f, {0.05f, 0.02f, 0.01f},
                                             {0.01f, 0.06f, 0.004f}, {0.1f, -0.2f, 1.0f});
        FillSpec(m_spec, m_canvas.get(), view, QelSlabMode::MIP, 3, 0.5f, kUndefined);
    }

    std::unique_ptr<QelImageStack> m_stack =
        MakeStack(20, 20, {0.0f, 1.0f, 2.5f}, [](auto x, auto y, auto k) { return std::uint16_t(300 * k + 7 * x + y); });
    std::unique_ptr<QelMemoryRasterImage> m_canvas;
    QelRenderSpec m_spec;
};

TEST_F(SlabDrawTest, AnAbortBetweenStepsLeavesTheBandsNotStartedUntouched)
{
    // 19 bands: the first step draws bands 0 to 15, rows 0 to 255.
    Prepare({0, 39}, {0, 299});
    const std::vector<std::uint16_t> expected = Reference(*m_stack, m_spec);
    auto renderer = QelImageStackSlabMprRenderer::New(nullptr, 2);
    EXPECT_FALSE(renderer->Step());  // nothing started
    ASSERT_TRUE(renderer->StartDraw(m_stack.get(), &m_spec) && renderer->Step());
    EXPECT_DOUBLE_EQ(renderer->GetProgress()->Fraction(), 16.0 / 19.0);
    renderer->Abort();
    std::vector<std::uint16_t> partial(expected.begin(), expected.begin() + 256 * 40);
    partial.resize(expected.size(), 0xBEEF);
    EXPECT_EQ(Pixels(*m_canvas), partial);

    // The renderer starts afresh after the abort; the bands done, one more step ends the draw.
    ASSERT_TRUE(renderer->StartDraw(m_stack.get(), &m_spec));
    ASSERT_TRUE(renderer->Step() && renderer->Step());
    EXPECT_EQ(renderer->State(), QelSlabMprState::BandsDone);
    ASSERT_TRUE(renderer->Step());
    EXPECT_TRUE(renderer->IsDone());
    EXPECT_EQ(Pixels(*m_canvas), expected);
}

// One image, or the record's aborter, end the draw with no picture; a canvas of no
// pixels finishes at once.
TEST_F(SlabDrawTest, NoPictureFromOneImageOrTheRecordsAborterAndNothingToDrawOnNoPixels)
{
    Prepare({0, 10}, {0, 20});
    auto single = MakeStack(20, 20, {0.0f}, [](auto, auto, auto) { return std::uint16_t{5}; });
    auto renderer = QelImageStackSlabMprRenderer::New(nullptr, 2);
    ASSERT_TRUE(renderer->StartDraw(single.get(), &m_spec));
    EXPECT_TRUE(renderer->State() == QelSlabMprState::NoPicture && renderer->IsDone());
    EXPECT_EQ(Pixels(*m_canvas), std::vector<std::uint16_t>(11 * 21, kUndefined));
    EXPECT_FALSE(renderer->Draw(single.get(), &m_spec));  // Draw answers whether there is a picture
    EXPECT_FALSE(renderer->StartDraw(nullptr, &m_spec));

    m_canvas->Clear(true, 0xBEEF);
    QelAborter aborter(false);
    m_spec.SetAborter(&aborter);
    ASSERT_TRUE(renderer->StartDraw(m_stack.get(), &m_spec));
    aborter.Abort();
    EXPECT_TRUE(renderer->Step());
    EXPECT_EQ(renderer->State(), QelSlabMprState::NoPicture);
    EXPECT_EQ(Pixels(*m_canvas), std::vector<std::uint16_t>(11 * 21, 0xBEEF));
    EXPECT_FALSE(renderer->Draw(m_stack.get(), &m_spec));

    m_spec.SetAborter(nullptr);
    auto empty = QelMemoryRasterImage::New(nullptr);
    std::uint8_t byte = 0;
    empty->SetBuffer(0, 0, 2, 0, &byte, false);
    m_spec.SetCanvas(empty.get());
    ASSERT_TRUE(renderer->StartDraw(m_stack.get(), &m_spec));
    EXPECT_EQ(renderer->State(), QelSlabMprState::Finished);
}

TEST_F(SlabDrawTest, WhatTheRendererDoesNotDrawIsABugReport)
{
    Prepare({0, 10}, {0, 20});
    auto renderer = QelImageStackSlabMprRenderer::New(nullptr, 1);
    auto reportOf = [&](QelRenderSpec& spec) {
        const auto start = [&] { (void)renderer->StartDraw(m_stack.get(), &spec); };
        return CatchReport<QelThrowBugHandler::QelBacktraceException>(start).text;
    };
    m_spec.SetSupersamplingFactorXY(2);
    EXPECT_EQ(reportOf(m_spec), "XY supersampling in this renderer not supported");
    m_spec.SetSupersamplingFactorXY(1);
    auto bytes = MakeImage(1, {0, 3}, {0, 3});
    m_spec.SetCanvas(bytes.get());
    EXPECT_EQ(reportOf(m_spec), "QelImageStackSlabMprRendererImp::StartDraw()\nCanvas of 1 bytes per pixel not "
                                "supported: only 2 bytes per pixel\n");
    m_spec.SetCanvas(m_canvas.get());
    QelRenderSpec unset;
    unset.SetCanvas(m_canvas.get());
    unset.SetUndefinedPixelVal(QelPixelVariant::SixteenBitGrey(kUndefined));
    EXPECT_EQ(reportOf(unset), "QelRenderSpec::SlabCenterTransform not set");

    // A running draw must be aborted before the next start.
    ASSERT_TRUE(renderer->StartDraw(m_stack.get(), &m_spec));
    EXPECT_EQ(reportOf(m_spec),
              "QelImageStackSlabMprRendererImp::StartDraw()\nPlease call Abort() before Draw() or StartDraw()\n");
    renderer->Abort();
    EXPECT_TRUE(renderer->Draw(m_stack.get(), &m_spec));
}

}  // namespace
