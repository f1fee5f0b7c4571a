#include "mpr/QelImageStackSlabMprRendererHelper.h"

#include "SlabTestStack.h"
#include "base/QelIsa.h"
#include "base/QelMatrix34.h"
#include "graphics/QelRenderEnums.h"
#include "image_stack/QelImageStackFixedPointAccelerator.h"
#include "mpr/imp/QelImageStackSlabMprRendererHelperImp.h"
#include "mpr/imp/QelSlabSample.h"

#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <cstdint>
#include <functional>
#include <memory>
#include <random>
#include <string>
#include <vector>

namespace {

constexpr std::int32_t kMip = QelSlabMode::MIP;
constexpr std::int32_t kMinip = QelSlabMode::MINIP;
constexpr std::int32_t kAvip = QelSlabMode::AVIP;

QelFixedPoint3 Add(const QelFixedPoint3& a, const QelFixedPoint3& b, std::int32_t times = 1)
{
    const auto wrap = [](std::int32_t u, std::int32_t v, std::int32_t n) {
        return static_cast<std::int32_t>(static_cast<std::uint32_t>(u) +
                                         static_cast<std::uint32_t>(v) * static_cast<std::uint32_t>(n));
    };
    return {wrap(a.X, b.X, times), wrap(a.Y, b.Y, times), wrap(a.Z, b.Z, times)};
}

std::unique_ptr<QelSlabHelperBase> NewHelper(const QelImageStack& stack, QelRasterImage& target,
                                             QelRasterImage& flags, const QelMatrix34& view, std::int32_t mode,
                                             std::int32_t samples = 1, float spacing = 1.0f, bool direct = false)
{
    std::unique_ptr<QelImageStackSlabMprRendererHelper> helper = QelImageStackSlabMprRendererHelper::New(
        nullptr, stack, &target, &flags, view, mode, samples - 1, spacing, 16, 32, 16, direct);
    return std::unique_ptr<QelSlabHelperBase>(static_cast<QelSlabHelperBase*>(helper.release()));
}

// ---------------------------------------------------------------------------------
// Single samples at hand-made fixed positions, on every level and both paths.

struct Taken {
    std::uint32_t value = 0;  // held value, or sum
    std::uint32_t flag = 0;   // flag, or count
    bool operator==(const Taken&) const = default;
};

void PrintTo(const Taken& t, std::ostream* os)
{
    *os << "{value " << t.value << ", flag " << t.flag << "}";
}

class SlabSampleTest : public ::testing::Test {
protected:
    // Runs the samples `at` (sample 0 first) into one pixel whose accumulator starts
    // at `start` and checks that every level and path agrees; returns their result.
    Taken Take(const QelImageStack& stack, std::int32_t mode, const std::vector<QelFixedPoint3>& at,
               Taken start = {})
    {
        const bool sum = mode == kAvip;
        std::optional<Taken> agreed;
        for (QelIsa isa : QelSupportedIsas()) {
            const QelIsaLimit limit(isa);
            for (bool general : {false, true}) {
                SCOPED_TRACE(std::string(QelIsaName(isa)) + (general ? " general" : " plane"));
                auto target = MakeSlabImage(sum ? 4 : 2, 1, 1);
                auto flags = MakeSlabImage(sum ? 2 : 1, 1, 1);
                if (sum) {
                    WritePixel<std::uint32_t>(*target, 0, 0, start.value);
                    WritePixel<std::uint16_t>(*flags, 0, 0, static_cast<std::uint16_t>(start.flag));
                } else {
                    WritePixel<std::uint16_t>(*target, 0, 0, static_cast<std::uint16_t>(start.value));
                    WritePixel<std::uint8_t>(*flags, 0, 0, static_cast<std::uint8_t>(start.flag));
                }
                auto helper = NewHelper(stack, *target, *flags, QelMatrix34(), mode, static_cast<std::int32_t>(at.size()));
                EXPECT_TRUE(helper);
                if (!helper)
                    return {};
                helper->SetGeneralPathOnly(general);
                std::int32_t first = 0, later = 0;
                // One call per sample, so that each lands at its own position.
                for (std::size_t s = 0; s < at.size(); ++s)
                    helper->ProcessRow(0, 0, 0, 0, static_cast<std::int32_t>(s), static_cast<std::int32_t>(s), at[s],
                                       at[s], 0, first, later);
                const Taken taken = sum ? Taken{ReadPixel<std::uint32_t>(*target, 0, 0), ReadPixel<std::uint16_t>(*flags, 0, 0)}
                                        : Taken{ReadPixel<std::uint16_t>(*target, 0, 0), ReadPixel<std::uint8_t>(*flags, 0, 0)};
                if (!agreed)
                    agreed = taken;
                EXPECT_EQ(taken, *agreed);
            }
        }
        return agreed.value_or(Taken{});
    }

    static std::int32_t FixedZ(const QelImageStack& stack, std::int32_t slice)
    {
        return stack.FixedPointAccelerator()->Record(slice).FixedZ;
    }
};

// Slices at z 0, 1, 2 of constant value 1000 * (slice + 1); slice `paddedSlice`
// holds only the padding value 7.
std::unique_ptr<QelImageStack> ThreeSlices(std::int32_t paddedSlice)
{
    SlabStackShape shape;
    shape.zs = {0.0f, 1.0f, 2.0f};
    shape.padding = 7;
    return MakeSlabStack(shape, [=](std::int32_t, std::int32_t, std::int32_t slice) {
        return static_cast<std::uint16_t>(slice == paddedSlice ? 7 : 1000 * (slice + 1));
    });
}

TEST_F(SlabSampleTest, SampleOnASliceReadsThatSliceAlone)
{
    const auto stack = ThreeSlices(1);
    const std::int32_t x = 65536 + 1234, y = 2 * 65536;
    // On slice 0 the padded slice 1 is not read; between them it is.
    EXPECT_EQ(Take(*stack, kMip, {{x, y, FixedZ(*stack, 0)}}), (Taken{1000, 1}));
    EXPECT_EQ(Take(*stack, kMip, {{x, y, FixedZ(*stack, 0) + 1}}), (Taken{0, 0}));
    // On the last slice too, and just above it nothing.
    EXPECT_EQ(Take(*stack, kMip, {{x, y, FixedZ(*stack, 2)}}), (Taken{3000, 1}));
    EXPECT_EQ(Take(*stack, kMip, {{x, y, FixedZ(*stack, 2) + 1}}), (Taken{0, 0}));
    EXPECT_EQ(Take(*stack, kMip, {{x, y, -1}}), (Taken{0, 0}));
}

TEST_F(SlabSampleTest, TopOfAGapBelongsToTheUpperSlice)
{
    // z equal to slice 1's fixed z is on slice 1, not the end of gap 0: the padded
    // slice 0 doesn't drop it.
    const auto stack = ThreeSlices(0);
    EXPECT_EQ(Take(*stack, kAvip, {{65536, 65536, FixedZ(*stack, 1)}}), (Taken{2000, 1}));
    EXPECT_EQ(Take(*stack, kAvip, {{65536, 65536, FixedZ(*stack, 1) - 1}}), (Taken{0, 0}));
}

TEST_F(SlabSampleTest, UnevenGapsInterpolateByTheirOwnWidth)
{
    // z 0, 1, 3: the wider gap sets the scale, so fixed z are 0, 32768, 98304.
    SlabStackShape shape;
    shape.zs = {0.0f, 1.0f, 3.0f};
    const auto stack = MakeSlabStack(shape, [](std::int32_t, std::int32_t, std::int32_t slice) {
        return static_cast<std::uint16_t>(std::array{0, 1000, 3000}[slice]);
    });
    ASSERT_EQ(FixedZ(*stack, 1), 32768);
    ASSERT_EQ(FixedZ(*stack, 2), 98304);
    EXPECT_EQ(Take(*stack, kMip, {{0, 0, 16384}}).value, 500u);  // halfway through the narrow gap
    EXPECT_EQ(Take(*stack, kMip, {{0, 0, 65536}}).value, 2000u);  // halfway through the wide one
    EXPECT_EQ(Take(*stack, kMip, {{0, 0, 32768 + 16384}}).value, 1500u);
}

TEST_F(SlabSampleTest, SlicesAtOneFixedZNeverDivideByZero)
{
    // The scale comes from the gap of 1000, so z 1000 and 1000.001 share fixed z 65536;
    // a sample there takes the upper of the two, one just below takes gap 0.
    SlabStackShape shape;
    shape.zs = {0.0f, 1000.0f, 1000.001f, 2000.0f};
    const auto stack = MakeSlabStack(shape, [](std::int32_t, std::int32_t, std::int32_t slice) {
        return static_cast<std::uint16_t>(std::array{0, 1000, 2000, 3000}[slice]);
    });
    ASSERT_EQ(FixedZ(*stack, 1), FixedZ(*stack, 2));
    const std::int32_t z = FixedZ(*stack, 1);
    EXPECT_EQ(Take(*stack, kMip, {{0, 0, z}}), (Taken{2000, 1}));
    const QelSlabWeights below = QelSlabCornerWeights(0, 0, QelSlabZFraction(65536.0f / static_cast<float>(z), z - 1));
    EXPECT_EQ(Take(*stack, kMip, {{0, 0, z - 1}}).value,
              QelSlabValue({0, 0, 0, 0, 1000, 1000, 1000, 1000}, below, 0x8000));
    EXPECT_EQ(Take(*stack, kMip, {{0, 0, z + 1}}).value, 2000u);  // gap 2 just above slice 2
}

TEST_F(SlabSampleTest, PaddingCornerDropsTheSampleAndTheMeanKeepsTheRest)
{
    SlabStackShape shape;
    shape.zs = {0.0f, 1.0f};
    shape.padding = 0xFFFF;
    // One padded voxel at (3, 3) of slice 1, everything else 100 * (slice + 1).
    const auto stack = MakeSlabStack(shape, [](std::int32_t x, std::int32_t y, std::int32_t slice) {
        return static_cast<std::uint16_t>(x == 3 && y == 3 && slice == 1 ? 0xFFFF : 100 * (slice + 1));
    });
    // Sample 0 has (3, 3) of slice 1 as its far corner, with weight next to nothing;
    // sample 1 lies clear of it.
    const QelFixedPoint3 nearPadding{2 * 65536 + 65535, 2 * 65536 + 65535, 65535};
    const QelFixedPoint3 clear{65536, 65536, 32768};
    EXPECT_EQ(Take(*stack, kAvip, {nearPadding, clear}), (Taken{150, 1}));
    EXPECT_EQ(Take(*stack, kAvip, {clear, clear}), (Taken{300, 2}));
    // Every sample dropped: nothing taken, the accumulators stay as they were.
    EXPECT_EQ(Take(*stack, kMinip, {nearPadding, nearPadding}, {0x1234, 0}), (Taken{0x1234, 0}));
}

TEST_F(SlabSampleTest, SignedLowestValueIsTakenThroughTheFlag)
{
    SlabStackShape shape;
    shape.zs = {0.0f, 1.0f};
    shape.isSigned = true;
    const auto stack = MakeSlabStack(shape, [](std::int32_t x, std::int32_t, std::int32_t) {
        return static_cast<std::uint16_t>(x == 0 ? -32768 : -5);
    });
    // The highest projection of signed data starts at 0x8000 (-32768) with the flag clear.
    EXPECT_EQ(Take(*stack, kMip, {{0, 0, 0}}, {0x8000, 0}), (Taken{0x8000, 1}));
    EXPECT_EQ(Take(*stack, kMip, {{0, 0, 0}, {2 * 65536, 0, 0}}, {0x8000, 0}),
              (Taken{static_cast<std::uint16_t>(-5), 1}));
    EXPECT_EQ(Take(*stack, kMinip, {{2 * 65536, 0, 0}, {0, 0, 0}}, {0x7FFF, 0}), (Taken{0x8000, 1}));
}

TEST_F(SlabSampleTest, HeldValueEqualToPaddingIsReplacedOnlyWithPadding)
{
    SlabStackShape shape;
    shape.zs = {0.0f, 1.0f};
    const auto constant = [](std::int32_t, std::int32_t, std::int32_t) { return std::uint16_t{500}; };
    const auto plain = MakeSlabStack(shape, constant);
    EXPECT_EQ(Take(*plain, kMinip, {{0, 0, 0}}, {0, 1}), (Taken{0, 1}));  // a genuine 0 stays lowest
    shape.padding = 0;
    const auto padded = MakeSlabStack(shape, constant);
    EXPECT_EQ(Take(*padded, kMinip, {{0, 0, 0}}, {0, 1}), (Taken{500, 1}));
}

TEST_F(SlabSampleTest, LastColumnAndRowAreNeverSampledOnTheirExactCoordinate)
{
    SlabStackShape shape;
    shape.width = 4;
    shape.height = 3;
    shape.zs = {0.0f, 1.0f};
    const auto stack = MakeSlabStack(shape, [](std::int32_t x, std::int32_t y, std::int32_t) {
        return static_cast<std::uint16_t>(100 * x + 10 * y);
    });
    EXPECT_EQ(Take(*stack, kMip, {{3 * 65536, 65536, 0}}), (Taken{0, 0}));
    EXPECT_EQ(Take(*stack, kMip, {{3 * 65536 - 1, 65536, 0}}), (Taken{310, 1}));
    EXPECT_EQ(Take(*stack, kMip, {{65536, 2 * 65536, 0}}), (Taken{0, 0}));
    EXPECT_EQ(Take(*stack, kMip, {{65536, 2 * 65536 - 1, 0}}), (Taken{120, 1}));
    EXPECT_EQ(Take(*stack, kMip, {{-1, 65536, 0}}), (Taken{0, 0}));
}

TEST_F(SlabSampleTest, JustAboveASliceTheUpperSliceStillCountsForPadding)
{
    // A few fixed units above slice 0 the z fraction is 0, yet the sample lies in the
    // gap and slice 1's padding at column 10 drops the pixels that touch it: a whole
    // row, so that the vector rounds meet it.
    SlabStackShape shape;
    shape.width = 40;
    shape.height = 2;
    shape.zs = {0.0f, 1.0f};
    shape.padding = 9;
    const auto stack = MakeSlabStack(shape, [](std::int32_t x, std::int32_t, std::int32_t slice) {
        return static_cast<std::uint16_t>(slice == 1 && x == 10 ? 9 : 100 + x);
    });
    ASSERT_EQ(QelSlabZFraction(1.0f, 5), 0u);
    for (QelIsa isa : QelSupportedIsas()) {
        const QelIsaLimit limit(isa);
        for (bool general : {false, true}) {
            SCOPED_TRACE(std::string(QelIsaName(isa)) + (general ? " general" : " plane"));
            auto target = MakeSlabImage(2, 40, 1);
            auto flags = MakeSlabImage(1, 40, 1);
            auto helper = NewHelper(*stack, *target, *flags, QelMatrix34(), kMip);
            ASSERT_TRUE(helper);
            helper->SetGeneralPathOnly(general);
            std::int32_t first = 0, later = 0;
            const QelFixedPoint3 p{0, 0, 5};
            helper->ProcessRow(0, 0, 0, 39, 0, 0, p, p, 0, first, later);
            for (std::int32_t x = 0; x < 40; ++x) {
                const bool taken = x != 9 && x != 10 && x != 39;
                EXPECT_EQ(ReadPixel<std::uint8_t>(*flags, x, 0), taken ? 1 : 0) << "x " << x;
                if (taken) {
                    EXPECT_EQ(ReadPixel<std::uint16_t>(*target, x, 0), 100 + x) << "x " << x;
                }
            }
        }
    }
}

// ---------------------------------------------------------------------------------
// The helper's geometry and its contract with the renderer.

class SlabHelperTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        SlabStackShape shape;
        shape.width = 8;
        shape.height = 6;
        shape.zs = {0.0f, 1.0f, 2.0f, 3.0f};
        m_stack = MakeSlabStack(shape, [](std::int32_t x, std::int32_t y, std::int32_t slice) {
            return static_cast<std::uint16_t>(1000 * slice + 10 * y + x);
        });
    }

    std::unique_ptr<QelImageStack> m_stack;
};

TEST_F(SlabHelperTest, MeanNeedsImagesOfItsOwn)
{
    auto target = MakeSlabImage(4, 8, 8);
    auto flags = MakeSlabImage(2, 8, 8);
    EXPECT_FALSE(NewHelper(*m_stack, *target, *flags, QelMatrix34(), kAvip, 1, 1.0f, true));
    EXPECT_TRUE(NewHelper(*m_stack, *target, *flags, QelMatrix34(), kAvip, 1, 1.0f, false));
    // Any mode other than the two extremes is the mean.
    auto helper = NewHelper(*m_stack, *target, *flags, QelMatrix34(), 17);
    EXPECT_TRUE(dynamic_cast<AVIP_Implementation*>(helper.get()));
}

TEST_F(SlabHelperTest, SlabIsCentredOnTheCanvasPlane)
{
    auto target = MakeSlabImage(2, 8, 8);
    auto flags = MakeSlabImage(1, 8, 8);
    // Canvas pixel (x, y) shows volume (x + 0.5, y, 1.5), five samples 0.5 apart along z.
    const QelMatrix34 view = QelMatrix34::Translate(-0.5f, 0.0f, -1.5f);
    auto helper = NewHelper(*m_stack, *target, *flags, view, kMip, 5, 0.5f);
    ASSERT_TRUE(helper);
    const QelFixedPoint3 p = helper->PixelPosition(2, 3);
    EXPECT_EQ(p.X, 2 * 65536 + 32768);
    EXPECT_EQ(p.Y, 3 * 65536);
    EXPECT_EQ(p.Z, 32768);  // 1.5 - 2 * 0.5
    EXPECT_EQ(helper->SlabStep().Z, 32768);
    EXPECT_EQ(helper->RowStep().Y, 65536);
    EXPECT_EQ(helper->XStep().X, 65536);
    EXPECT_TRUE(helper->UsesPlanePath());
}

TEST_F(SlabHelperTest, FarPositionsAreClampedToTheFixedRange)
{
    auto target = MakeSlabImage(2, 8, 8);
    auto flags = MakeSlabImage(1, 8, 8);
    auto helper = NewHelper(*m_stack, *target, *flags, QelMatrix34::Translate(1.0e6f, -1.0e6f, 0.0f), kMip);
    ASSERT_TRUE(helper);
    const QelFixedPoint3 p = helper->PixelPosition(0, 0);
    EXPECT_EQ(p.X, -32768 * 65536);
    EXPECT_EQ(p.Y, 32767 * 65536);
}

TEST_F(SlabHelperTest, BlockTestRejectsOnlyBlocksWhollyOutside)
{
    auto target = MakeSlabImage(2, 8, 8);
    auto flags = MakeSlabImage(1, 8, 8);
    auto helper = NewHelper(*m_stack, *target, *flags, QelMatrix34(), kMip, 4);
    ASSERT_TRUE(helper);
    helper->SetBlockSize(4, 2, 3);  // 5 columns, 3 rows, 4 samples of one slice each
    const std::int32_t z = 0;
    EXPECT_TRUE(helper->BlockTouchesVolume({0, 0, z}));
    // The block reaches 5 columns to the right: from x -5 - 1 voxel it still counts.
    EXPECT_TRUE(helper->BlockTouchesVolume({-6 * 65536, 0, z}));
    EXPECT_FALSE(helper->BlockTouchesVolume({-6 * 65536 - 1, 0, z}));
    EXPECT_TRUE(helper->BlockTouchesVolume({8 * 65536, 0, z}));
    EXPECT_FALSE(helper->BlockTouchesVolume({8 * 65536 + 1, 0, z}));
    EXPECT_FALSE(helper->BlockTouchesVolume({0, 6 * 65536 + 1, z}));
    EXPECT_FALSE(helper->BlockTouchesVolume({0, -4 * 65536 - 1, z}));
    EXPECT_TRUE(helper->BlockTouchesVolume({0, 0, 3 * 65536 + 65536}));
    EXPECT_FALSE(helper->BlockTouchesVolume({0, 0, 3 * 65536 + 65537}));
    EXPECT_FALSE(helper->BlockTouchesVolume({0, 0, -5 * 65536 - 1}));
    EXPECT_TRUE(helper->BlockTouchesVolume({0, 0, -5 * 65536}));
}

TEST_F(SlabHelperTest, DirectTargetIsAddressedByCanvasRow)
{
    auto canvas = MakeSlabImage(2, 8, 8, 0xEE);
    auto flags = MakeSlabImage(1, 8, 2);
    auto helper = NewHelper(*m_stack, *canvas, *flags, QelMatrix34(), kMip, 1, 1.0f, true);
    ASSERT_TRUE(helper);
    std::int32_t first = 0, later = 0;
    const QelFixedPoint3 p = helper->PixelPosition(1, 4);
    helper->ProcessRow(4, 3, 1, 1, 0, 0, p, p, 0, first, later);
    EXPECT_EQ(ReadPixel<std::uint16_t>(*canvas, 1, 4), 41);
    EXPECT_EQ(ReadPixel<std::uint8_t>(*flags, 1, 1), 1);
    EXPECT_EQ(ReadPixel<std::uint16_t>(*canvas, 1, 1), 0xEEEE);
}

TEST_F(SlabHelperTest, SlabEndsOutsideTheStackCountOnlySamplesInside)
{
    auto sums = MakeSlabImage(4, 8, 1);
    auto counts = MakeSlabImage(2, 8, 1);
    // Seven samples one slice apart centred on z 0.5: z -2.5 .. 3.5, three inside.
    const QelMatrix34 view = QelMatrix34::Translate(0.0f, 0.0f, -0.5f);
    auto helper = NewHelper(*m_stack, *sums, *counts, view, kAvip, 7, 1.0f);
    ASSERT_TRUE(helper);
    std::int32_t first = 0, later = 0;
    const QelFixedPoint3 p = helper->PixelPosition(0, 0);
    helper->ProcessRow(0, 0, 0, 7, 0, 6, p, Add(p, helper->SlabStep()), 0, first, later);
    EXPECT_EQ(ReadPixel<std::uint16_t>(*counts, 2, 0), 3);  // z 0.5, 1.5, 2.5
    EXPECT_EQ(ReadPixel<std::uint32_t>(*sums, 2, 0), 500u + 1500u + 2500u + 3 * 2u);
    EXPECT_EQ(ReadPixel<std::uint16_t>(*counts, 7, 0), 0);  // x 7 is the last column
}

// ---------------------------------------------------------------------------------
// Every level and both paths against a plain per-sample body, on random stacks and
// views.

// The pixel's accumulators after the calls, recomputed sample by sample from the
// stack's own images; the slice of a z is found by a linear search.
class ReferenceSlab {
public:
    ReferenceSlab(const QelImageStack& stack, std::int32_t mode) : m_stack(stack), m_mode(mode) {}

    void ProcessRow(QelRasterImage& target, QelRasterImage& flags, std::int32_t y, std::int32_t xFirst,
                    std::int32_t xLast, std::int32_t sFirst, std::int32_t sLast, const QelFixedPoint3& p,
                    const QelFixedPoint3& q, const QelFixedPoint3& xStep, const QelFixedPoint3& slabStep) const
    {
        const std::int32_t laterFirst = std::max(sFirst, 1);
        for (std::int32_t x = xFirst; x <= xLast; ++x) {
            for (std::int32_t s = sFirst; s <= sLast; ++s) {
                const QelFixedPoint3 at = s == 0 ? Add(p, xStep, x - xFirst)
                                                 : Add(Add(q, xStep, x - xFirst), slabStep, s - laterFirst);
                std::uint32_t value = 0;
                if (Sample(at, value))
                    TakeIn(target, flags, x, y, value);
            }
        }
    }

private:
    bool Sample(const QelFixedPoint3& at, std::uint32_t& value) const
    {
        const QelImageStackFixedPointAccelerator& accelerator = *m_stack.FixedPointAccelerator();
        std::int32_t k = -1;
        for (std::int32_t i = 0; i < accelerator.Count(); ++i)
            if (accelerator.Record(i).FixedZ <= at.Z)
                k = i;
        if (k < 0 || at.Z > accelerator.LastFixedZ())
            return false;
        const std::int32_t lowerZ = accelerator.Record(k).FixedZ;
        const bool onSlice = at.Z == lowerZ;
        const QelRasterImage& lower = *m_stack.Records()[k].Image;
        const QelRasterImage& upper = onSlice ? lower : *m_stack.Records()[k + 1].Image;
        const std::uint32_t fz =
            onSlice ? 0 : QelSlabZFraction(65536.0f / static_cast<float>(accelerator.Record(k + 1).FixedZ - lowerZ),
                                           at.Z - lowerZ);
        if (at.X < 0 || std::int64_t{at.X} >= (std::int64_t{m_stack.Width()} - 1) * 65536 || at.Y < 0 ||
            std::int64_t{at.Y} >= (std::int64_t{m_stack.Height()} - 1) * 65536)
            return false;
        const std::int32_t xi = at.X >> 16, yi = at.Y >> 16;
        const std::uint16_t corners[8] = {
            ReadPixel<std::uint16_t>(lower, xi, yi),     ReadPixel<std::uint16_t>(lower, xi + 1, yi),
            ReadPixel<std::uint16_t>(lower, xi, yi + 1), ReadPixel<std::uint16_t>(lower, xi + 1, yi + 1),
            ReadPixel<std::uint16_t>(upper, xi, yi),     ReadPixel<std::uint16_t>(upper, xi + 1, yi),
            ReadPixel<std::uint16_t>(upper, xi, yi + 1), ReadPixel<std::uint16_t>(upper, xi + 1, yi + 1)};
        if (m_stack.HasPadding() && QelSlabTouchesPadding(corners, static_cast<std::uint16_t>(m_stack.PaddingValue())))
            return false;
        value = QelSlabValue(corners, QelSlabCornerWeights(QelSlabFraction(at.X), QelSlabFraction(at.Y), fz),
                             m_stack.IsSigned() ? 0 : 0x8000);
        return true;
    }

    template <typename TPixel, typename TPolicy>
    void TakeExtreme(QelRasterImage& target, QelRasterImage& flags, std::int32_t x, std::int32_t y,
                     std::uint32_t value) const
    {
        auto held = ReadPixel<std::uint16_t>(target, x, y);
        auto flag = ReadPixel<std::uint8_t>(flags, x, y);
        QelSlabTakeExtreme<TPixel, TPolicy>(held, flag, value, m_stack.HasPadding(),
                                            static_cast<std::uint16_t>(m_stack.PaddingValue()));
        WritePixel(target, x, y, held);
        WritePixel(flags, x, y, flag);
    }

    void TakeIn(QelRasterImage& target, QelRasterImage& flags, std::int32_t x, std::int32_t y,
                std::uint32_t value) const
    {
        const bool isSigned = m_stack.IsSigned();
        if (m_mode == kMip && isSigned)
            return TakeExtreme<short, QelMip>(target, flags, x, y, value);
        if (m_mode == kMip)
            return TakeExtreme<unsigned short, QelMip>(target, flags, x, y, value);
        if (m_mode == kMinip && isSigned)
            return TakeExtreme<short, QelMinip>(target, flags, x, y, value);
        if (m_mode == kMinip)
            return TakeExtreme<unsigned short, QelMinip>(target, flags, x, y, value);
        auto sum = ReadPixel<std::uint32_t>(target, x, y);
        auto count = ReadPixel<std::uint16_t>(flags, x, y);
        QelSlabTakeSum(sum, count, value);
        WritePixel(target, x, y, sum);
        WritePixel(flags, x, y, count);
    }

    const QelImageStack& m_stack;
    std::int32_t m_mode;
};

struct RandomCase {
    SlabStackShape shape;
    std::uint16_t paddingShare = 0;  // of 1024 voxels
    QelMatrix34 canvasToVolume;
    std::string view;
    std::int32_t mode = kMip;
    std::int32_t canvasWidth = 1, canvasHeight = 1, samples = 1, chunk = 1, tileWidth = 1;
    float spacing = 1.0f;
};

class SlabPathsTest : public ::testing::Test {
protected:
    std::mt19937 m_random{20240611};

    std::int32_t Uniform(std::int32_t low, std::int32_t high)
    {
        return std::uniform_int_distribution<std::int32_t>(low, high)(m_random);
    }
    float UniformF(float low, float high) { return std::uniform_real_distribution<float>(low, high)(m_random); }

    // Columns: canvas x axis, canvas y axis, slab normal, canvas origin, in voxels.
    static QelMatrix34 Columns(const std::array<float, 3>& x, const std::array<float, 3>& y,
                               const std::array<float, 3>& z, const std::array<float, 3>& origin)
    {
        return QelMatrix34({x[0], y[0], z[0], origin[0], x[1], y[1], z[1], origin[1], x[2], y[2], z[2], origin[2]});
    }

    RandomCase MakeCase()
    {
        RandomCase c;
        c.shape.width = Uniform(2, 24);
        c.shape.height = Uniform(2, 12);
        const std::int32_t slices = Uniform(1, 9);
        const bool even = Uniform(0, 1) == 0;
        float z = UniformF(-3.0f, 3.0f);
        for (std::int32_t k = 0; k < slices; ++k) {
            c.shape.zs.push_back(even ? std::round(z) + float(k) : z);
            z += Uniform(0, 5) == 0 ? UniformF(0.001f, 0.1f) : UniformF(0.3f, 2.5f);
        }
        c.shape.isSigned = Uniform(0, 1) == 0;
        if (Uniform(0, 2) != 0) {
            c.shape.padding = Uniform(0, 3) == 0 ? Uniform(0, 65535) : std::array{0, 0xFFFF, 0x8000, 0x7FFF}[Uniform(0, 3)];
            c.paddingShare = static_cast<std::uint16_t>(Uniform(0, 60));
        }
        if (Uniform(0, 3) == 0)
            for (std::int32_t k = 0; k < slices; ++k)
                c.shape.extraColumns.push_back(Uniform(0, 3));
        c.mode = std::array{kMip, kMinip, kAvip}[Uniform(0, 2)];
        c.canvasWidth = Uniform(1, 45);
        c.canvasHeight = Uniform(1, 4);
        c.samples = Uniform(1, 9);
        c.chunk = Uniform(1, 6);
        c.tileWidth = std::array{1, 3, 8, 16, 32, 64}[Uniform(0, 5)];
        c.spacing = Uniform(0, 2) == 0 ? 1.0f : UniformF(0.0f, 1.5f);

        const float cx = float(c.shape.width) * 0.5f, cy = float(c.shape.height) * 0.5f;
        const float cz = (c.shape.zs.front() + c.shape.zs.back()) * 0.5f;
        const float fraction = Uniform(0, 1) == 0 ? 0.0f : UniformF(0.0f, 1.0f);
        switch (Uniform(0, 5)) {
        case 0: {  // oblique: a random rotation and zoom
            c.view = "oblique";
            std::normal_distribution<float> normal;
            float q[4] = {normal(m_random), normal(m_random), normal(m_random), normal(m_random)};
            const float n = std::sqrt(q[0] * q[0] + q[1] * q[1] + q[2] * q[2] + q[3] * q[3]);
            for (float& v : q)
                v /= n;
            const float w = q[0], a = q[1], b = q[2], d = q[3];
            const float zoom = UniformF(0.3f, 1.5f);
            const std::array<float, 3> x{zoom * (1 - 2 * (b * b + d * d)), zoom * 2 * (a * b + w * d), zoom * 2 * (a * d - w * b)};
            const std::array<float, 3> y{zoom * 2 * (a * b - w * d), zoom * (1 - 2 * (a * a + d * d)), zoom * 2 * (b * d + w * a)};
            const std::array<float, 3> nz{2 * (a * d + w * b), 2 * (b * d - w * a), 1 - 2 * (a * a + b * b)};
            c.canvasToVolume = Columns(x, y, nz, {cx - x[0] * c.canvasWidth / 2 - y[0], cy - x[1] * c.canvasWidth / 2 - y[1],
                                                  cz - x[2] * c.canvasWidth / 2 - y[2]});
            break;
        }
        case 1: {  // axis-aligned, any axis along the canvas rows
            c.view = "axis-aligned";
            const std::int32_t axis = Uniform(0, 2);
            std::array<float, 3> x{0, 0, 0}, y{0, 0, 0}, nz{0, 0, 0};
            x[axis] = Uniform(0, 1) ? 1.0f : 0.5f;
            y[(axis + 1) % 3] = 1.0f;
            nz[(axis + 2) % 3] = 1.0f;
            c.canvasToVolume = Columns(x, y, nz, {std::round(cx) - 3 + fraction, -1.0f + fraction, std::round(cz)});
            break;
        }
        case 2: {  // in the slices, rotated
            c.view = "in-slice";
            const float angle = UniformF(0.0f, 6.3f), zoom = UniformF(0.4f, 1.6f);
            c.canvasToVolume = Columns({zoom * std::cos(angle), zoom * std::sin(angle), 0},
                                       {-zoom * std::sin(angle), zoom * std::cos(angle), 0}, {0, 0, 1},
                                       {cx - 4, cy - 2, c.shape.zs[Uniform(0, slices - 1)] + (Uniform(0, 1) ? 0.0f : 0.25f)});
            break;
        }
        case 3:
        case 4: {  // x step exactly one voxel, on voxels or between them
            c.view = fraction == 0.0f ? "unit step on voxels" : "unit step between voxels";
            // z on a slice, between slices, or a few fixed units above a slice, where
            // the z fraction is 0 but the upper slice is still read.
            const float slice = c.shape.zs[Uniform(0, slices - 1)];
            const float z = std::array{slice, cz, slice + 0.0001f}[Uniform(0, 2)];
            c.canvasToVolume = Columns({1, 0, 0}, {0, 1, 0}, {0, 0, 1},
                                       {float(Uniform(-30, 4)) + fraction, float(Uniform(-2, 2)) + fraction / 2, z});
            break;
        }
        default: {  // one voxel in x and a whole row in y per pixel
            c.view = "unit step climbing rows";
            c.canvasToVolume = Columns({1, float(Uniform(-1, 1)), 0}, {0, 1, 0}, {0, 0, 1},
                                       {float(Uniform(-6, 2)) + fraction, float(Uniform(0, 6)), cz});
            break;
        }
        }
        return c;
    }

    // The renderer's loop over chunks, tiles and rows, with the hints it keeps per row.
    template <class ProcessRow>
    static void Drive(const RandomCase& c, const QelSlabHelperBase& geometry, bool noisyHints, std::mt19937& noise,
                      const ProcessRow& processRow)
    {
        std::vector<std::int32_t> firstHints(c.canvasHeight, 0), laterHints(c.canvasHeight, 0);
        for (std::int32_t s0 = 0; s0 < c.samples;) {
            const std::int32_t s1 = std::min(s0 + c.chunk - 1, c.samples - 1);
            const QelFixedPoint3 offset = Add({}, geometry.SlabStep(), s0 == 0 ? 1 : s0);
            for (std::int32_t x = 0; x < c.canvasWidth; x += c.tileWidth) {
                const std::int32_t xe = std::min(x + c.tileWidth - 1, c.canvasWidth - 1);
                for (std::int32_t y = 0; y < c.canvasHeight; ++y) {
                    const QelFixedPoint3 p = geometry.PixelPosition(x, y);
                    std::int32_t hint = s0 == 0 ? firstHints[y] : laterHints[y];
                    if (noisyHints)
                        hint = static_cast<std::int32_t>(noise()) % 12;
                    std::int32_t first = 0, later = 0;
                    processRow(y, x, xe, s0, s1, p, Add(p, offset), hint, first, later);
                    laterHints[y] = later;
                    if (s0 == 0)
                        firstHints[y] = first;
                }
            }
            s0 = s1 + 1;
        }
    }
};

TEST_F(SlabPathsTest, EveryLevelAndPathMatchesThePlainBody)
{
    const std::vector<QelIsa> isas = QelSupportedIsas();
    int changed = 0;  // cases where the plain body took anything in: the test is not vacuous
    constexpr int kCases = 600;
    for (int n = 0; n < kCases; ++n) {
        const RandomCase c = MakeCase();
        SCOPED_TRACE("case " + std::to_string(n) + ", " + c.view + ", mode " + std::to_string(c.mode));
        const std::uint32_t voxelSeed = m_random();
        const auto stack = MakeSlabStack(c.shape, [&](std::int32_t x, std::int32_t y, std::int32_t slice) {
            std::uint32_t h = voxelSeed ^ (std::uint32_t(x) * 73856093u) ^ (std::uint32_t(y) * 19349663u) ^
                              (std::uint32_t(slice) * 83492791u);
            h = (h ^ (h >> 13)) * 0x5bd1e995u;
            h ^= h >> 15;
            if (c.shape.padding && (h & 1023) < c.paddingShare)
                return static_cast<std::uint16_t>(*c.shape.padding);
            // Extremes often, so that the bias and the compares meet their edges.
            if ((h >> 10) % 8 == 0)
                return std::array<std::uint16_t, 4>{0, 0xFFFF, 0x8000, 0x7FFF}[(h >> 13) & 3];
            return static_cast<std::uint16_t>(h >> 16);
        });
        ASSERT_TRUE(stack->FixedPointAccelerator());
        const bool sum = c.mode == kAvip;
        const std::int32_t targetBytes = sum ? 4 : 2, flagBytes = sum ? 2 : 1;

        // Random starting accumulators, flags included, so that a store without its
        // load, or a flag not tested, shows.
        auto startTarget = MakeSlabImage(targetBytes, c.canvasWidth, c.canvasHeight);
        auto startFlags = MakeSlabImage(flagBytes, c.canvasWidth, c.canvasHeight);
        for (std::int32_t y = 0; y < c.canvasHeight; ++y) {
            for (std::int32_t x = 0; x < c.canvasWidth; ++x) {
                const std::uint32_t r = m_random();
                if (sum) {
                    WritePixel<std::uint32_t>(*startTarget, x, y, r >> 4);
                    WritePixel<std::uint16_t>(*startFlags, x, y, static_cast<std::uint16_t>(r & 7));
                } else if (c.shape.padding && (r & 6) == 0) {
                    // A held padding value is replaced by any sample.
                    WritePixel<std::uint16_t>(*startTarget, x, y, static_cast<std::uint16_t>(*c.shape.padding));
                    WritePixel<std::uint8_t>(*startFlags, x, y, 1);
                } else {
                    WritePixel<std::uint16_t>(*startTarget, x, y, static_cast<std::uint16_t>(r >> 8));
                    WritePixel<std::uint8_t>(*startFlags, x, y, static_cast<std::uint8_t>(r & 1));
                }
            }
        }
        const QelMatrix34 view = c.canvasToVolume.Inverse();

        std::vector<std::uint8_t> expectedTarget, expectedFlags;
        {
            auto target = MakeSlabImage(targetBytes, c.canvasWidth, c.canvasHeight);
            auto flags = MakeSlabImage(flagBytes, c.canvasWidth, c.canvasHeight);
            ASSERT_TRUE(target->Copy(*startTarget) && flags->Copy(*startFlags));
            auto geometry = NewHelper(*stack, *target, *flags, view, c.mode, c.samples, c.spacing);
            ASSERT_TRUE(geometry);
            const ReferenceSlab reference(*stack, c.mode);
            std::mt19937 unused;
            Drive(c, *geometry, false, unused,
                  [&](std::int32_t y, std::int32_t x, std::int32_t xe, std::int32_t s0, std::int32_t s1,
                      const QelFixedPoint3& p, const QelFixedPoint3& q, std::int32_t, std::int32_t&, std::int32_t&) {
                      reference.ProcessRow(*target, *flags, y, x, xe, s0, s1, p, q, geometry->XStep(),
                                           geometry->SlabStep());
                  });
            expectedTarget = ImageBytes(*target);
            expectedFlags = ImageBytes(*flags);
            changed += expectedTarget != ImageBytes(*startTarget);
        }

        for (QelIsa isa : isas) {
            const QelIsaLimit limit(isa);
            for (int variant = 0; variant < 8; ++variant) {
                const bool general = variant & 1, laneByLane = variant & 2, segments = variant & 4;
                SCOPED_TRACE(std::string(QelIsaName(isa)) + (general ? " general path" : " plane path") +
                             (laneByLane ? ", lane by lane" : "") + (segments ? ", narrow segments" : ""));
                auto target = MakeSlabImage(targetBytes, c.canvasWidth, c.canvasHeight);
                auto flags = MakeSlabImage(flagBytes, c.canvasWidth, c.canvasHeight);
                ASSERT_TRUE(target->Copy(*startTarget) && flags->Copy(*startFlags));
                auto helper = NewHelper(*stack, *target, *flags, view, c.mode, c.samples, c.spacing);
                ASSERT_TRUE(helper);
                ASSERT_EQ(helper->Isa(), isa);
                helper->SetGeneralPathOnly(general);
                if (laneByLane)
                    helper->SetLaneByLane();
                // Segments of one to a few slices, as the stack's slices lie in memory.
                if (segments)
                    helper->SetSegmentReach(std::int64_t{c.shape.width + 3} * c.shape.height * 2 * (1 + n % 3));
                // Hints only save searching: half the runs get nonsense ones.
                std::mt19937 noise(n);
                Drive(c, *helper, n % 2 == 1, noise,
                      [&](std::int32_t y, std::int32_t x, std::int32_t xe, std::int32_t s0, std::int32_t s1,
                          const QelFixedPoint3& p, const QelFixedPoint3& q, std::int32_t hint, std::int32_t& first,
                          std::int32_t& later) { helper->ProcessRow(y, 0, x, xe, s0, s1, p, q, hint, first, later); });
                ASSERT_EQ(ImageBytes(*target), expectedTarget);
                ASSERT_EQ(ImageBytes(*flags), expectedFlags);
            }
        }
    }
    EXPECT_GT(changed, kCases / 2);
}

}  // namespace
