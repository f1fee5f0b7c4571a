#include "mpr/QelImageStackSlabMprRendererHelper.h"

#include "MprTestVolumes.h"
#include "SlabMprReference.h"
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

// Every level and path of the accumulators against the plain reference, sample by
// sample, on random stacks, views, chunks, tiles and hints.

namespace {

constexpr std::int32_t kMip = QelSlabMode::MIP;
constexpr std::int32_t kMinip = QelSlabMode::MINIP;
constexpr std::int32_t kAvip = QelSlabMode::AVIP;

// What a ProcessRow call should leave in the accumulators, one sample at a time.
void ReferenceRow(const SlabMprReference& reference, std::int32_t mode, bool isSigned, QelRasterImage& target,
                  QelRasterImage& flags, std::int32_t y, std::int32_t xFirst, std::int32_t xLast, std::int32_t sFirst,
                  std::int32_t sLast, const QelFixedPoint3& p, const QelFixedPoint3& q, const QelFixedPoint3& xStep,
                  const QelFixedPoint3& slabStep)
{
    for (std::int32_t x = xFirst; x <= xLast; ++x) {
        for (std::int32_t s = sFirst; s <= sLast; ++s) {
            // Sample 0 starts at p, later ones at q, which is sample max(sFirst, 1).
            const QelFixedPoint3 at = s == 0 ? QelSlabWrapAddScaled(p, xStep, x - xFirst)
                                             : QelSlabWrapAddScaled(QelSlabWrapAddScaled(q, xStep, x - xFirst),
                                                                    slabStep, s - std::max(sFirst, 1));
            std::uint32_t value = 0;
            if (!reference.Sample(at.X, at.Y, at.Z, value))
                continue;
            if (mode == kAvip) {
                WritePixel(target, x, y, ReadPixel<std::uint32_t>(target, x, y) + value);
                WritePixel(flags, x, y, static_cast<std::uint16_t>(ReadPixel<std::uint16_t>(flags, x, y) + 1));
                continue;
            }
            const auto u = static_cast<std::uint16_t>(value - (isSigned ? 0x8000u : 0u));
            if (!ReadPixel<std::uint8_t>(flags, x, y) || reference.Replaces(u, ReadPixel<std::uint16_t>(target, x, y)))
                WritePixel(target, x, y, u);
            WritePixel(flags, x, y, std::uint8_t{1});
        }
    }
}

struct RandomCase {
    StackShape shape;
    std::uint16_t paddingShare = 0;  // of 1024 voxels
    QelMatrix34 view;
    std::int32_t mode = kMip;
    std::int32_t canvasWidth = 1, canvasHeight = 1, samples = 1, chunk = 1, tileWidth = 1;
    float spacing = 1.0f;
};

RandomCase MakeCase(Dice& d)
{
    RandomCase c;
    c.shape.width = d.Int(2, 24);
    c.shape.height = d.Int(2, 12);
    const std::int32_t slices = d.Int(1, 9);
    const bool even = d.Chance(0.5);
    float z = d.Real(-3.0f, 3.0f);
    for (std::int32_t k = 0; k < slices; ++k) {
        c.shape.zs.push_back(even ? std::round(z) + float(k) : z);
        // Now and then slices so close that they share a fixed z: a gap of none.
        const std::int32_t gap = d.Int(0, 11);
        z += gap == 0 ? d.Real(1e-5f, 3e-5f) : gap <= 2 ? d.Real(0.001f, 0.1f) : d.Real(0.3f, 2.5f);
    }
    c.shape.isSigned = d.Chance(0.5);
    if (d.Int(0, 2) != 0) {
        c.shape.padding = d.Chance(0.25) ? d.Int(0, 65535) : d.Pick({0, 0xFFFF, 0x8000, 0x7FFF});
        c.paddingShare = static_cast<std::uint16_t>(d.Int(0, 60));
    }
    if (d.Chance(0.25))
        for (std::int32_t k = 0; k < slices; ++k)
            c.shape.extraColumns.push_back(d.Int(0, 3));
    c.mode = d.Pick({kMip, kMinip, kAvip});
    c.canvasWidth = d.Int(1, 45);
    c.canvasHeight = d.Int(1, 4);
    c.samples = d.Int(1, 9);
    c.chunk = d.Int(1, 6);
    c.tileWidth = d.Pick({1, 3, 8, 16, 32, 64});
    c.spacing = d.Chance(0.33) ? 1.0f : d.Real(0.0f, 1.5f);

    // Canvas x, y and z axes and the canvas origin, in voxels.
    QelVector3 x{1.0f, 0.0f, 0.0f}, y{0.0f, 1.0f, 0.0f}, normal{0.0f, 0.0f, 1.0f}, origin;
    const float cx = float(c.shape.width) * 0.5f, cy = float(c.shape.height) * 0.5f;
    const float cz = (c.shape.zs.front() + c.shape.zs.back()) * 0.5f;
    const float fraction = d.Chance(0.5) ? 0.0f : d.Real(0.0f, 1.0f);
    switch (d.Int(0, 6)) {
    case 0:
        d.Oblique(d.Real(0.3f, 1.5f), x, y, normal);
        origin = QelVector3{cx, cy, cz} - x * (0.5f * float(c.canvasWidth)) - y;
        break;
    case 1: {  // axis-aligned, any axis along the canvas rows
        const std::int32_t axis = d.Int(0, 2);
        x = y = normal = {0.0f, 0.0f, 0.0f};
        x[axis] = d.Chance(0.5) ? 1.0f : 0.5f;
        y[(axis + 1) % 3] = 1.0f;
        normal[(axis + 2) % 3] = 1.0f;
        origin = {std::round(cx) - 3 + fraction, -1.0f + fraction, std::round(cz)};
        break;
    }
    case 2: {  // in the slices, rotated
        const float angle = d.Real(0.0f, 6.3f), zoom = d.Real(0.4f, 1.6f);
        x = QelVector3{std::cos(angle), std::sin(angle), 0.0f} * zoom;
        y = QelVector3{-std::sin(angle), std::cos(angle), 0.0f} * zoom;
        origin = {cx - 4, cy - 2, c.shape.zs[d.Int(0, slices - 1)] + (d.Chance(0.5) ? 0.0f : 0.25f)};
        break;
    }
    case 3:
    case 4: {  // x step exactly one voxel; z on a slice, between slices, or a few fixed
               // units above a slice, where the z fraction is 0 but the upper slice is read
        const float slice = c.shape.zs[d.Int(0, slices - 1)];
        origin = {float(d.Int(-30, 4)) + fraction, float(d.Int(-2, 2)) + fraction / 2,
                  d.Pick({slice, cz, slice + 0.0001f})};
        break;
    }
    case 5:  // along image rows, either way, by up to a little over two voxels (16
             // lanes then spread over as many voxels as one load takes), in a stack
             // wide enough for such loads
        c.shape.width = d.Int(30, 70);
        x = {(d.Chance(0.5) ? d.Real(1.9f, 2.1f) : d.Real(0.2f, 1.9f)) * d.Pick({-1.0f, 1.0f}), 0.0f, 0.0f};
        origin = {x[0] > 0.0f ? d.Real(-2.0f, 4.0f) : float(c.shape.width) - d.Real(-1.0f, 4.0f),
                  float(d.Int(-1, 2)) + fraction, cz};
        break;
    default:  // one voxel in x and a whole row in y per pixel
        x = {1.0f, float(d.Int(-1, 1)), 0.0f};
        origin = {float(d.Int(-6, 2)) + fraction, float(d.Int(0, 6)), cz};
        break;
    }
    c.view = ViewThrough(origin, 0.0f, 0.0f, x, y, normal);
    return c;
}

using RowCall = std::function<void(std::int32_t y, std::int32_t x, std::int32_t xe, std::int32_t s0, std::int32_t s1,
                                   const QelFixedPoint3& p, const QelFixedPoint3& q, std::int32_t hint,
                                   std::int32_t& first, std::int32_t& later)>;

// The renderer's loop over chunks, tiles and rows, with the hints it keeps per row;
// hints only save searching, so a `noise` source replaces them with nonsense.
void Drive(const RandomCase& c, const QelSlabHelperBase& geometry, std::mt19937* noise, const RowCall& processRow)
{
    std::vector<std::int32_t> firstHints(c.canvasHeight, 0), laterHints(c.canvasHeight, 0);
    for (std::int32_t s0 = 0; s0 < c.samples;) {
        const std::int32_t s1 = std::min(s0 + c.chunk - 1, c.samples - 1);
        const QelFixedPoint3 offset = QelSlabWrapAddScaled({}, geometry.SlabStep(), s0 == 0 ? 1 : s0);
        for (std::int32_t x = 0; x < c.canvasWidth; x += c.tileWidth) {
            const std::int32_t xe = std::min(x + c.tileWidth - 1, c.canvasWidth - 1);
            for (std::int32_t y = 0; y < c.canvasHeight; ++y) {
                const QelFixedPoint3 p = geometry.PixelPosition(x, y);
                const std::int32_t hint =
                    noise ? static_cast<std::int32_t>((*noise)() % 12) : s0 == 0 ? firstHints[y] : laterHints[y];
                std::int32_t first = 0;
                processRow(y, x, xe, s0, s1, p, QelSlabWrapAdd(p, offset), hint, first, laterHints[y]);
                if (s0 == 0)
                    firstHints[y] = first;
            }
        }
        s0 = s1 + 1;
    }
}

TEST(QelImageStackSlabMprRendererHelperTest, EveryLevelAndPathMatchesThePlainBody)
{
    Dice dice(20240611);
    const std::vector<QelIsa> isas = QelSupportedIsas();
    int changed = 0;  // cases where the plain body took anything in: the test is not vacuous
    constexpr int kCases = 600;
    for (int n = 0; n < kCases; ++n) {
        const RandomCase c = MakeCase(dice);
        SCOPED_TRACE("case " + std::to_string(n) + ", mode " + std::to_string(c.mode));
        const std::uint32_t voxelSeed = dice.Bits();
        const auto stack = MakeStack(c.shape, [&](std::int32_t x, std::int32_t y, std::int32_t slice) {
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
        // Now and then a record without an image, which a stack never has but the
        // accelerator allows: its samples are skipped.
        if (dice.Chance(0.2))
            const_cast<QelImageStackFixedPointAccelerator*>(stack->FixedPointAccelerator())
                ->UpdateRecord(dice.Int(0, static_cast<std::int32_t>(c.shape.zs.size()) - 1), nullptr);
        const bool sum = c.mode == kAvip;

        // Random starting accumulators, flags included, so that a store without its
        // load, or a flag not tested, shows; a held padding value is replaced by any sample.
        const QelIntRange columns(0, c.canvasWidth - 1), rows(0, c.canvasHeight - 1);
        auto startTarget = MakeImage(sum ? 4 : 2, columns, rows), startFlags = MakeImage(sum ? 2 : 1, columns, rows);
        for (std::int32_t n = 0; n < c.canvasWidth * c.canvasHeight; ++n) {
            const std::int32_t x = n % c.canvasWidth, y = n / c.canvasWidth;
            const std::uint32_t r = dice.Bits();
            const bool padded = !sum && c.shape.padding && (r & 6) == 0;
            if (sum) {
                WritePixel<std::uint32_t>(*startTarget, x, y, r >> 4);
                WritePixel(*startFlags, x, y, static_cast<std::uint16_t>(r & 7));
            } else {
                WritePixel(*startTarget, x, y, static_cast<std::uint16_t>(padded ? *c.shape.padding : r >> 8));
                WritePixel(*startFlags, x, y, static_cast<std::uint8_t>(padded ? 1 : r & 1));
            }
        }
        const auto run = [&](bool plain, QelIsa isa, int variant) {
            auto target = MakeImage(startTarget->BytesPerPixel(), columns, rows);
            auto flags = MakeImage(startFlags->BytesPerPixel(), columns, rows);
            EXPECT_TRUE(target->Copy(*startTarget) && flags->Copy(*startFlags));
            const std::unique_ptr<QelSlabHelperBase> helper(
                static_cast<QelSlabHelperBase*>(QelImageStackSlabMprRendererHelper::New(
                    nullptr, *stack, target.get(), flags.get(), c.view, c.mode, c.samples - 1, c.spacing, 16, 32, 16,
                    false).release()));
            EXPECT_EQ(helper->Isa(), isa);
            if (plain) {
                const SlabMprReference reference(*stack, c.view, c.mode, c.samples, c.spacing, 0);
                Drive(c, *helper, nullptr,
                      [&](auto y, auto x, auto xe, auto s0, auto s1, auto& p, auto& q, auto, auto&, auto&) {
                          ReferenceRow(reference, c.mode, c.shape.isSigned, *target, *flags, y, x, xe, s0, s1, p, q,
                                       helper->XStep(), helper->SlabStep());
                      });
            } else {
                helper->SetGeneralPathOnly(variant & 1);
                if (variant & 2)
                    helper->SetLaneByLane();
                // Segments of one to a few slices, as the stack's slices lie in memory.
                if (variant & 4)
                    helper->SetSegmentReach(std::int64_t{c.shape.width + 3} * c.shape.height * 2 * (1 + n % 3));
                std::mt19937 noise(n);
                Drive(c, *helper, n % 2 == 1 ? &noise : nullptr,
                      [&](auto y, auto x, auto xe, auto s0, auto s1, auto& p, auto& q, auto hint, auto& first,
                          auto& later) { helper->ProcessRow(y, 0, x, xe, s0, s1, p, q, hint, first, later); });
            }
            return std::pair(ImageBytes(*target), ImageBytes(*flags));
        };
        const auto expected = run(true, QelBestIsa(), 0);
        changed += expected.first != ImageBytes(*startTarget);
        for (QelIsa isa : isas) {
            const QelIsaLimit limit(isa);
            for (int variant = 0; variant < 8; ++variant) {
                SCOPED_TRACE(std::string(QelIsaName(isa)) + ", variant " + std::to_string(variant) +
                             " (1 general path, 2 lane by lane, 4 narrow segments)");
                ASSERT_EQ(run(false, isa, variant), expected);
            }
        }
    }
    EXPECT_GT(changed, kCases / 2);
}

// The random comparisons can't see this bound: the plain reference shares it.
TEST(QelSlabSample, ZFractionStaysBelowAWholeGap)
{
    // Just below the next slice the float product must not round up to 65536,
    // whatever the gap: the fraction would then reach 8192.
    for (std::int32_t gap = 1; gap <= 70000; gap += gap < 100 ? 1 : 997)
        ASSERT_LE(QelSlabZFraction(65536.0f / static_cast<float>(gap), gap - 1), 8191u) << gap;
}

}  // namespace
