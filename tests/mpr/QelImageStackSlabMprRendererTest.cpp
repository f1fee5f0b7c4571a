#include "mpr/QelImageStackSlabMprRenderer.h"

#include "MprTestVolumes.h"
#include "SlabMprReference.h"
#include "base/QelIsa.h"
#include "base/QelMemoryManager.h"
#include "mpr/imp/QelImageStackSlabMprRendererWorker.h"
#include "support/BaseTestSupport.h"
#include "threaded/QelAborter.h"
#include "support/RealFaults.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <random>
#include <sstream>
#include <string>

namespace {

constexpr std::uint16_t kUndefined = 0xABCD;

// Mismatches between a render and the reference: how many, the first, the largest.
::testing::AssertionResult SameCanvas(const char* actualText, const char* expectedText, const char* /*widthText*/,
                                      const std::vector<std::uint16_t>& actual,
                                      const std::vector<std::uint16_t>& expected, std::int32_t width)
{
    if (actual.size() != expected.size())
        return ::testing::AssertionFailure() << actualText << " has " << actual.size() << " pixels, " << expectedText
                                             << " " << expected.size();
    std::size_t differing = 0;
    std::size_t first = 0;
    int largest = 0;
    for (std::size_t i = 0; i < actual.size(); ++i) {
        if (actual[i] == expected[i])
            continue;
        if (differing++ == 0)
            first = i;
        largest = std::max(largest, std::abs(int{actual[i]} - int{expected[i]}));
    }
    if (differing == 0)
        return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << differing << " of " << actual.size() << " pixels of " << actualText
                                         << " differ from " << expectedText << "; first at (" << first % width << ", "
                                         << first / width << "): " << actual[first] << " instead of "
                                         << expected[first] << "; largest difference " << largest;
}

// One renderer per thread count for the whole suite: drawing many different
// volumes with one renderer is part of what the tests check.
QelImageStackSlabMprRenderer& RendererOf(int threads)
{
    // The renderers give their memory back to the default manager when the process
    // ends, so that manager must be made first and go last.
    static QelMemoryManager* const manager = QelMemoryManager::GetDefault();
    static std::unique_ptr<QelImageStackSlabMprRenderer> renderers[4];
    std::unique_ptr<QelImageStackSlabMprRenderer>& renderer = renderers[threads];
    if (!renderer)
        renderer = QelImageStackSlabMprRenderer::New(manager, threads);
    return *renderer;
}

std::vector<std::uint16_t> Reference(const QelImageStack& stack, const QelRenderSpec& spec)
{
    const QelRasterImage& canvas = *spec.Canvas();
    return SlabMprReference(stack, spec.SlabCenterTransform(), spec.SlabMode(), spec.SampleSliceNumber(),
                            spec.CurrSliceSpacing(), spec.UndefinedPixelVal().AsUnsigned16())
        .Render(canvas.XRange(), canvas.YRange());
}

// ---------------------------------------------------------------------------------
// Random volumes, views and slabs against the reference.

struct RandomCase {
    std::unique_ptr<QelImageStack> stack;
    std::unique_ptr<QelMemoryRasterImage> canvas;
    QelRenderSpec spec;
    std::string description;
};

class RandomCases {
public:
    explicit RandomCases(unsigned seed) : m_rng(seed) {}

    void Make(RandomCase& c)
    {
        std::ostringstream text;
        const std::int32_t width = Int(2, 40);
        const std::int32_t height = Int(2, 40);
        const std::int32_t slices = Chance(0.15) ? Int(2, 4) : Int(2, 70);
        const bool isSigned = Chance(0.5);
        const bool even = Chance(0.5);
        std::vector<float> zs{Real(-5.0f, 5.0f)};
        const float evenGap = Chance(0.5) ? 1.0f : Real(0.3f, 3.0f);
        for (std::int32_t k = 1; k < slices; ++k)
            zs.push_back(zs.back() + (even ? evenGap : Real(0.2f, 3.0f)));
        std::optional<std::int32_t> padding;
        if (Chance(0.5))
            // The smooth data cross -1500 or 2000 often, so that interpolated values
            // equal the padding value without a padded corner now and then.
            padding = isSigned ? Pick<std::int32_t>({-32768, -1024, 0, 32767, -1500})
                               : Pick<std::int32_t>({0, 65535, 4000, 2000});
        text << width << "x" << height << "x" << slices << (isSigned ? " signed" : " unsigned")
             << (even ? " even" : " uneven") << (padding ? " padding " + std::to_string(*padding) : "");

        std::vector<std::uint16_t> voxels(static_cast<std::size_t>(width) * height * slices);
        const float base = isSigned ? -1500.0f : 2000.0f;
        for (std::size_t i = 0; i < voxels.size(); ++i) {
            const auto x = static_cast<std::int32_t>(i % width);
            const auto y = static_cast<std::int32_t>(i / width % height);
            const auto k = static_cast<std::int32_t>(i / width / height);
            const float smooth =
                base + 900.0f * std::sin(0.4f * x + 0.1f * k) + 700.0f * std::cos(0.3f * y) + 40.0f * k;
            auto value = static_cast<std::int32_t>(smooth) + Int(-200, 200);
            const double roll = Real(0.0f, 1.0f);
            if (roll < 0.05)
                value = Pick<std::int32_t>({0, 0xFFFF, 0x8000, 0x7FFF, 1});
            else if (roll < 0.08)
                value = Int(0, 0xFFFF);
            else if (roll < 0.11 && padding)
                value = *padding;
            voxels[i] = static_cast<std::uint16_t>(value);
        }
        c.stack = MakeStack(
            width, height, zs, isSigned,
            [&](std::int32_t x, std::int32_t y, std::int32_t k) {
                return voxels[(static_cast<std::size_t>(k) * height + y) * width + x];
            },
            padding);

        const std::int32_t canvasWidth = Int(1, 75);
        const std::int32_t canvasHeight = Int(1, 70);
        const std::int32_t left = Chance(0.2) ? Int(-20, 20) : 0;
        const std::int32_t top = Chance(0.2) ? Int(-20, 20) : 0;
        c.canvas = MakeCanvas({left, left + canvasWidth - 1}, {top, top + canvasHeight - 1});
        text << "; canvas " << canvasWidth << "x" << canvasHeight << " at (" << left << ", " << top << ")";

        const float cx = left + 0.5f * canvasWidth;
        const float cy = top + 0.5f * canvasHeight;
        const float midZ = 0.5f * (zs.front() + zs.back());
        // Mostly views that cross the volume with a margin around it, sometimes views
        // that graze or miss it.
        const float reach = Chance(0.9) ? 0.3f : 0.7f;
        QelVector3 centre{Real(0.5f - reach, 0.5f + reach) * width, Real(0.5f - reach, 0.5f + reach) * height,
                          midZ + Real(-reach, reach) * (zs.back() - zs.front())};
        const float meanGap = (zs.back() - zs.front()) / static_cast<float>(slices - 1);
        // A pixel size at which the canvas spans about the volume.
        const float fit =
            static_cast<float>(std::max(width, height)) / static_cast<float>(std::max(canvasWidth, canvasHeight));
        auto pixelSize = [&] { return Chance(0.15) ? Real(0.3f, 1.6f) : fit * Real(0.5f, 1.2f); };
        QelVector3 across, down, normal;
        switch (Int(0, 3)) {
        case 0: {  // oblique
            const float s = pixelSize();
            normal = Unit({Real(-1, 1), Real(-1, 1), Real(-1, 1)});
            across = Unit(Orthogonal(normal, {Real(-1, 1), Real(-1, 1), Real(-1, 1)})) * s;
            down = Unit(normal.Cross(across)) * s;
            text << "; oblique";
            break;
        }
        case 1: {  // in the plane of the slices, turned
            const float angle = Real(0.0f, 6.2831853f);
            const float s = Chance(0.3) ? 1.0f : pixelSize();
            across = QelVector3{std::cos(angle), std::sin(angle), 0.0f} * s;
            down = QelVector3{-std::sin(angle), std::cos(angle), 0.0f} * s;
            normal = {0.0f, 0.0f, 1.0f};
            text << "; in-slice " << angle;
            break;
        }
        case 2: {  // along the axes: axial, coronal or sagittal, flipped or not
            const float s = Pick<float>({0.5f, 1.0f, 1.25f, pixelSize()});
            const float flip = Chance(0.5) ? -1.0f : 1.0f;
            const QelVector3 xAxis{s * flip, 0.0f, 0.0f};
            const QelVector3 yAxis{0.0f, s, 0.0f};
            const QelVector3 zAxis{0.0f, 0.0f, meanGap * s};
            switch (Int(0, 2)) {
            case 0:
                across = xAxis;
                down = yAxis;
                normal = {0.0f, 0.0f, 1.0f};
                text << "; axial";
                break;
            case 1:
                across = xAxis;
                down = zAxis;
                normal = {0.0f, 1.0f, 0.0f};
                text << "; coronal";
                break;
            default:
                across = {0.0f, s * flip, 0.0f};
                down = zAxis;
                normal = {1.0f, 0.0f, 0.0f};
                text << "; sagittal";
                break;
            }
            break;
        }
        default: {  // axial on whole voxels, on a slice or between two
            across = {1.0f, 0.0f, 0.0f};
            down = {0.0f, 1.0f, 0.0f};
            normal = {0.0f, 0.0f, 1.0f};
            const auto k = static_cast<std::size_t>(Int(0, slices - 1));
            centre = {std::floor(centre.X()), std::floor(centre.Y()),
                      Chance(0.6) ? zs[k] : 0.5f * (zs[k] + zs[std::min(k + 1, zs.size() - 1)])};
            text << "; axial on voxels at z " << centre.Z();
            break;
        }
        }
        const QelMatrix34 view = ViewThrough(centre, std::floor(cx), std::floor(cy), across, down, normal);

        const std::int32_t samples = Chance(0.2) ? 1 : Chance(0.1) ? 18 : Int(1, 40);
        const float spacing = Chance(0.1) ? 0.0f : Chance(0.2) ? 1.0f : Real(0.1f, 2.5f);
        const auto mode = static_cast<QelSlabMode::QelSlabModeEnum>(Chance(0.05) ? 7 : Int(0, 2));
        const auto undefined = static_cast<std::uint16_t>(Int(0, 0xFFFF));
        FillSpec(c.spec, c.canvas.get(), view, mode, samples, spacing, undefined);
        text << "; mode " << mode << ", " << samples << " samples " << spacing << " apart";
        c.description = text.str();
    }

private:
    std::int32_t Int(std::int32_t low, std::int32_t high)
    {
        return std::uniform_int_distribution<std::int32_t>(low, high)(m_rng);
    }
    float Real(float low, float high) { return std::uniform_real_distribution<float>(low, high)(m_rng); }
    bool Chance(double p) { return std::bernoulli_distribution(p)(m_rng); }
    template <class T>
    T Pick(std::initializer_list<T> values)
    {
        return *(values.begin() + Int(0, static_cast<std::int32_t>(values.size()) - 1));
    }
    static QelVector3 Unit(const QelVector3& v) { return v * (1.0f / std::sqrt(v.Dot(v))); }
    static QelVector3 Orthogonal(const QelVector3& unit, const QelVector3& v) { return v - unit * unit.Dot(v); }

    std::mt19937 m_rng;
};

unsigned TestSeed()
{
    const char* text = std::getenv("AX_TEST_SEED");
    return text ? static_cast<unsigned>(std::strtoul(text, nullptr, 10)) : 20240611u;
}

// Each case draws on 1, 2 or 3 threads, under one of the instruction-set levels,
// in steps or in one Draw; every combination must give the reference's bits.
TEST(QelImageStackSlabMprRendererTest, RandomSlabsMatchThePlainReformatBitForBit)
{
    const unsigned seed = TestSeed();
    SCOPED_TRACE("seed " + std::to_string(seed) + " (set AX_TEST_SEED to repeat another)");
    RandomCases cases(seed);
    const std::vector<QelIsa> isas = QelSupportedIsas();
    constexpr int kCases = 200;
    for (int i = 0; i < kCases; ++i) {
        RandomCase c;
        cases.Make(c);
        const int threads = 1 + i % 3;
        const QelIsa isa = isas[static_cast<std::size_t>(i / 3) % isas.size()];
        const bool inSteps = i % 2 == 0;
        SCOPED_TRACE("case " + std::to_string(i) + ": " + c.description + "; " + std::to_string(threads) +
                     " threads, " + QelIsaName(isa) + (inSteps ? ", in steps" : ", in one Draw"));

        const std::vector<std::uint16_t> expected = Reference(*c.stack, c.spec);
        QelImageStackSlabMprRenderer& renderer = RendererOf(threads);
        {
            const QelIsaLimit limit(isa);
            if (inSteps)
                ASSERT_TRUE(RenderInSteps(renderer, c.stack.get(), &c.spec));
            else
                ASSERT_TRUE(renderer.Draw(c.stack.get(), &c.spec));
        }
        EXPECT_EQ(renderer.State(), QelSlabMprState::Finished);
        ASSERT_PRED_FORMAT3(SameCanvas, Pixels(*c.canvas), expected, c.canvas->Width());
    }
}

// ---------------------------------------------------------------------------------
// Where the samples fall.

class SlabSamplesTest : public ::testing::Test {
protected:
    // 6 x 6 voxels on slices at z 0, 1, 2, 3: voxel 1000 (k + 1) + x + 10 y, but
    // slice 1 is all padding.
    static void SetUpTestSuite()
    {
        s_stack = MakeStack(
                      6, 6, {0.0f, 1.0f, 2.0f, 3.0f}, false,
                      [](std::int32_t x, std::int32_t y, std::int32_t k) {
                          return static_cast<std::uint16_t>(k == 1 ? 7 : 1000 * (k + 1) + x + 10 * y);
                      },
                      7)
                      .release();
    }
    static void TearDownTestSuite()
    {
        delete s_stack;
        s_stack = nullptr;
    }

    std::vector<std::uint16_t> AxialPlane(float z, QelSlabMode::QelSlabModeEnum mode = QelSlabMode::MIP,
                                          std::int32_t samples = 1, float spacing = 1.0f)
    {
        auto canvas = MakeCanvas({0, 5}, {0, 5});
        QelRenderSpec spec;
        FillSpec(spec, canvas.get(), AxialView(z), mode, samples, spacing, kUndefined);
        EXPECT_TRUE(RenderInSteps(RendererOf(2), s_stack, &spec));
        return Pixels(*canvas);
    }

    // The picture the slices give when column 5 and row 5 can't be sampled.
    static std::vector<std::uint16_t> Expected(const std::function<std::uint16_t(std::int32_t, std::int32_t)>& inner)
    {
        std::vector<std::uint16_t> pixels;
        for (std::int32_t y = 0; y < 6; ++y)
            for (std::int32_t x = 0; x < 6; ++x)
                pixels.push_back(x == 5 || y == 5 ? kUndefined : inner(x, y));
        return pixels;
    }

    static QelImageStack* s_stack;
};

QelImageStack* SlabSamplesTest::s_stack = nullptr;

TEST_F(SlabSamplesTest, ASampleOnASliceTakesThatSliceAloneTheLastSliceIncluded)
{
    // Slice 1 is padding but lies next to slice 2: a sample on slice 2 reads slice 2 only.
    EXPECT_EQ(AxialPlane(2.0f), Expected([](auto x, auto y) { return static_cast<std::uint16_t>(3000 + x + 10 * y); }));
    EXPECT_EQ(AxialPlane(3.0f), Expected([](auto x, auto y) { return static_cast<std::uint16_t>(4000 + x + 10 * y); }));
    EXPECT_EQ(AxialPlane(0.0f), Expected([](auto x, auto y) { return static_cast<std::uint16_t>(1000 + x + 10 * y); }));
    EXPECT_EQ(AxialPlane(1.0f), Expected([](auto, auto) { return kUndefined; }));
}

TEST_F(SlabSamplesTest, BetweenSlicesBothCountAndAPaddingSliceRemovesTheSample)
{
    EXPECT_EQ(AxialPlane(2.5f), Expected([](auto x, auto y) { return static_cast<std::uint16_t>(3500 + x + 10 * y); }));
    EXPECT_EQ(AxialPlane(1.5f), Expected([](auto, auto) { return kUndefined; }));
    EXPECT_EQ(AxialPlane(-0.5f), Expected([](auto, auto) { return kUndefined; }));
    EXPECT_EQ(AxialPlane(3.25f), Expected([](auto, auto) { return kUndefined; }));
}

TEST_F(SlabSamplesTest, SlabsReduceOnlyTheSamplesThatCount)
{
    // Samples at z 0, 1, 2, 3: z 1 is padding.
    EXPECT_EQ(AxialPlane(1.5f, QelSlabMode::MIP, 4),
              Expected([](auto x, auto y) { return static_cast<std::uint16_t>(4000 + x + 10 * y); }));
    EXPECT_EQ(AxialPlane(1.5f, QelSlabMode::MINIP, 4),
              Expected([](auto x, auto y) { return static_cast<std::uint16_t>(1000 + x + 10 * y); }));
    // The mean of the three that count, not of all four.
    EXPECT_EQ(AxialPlane(1.5f, QelSlabMode::AVIP, 4),
              Expected([](auto x, auto y) { return static_cast<std::uint16_t>((8000 + 3 * (x + 10 * y)) / 3); }));
    // Two samples on one point: the mean is that point.
    EXPECT_EQ(AxialPlane(2.0f, QelSlabMode::AVIP, 2, 0.0f),
              Expected([](auto x, auto y) { return static_cast<std::uint16_t>(3000 + x + 10 * y); }));
}

TEST(QelImageStackSlabMprRendererTest, AHeldValueEqualToThePaddingValueGivesWay)
{
    // Slices of 90, 110 and 50: z 0.5 interpolates to 100 from corners that are no
    // padding, and z 1.5 to 80. With 100 as the padding value the 80 replaces it,
    // though it is lower; without padding the 100 is a value like any other.
    for (const bool padded : {true, false}) {
        auto stack = MakeStack(
            4, 4, {0.0f, 1.0f, 2.0f}, false,
            [](auto, auto, auto k) { return static_cast<std::uint16_t>(k == 0 ? 90 : k == 1 ? 110 : 50); },
            padded ? std::optional<std::int32_t>(100) : std::nullopt);
        auto canvas = MakeCanvas({0, 3}, {0, 3});
        QelRenderSpec spec;
        FillSpec(spec, canvas.get(), AxialView(1.0f), QelSlabMode::MIP, 2, 1.0f, kUndefined);
        ASSERT_TRUE(RenderInSteps(RendererOf(1), stack.get(), &spec));
        EXPECT_EQ(PixelAt(*canvas, 1, 1), padded ? 80 : 100);
        EXPECT_PRED_FORMAT3(SameCanvas, Pixels(*canvas), Reference(*stack, spec), 4);
    }
}

TEST(QelImageStackSlabMprRendererTest, SlicesWhoseFixedZCoincideDivideByNothing)
{
    // The gap 0 to 1e-6 is far below one step of the fixed scale (largest gap 8).
    auto stack = MakeStack(4, 4, {0.0f, 1e-6f, 8.0f}, false,
                           [](auto x, auto, auto k) { return static_cast<std::uint16_t>(100 * k + x); });
    ASSERT_EQ(stack->FixedPointAccelerator()->Record(0).FixedZ, stack->FixedPointAccelerator()->Record(1).FixedZ);
    for (const float z : {0.0f, 4.0f}) {
        auto canvas = MakeCanvas({0, 3}, {0, 3});
        QelRenderSpec spec;
        FillSpec(spec, canvas.get(), AxialView(z), QelSlabMode::MIP, 1, 1.0f, kUndefined);
        ASSERT_TRUE(RenderInSteps(RendererOf(1), stack.get(), &spec));
        EXPECT_PRED_FORMAT3(SameCanvas, Pixels(*canvas), Reference(*stack, spec), 4);
    }
}

TEST(QelImageStackSlabMprRendererTest, PlanesThatMissTheVolumeAreUndefined)
{
    auto stack =
        MakeStack(8, 8, {0.0f, 1.0f, 2.0f}, false, [](auto x, auto, auto) { return static_cast<std::uint16_t>(x); });
    const QelMatrix34 views[] = {
        AxialView(40.0f),
        ViewThrough({900.0f, 3.0f, 1.0f}, 0.0f, 0.0f, {0.6f, 0.8f, 0.0f}, {0.0f, 0.6f, 0.8f}, {0.8f, -0.36f, 0.48f}),
    };
    for (const QelMatrix34& view : views) {
        auto canvas = MakeCanvas({0, 40}, {0, 20});
        QelRenderSpec spec;
        FillSpec(spec, canvas.get(), view, QelSlabMode::AVIP, 5, 1.0f, kUndefined);
        ASSERT_TRUE(RenderInSteps(RendererOf(2), stack.get(), &spec));
        EXPECT_EQ(Pixels(*canvas), std::vector<std::uint16_t>(41 * 21, kUndefined));
    }
}

// ---------------------------------------------------------------------------------
// How the work is cut.

TEST(QelSlabMprTilingTest, ChunksShareAShortRemainderEvenly)
{
    struct Case {
        std::int32_t first, last, chunk, end;
    };
    const Case cases[] = {
        {0, 17, 16, 8},    // 18 samples: 0..8 and 9..17, not 0..15 and 16..17
        {9, 17, 16, 17},
        {0, 15, 16, 15},   // one full chunk
        {0, 23, 16, 15},   // 8 left: half a chunk is no tiny chunk
        {0, 16, 16, 8},
        {0, 0, 16, 0},
        {32, 40, 32, 40},
        {0, 40, 32, 20},   // 9 left of a 32 chunk
    };
    for (const Case& c : cases)
        EXPECT_EQ(QelSlabChunkEnd(c.first, c.last, c.chunk), c.end) << c.first << ".." << c.last << " by " << c.chunk;
}

TEST(QelSlabMprTilingTest, BandsCoverTheRowsOnce)
{
    EXPECT_EQ(QelSlabBands({0, 49}, 16), QelIntRange(0, 3));
    EXPECT_EQ(QelSlabBandRows(3, {0, 49}, 16), QelIntRange(48, 49));
    EXPECT_EQ(QelSlabBands({-5, 20}, 16), QelIntRange(-1, 1));
    EXPECT_EQ(QelSlabBandRows(-1, {-5, 20}, 16), QelIntRange(-5, -1));
    EXPECT_EQ(QelSlabBandRows(0, {5, 20}, 16), QelIntRange(5, 15));
    EXPECT_TRUE(QelSlabBandRows(2, {5, 20}, 16).IsEmpty());
    EXPECT_TRUE(QelSlabBands(QelIntRange::Empty(), 16).IsEmpty());
}

TEST(QelSlabMprTilingTest, TilesFollowHowTheCanvasRowRunsThroughMemory)
{
    const QelMatrix34 axial = AxialView(1.0f);
    const QelMatrix34 sagittal =
        ViewThrough({0.0f, 0.0f, 0.0f}, 0.0f, 0.0f, {0.0f, 1.0f, 0.0f}, {0.0f, 0.0f, 1.0f}, {1.0f, 0.0f, 0.0f});
    const QelMatrix34 turned =
        ViewThrough({0.0f, 0.0f, 0.0f}, 0.0f, 0.0f, {0.6f, 0.8f, 0.0f}, {-0.8f, 0.6f, 0.0f}, {0.0f, 0.0f, 1.0f});
    EXPECT_EQ(QelSlabMprTiling::ForView(axial).TileWidth, 64);
    EXPECT_EQ(QelSlabMprTiling::ForView(axial).SampleChunk, 16);
    EXPECT_EQ(QelSlabMprTiling::ForView(sagittal).TileWidth, 16);
    EXPECT_EQ(QelSlabMprTiling::ForView(sagittal).SampleChunk, 32);
    EXPECT_EQ(QelSlabMprTiling::ForView(turned).TileWidth, 32);
    EXPECT_EQ(QelSlabMprTiling::ForView(QelMatrix34::Zero()).TileWidth, 32);
}

// ---------------------------------------------------------------------------------
// The draw's states, stepping and aborting.

class SlabDrawTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        m_stack = MakeStack(20, 20, {0.0f, 1.0f, 2.5f}, false,
                            [](auto x, auto y, auto k) { return static_cast<std::uint16_t>(300 * k + 7 * x + y); });
    }
    void Prepare(const QelIntRange& columns, const QelIntRange& rows)
    {
        m_canvas = MakeCanvas(columns, rows);
        const QelMatrix34 view = ViewThrough({10.0f, 10.0f, 1.2f}, 0.0f, 150.0f, {0.05f, 0.02f, 0.01f},
                                             {0.01f, 0.06f, 0.004f}, {0.1f, -0.2f, 1.0f});
        FillSpec(m_spec, m_canvas.get(), view, QelSlabMode::MIP, 3, 0.5f, kUndefined);
    }

    std::unique_ptr<QelImageStack> m_stack;
    std::unique_ptr<QelMemoryRasterImage> m_canvas;
    QelRenderSpec m_spec;
};

TEST_F(SlabDrawTest, AnAbortBetweenStepsLeavesTheBandsNotStartedUntouched)
{
    // 19 bands: the first step draws bands 0 to 15, rows 0 to 255.
    Prepare({0, 39}, {0, 299});
    const std::vector<std::uint16_t> expected = Reference(*m_stack, m_spec);
    auto renderer = QelImageStackSlabMprRenderer::New(nullptr, 2);
    ASSERT_TRUE(renderer->StartDraw(m_stack.get(), &m_spec));
    EXPECT_EQ(renderer->State(), QelSlabMprState::Running);
    ASSERT_TRUE(renderer->Step());
    EXPECT_FALSE(renderer->IsDone());
    EXPECT_DOUBLE_EQ(renderer->GetProgress()->Fraction(), 16.0 / 19.0);
    renderer->Abort();
    EXPECT_EQ(renderer->State(), QelSlabMprState::Idle);

    const std::vector<std::uint16_t> pixels = Pixels(*m_canvas);
    const std::size_t drawn = 256 * 40;
    EXPECT_TRUE(std::equal(pixels.begin(), pixels.begin() + drawn, expected.begin()));
    EXPECT_TRUE(std::all_of(pixels.begin() + drawn, pixels.end(), [](std::uint16_t p) { return p == 0xBEEF; }));

    // The renderer starts afresh after the abort.
    ASSERT_TRUE(RenderInSteps(*renderer, m_stack.get(), &m_spec));
    EXPECT_PRED_FORMAT3(SameCanvas, Pixels(*m_canvas), expected, 40);
}

TEST_F(SlabDrawTest, StepsRunTheBandsThenOneStepEndsTheDraw)
{
    Prepare({0, 10}, {0, 20});
    auto renderer = QelImageStackSlabMprRenderer::New(nullptr, 1);
    EXPECT_FALSE(renderer->Step());  // nothing started
    ASSERT_TRUE(renderer->StartDraw(m_stack.get(), &m_spec));
    ASSERT_TRUE(renderer->Step());
    EXPECT_EQ(renderer->State(), QelSlabMprState::BandsDone);
    EXPECT_FALSE(renderer->IsDone());
    ASSERT_TRUE(renderer->Step());
    EXPECT_EQ(renderer->State(), QelSlabMprState::Finished);
    EXPECT_TRUE(renderer->IsDone());
    EXPECT_FALSE(renderer->HasFailed());
    char text[64] = "untouched";
    EXPECT_FALSE(renderer->GetErrorText(text, sizeof text));
    EXPECT_STREQ(text, "untouched");
    EXPECT_PRED_FORMAT3(SameCanvas, Pixels(*m_canvas), Reference(*m_stack, m_spec), 11);
}

TEST_F(SlabDrawTest, ARunningDrawMustBeAbortedBeforeTheNextStart)
{
    Prepare({0, 10}, {0, 20});
    auto renderer = QelImageStackSlabMprRenderer::New(nullptr, 1);
    ASSERT_TRUE(renderer->StartDraw(m_stack.get(), &m_spec));
    const CaughtReport report = CatchReport<QelThrowBugHandler::QelBacktraceException>(
        [&] { (void)renderer->StartDraw(m_stack.get(), &m_spec); });
    EXPECT_EQ(report.text,
              "QelImageStackSlabMprRendererImp::StartDraw()\nPlease call Abort() before Draw() or StartDraw()\n");
    EXPECT_EQ(renderer->State(), QelSlabMprState::Running);
    renderer->Abort();
    EXPECT_TRUE(renderer->Draw(m_stack.get(), &m_spec));
    EXPECT_EQ(renderer->State(), QelSlabMprState::Finished);
}

TEST_F(SlabDrawTest, TheRecordsAborterEndsTheDrawWithNoPicture)
{
    Prepare({0, 10}, {0, 20});
    QelAborter aborter(false);
    m_spec.SetAborter(&aborter);
    auto renderer = QelImageStackSlabMprRenderer::New(nullptr, 2);
    ASSERT_TRUE(renderer->StartDraw(m_stack.get(), &m_spec));
    aborter.Abort();
    EXPECT_TRUE(renderer->Step());
    EXPECT_EQ(renderer->State(), QelSlabMprState::NoPicture);
    EXPECT_TRUE(renderer->IsDone());
    EXPECT_EQ(Pixels(*m_canvas), std::vector<std::uint16_t>(11 * 21, 0xBEEF));
    EXPECT_FALSE(renderer->Draw(m_stack.get(), &m_spec));
}

TEST_F(SlabDrawTest, WithoutTwoSlicesTheCanvasIsUndefinedAndTheDrawIsDone)
{
    Prepare({0, 10}, {0, 20});
    auto single = MakeStack(20, 20, {0.0f}, false, [](auto, auto, auto) { return std::uint16_t{5}; });
    auto renderer = QelImageStackSlabMprRenderer::New(nullptr, 2);
    ASSERT_TRUE(renderer->StartDraw(single.get(), &m_spec));
    EXPECT_EQ(renderer->State(), QelSlabMprState::NoPicture);
    EXPECT_TRUE(renderer->IsDone());
    EXPECT_EQ(Pixels(*m_canvas), std::vector<std::uint16_t>(11 * 21, kUndefined));
    // Draw answers whether there is a picture.
    EXPECT_FALSE(renderer->Draw(single.get(), &m_spec));
    EXPECT_FALSE(renderer->StartDraw(nullptr, &m_spec));
}

TEST_F(SlabDrawTest, AnEmptyCanvasFinishesAtOnce)
{
    Prepare({0, 10}, {0, 20});
    auto empty = QelMemoryRasterImage::New(nullptr);
    std::uint8_t byte = 0;
    empty->SetBuffer(0, 0, 2, 0, &byte, false);
    m_spec.SetCanvas(empty.get());
    auto renderer = QelImageStackSlabMprRenderer::New(nullptr, 2);
    ASSERT_TRUE(renderer->StartDraw(m_stack.get(), &m_spec));
    EXPECT_EQ(renderer->State(), QelSlabMprState::Finished);
    EXPECT_TRUE(renderer->IsDone());
    EXPECT_TRUE(renderer->Draw(m_stack.get(), &m_spec));
}

TEST_F(SlabDrawTest, WhatTheRendererDoesNotDrawIsABugReport)
{
    Prepare({0, 10}, {0, 20});
    auto renderer = QelImageStackSlabMprRenderer::New(nullptr, 1);
    auto reportOf = [&](QelRenderSpec& spec) {
        return CatchReport<QelThrowBugHandler::QelBacktraceException>(
                   [&] { (void)renderer->StartDraw(m_stack.get(), &spec); })
            .text;
    };
    m_spec.SetSupersamplingFactorXY(2);
    EXPECT_EQ(reportOf(m_spec), "XY supersampling in this renderer not supported");
    m_spec.SetSupersamplingFactorXY(1);

    auto bytes = QelMemoryRasterImage::New(nullptr);
    ASSERT_TRUE(bytes->Resize(1, {0, 3}, {0, 3}));
    m_spec.SetCanvas(bytes.get());
    EXPECT_EQ(reportOf(m_spec), "QelImageStackSlabMprRendererImp::StartDraw()\nCanvas of 1 bytes per pixel not "
                                "supported: only 2 bytes per pixel\n");

    QelRenderSpec unset;
    unset.SetCanvas(m_canvas.get());
    unset.SetUndefinedPixelVal(QelPixelVariant::SixteenBitGrey(kUndefined));
    EXPECT_EQ(reportOf(unset), "QelRenderSpec::SlabCenterTransform not set");
    EXPECT_EQ(renderer->State(), QelSlabMprState::Idle);
}

// A slice whose memory is gone faults a worker; the draw then fails and says what
// the stack finds wrong with itself.
TEST(QelImageStackSlabMprRendererTest, AWorkerFaultFailsTheStepWithTheStacksVerdict)
{
    auto stack = MakeStack(16, 16, {0.0f}, false, [](auto, auto, auto) { return std::uint16_t{1}; });
    auto gone = QelMemoryRasterImage::New(nullptr);
    gone->SetBuffer(16, 16, 2, 32, const_cast<std::uint8_t*>(reinterpret_cast<volatile std::uint8_t*>(ForbiddenPage())),
                    false);
    ASSERT_TRUE(stack->InsertImage(gone.release(), 1.0f, true, false));
    auto canvas = MakeCanvas({0, 15}, {0, 15});
    QelRenderSpec spec;
    FillSpec(spec, canvas.get(), AxialView(0.5f), QelSlabMode::AVIP, 1, 1.0f, kUndefined);
    auto renderer = QelImageStackSlabMprRenderer::New(nullptr, 2);
    EXPECT_FALSE(RenderInSteps(*renderer, stack.get(), &spec));
    char text[256] = {};
    ASSERT_TRUE(renderer->GetErrorText(text, sizeof text));
    EXPECT_NE(std::string(text).find("Invalid Image pointer in Image Stack (slice=1)"), std::string::npos) << text;
    EXPECT_FALSE(renderer->HasFailed());
    renderer->Abort();
}

}  // namespace
