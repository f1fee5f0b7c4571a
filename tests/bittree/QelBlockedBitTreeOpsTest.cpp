#include "bittree/QelBlockedBitTreeOps.h"

#include "bittree/BitTreeTestSupport.h"
#include "support/AssertionText.h"
#include "support/CountingMemoryManager.h"
#include "threaded/QelSystemInfo.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <functional>

namespace Ops = QelBlockedBitTreeOps;

namespace {

using Reach = std::array<int, 6>;  // x-, x+, y-, y+, z-, z+

// A box is separable: one axis at a time, out(p) = OR (dilate) or AND (erode) of in(p + s)
// for s from -plus to +minus. Dilation reads the whole grid, padding too; erosion reads
// the volume alone, counts what lies beyond as set and leaves the padding clear.
Grid Spread(Grid in, const Reach& r, bool dilate)
{
    in = dilate ? in : in.Volume();
    for (int axis = 0; axis < 3; ++axis)
        in = in.Map([&](std::int64_t x, std::int64_t y, std::int64_t z) {
            bool acc = !dilate;
            for (int s = -r[2 * axis + 1]; s <= r[2 * axis]; ++s) {
                std::int64_t p[3] = {x, y, z};
                p[axis] += s;
                const bool bit = in.Get(p[0], p[1], p[2]) || (!dilate && !in.InVolume(p[0], p[1], p[2]));
                acc = dilate ? acc || bit : acc && bit;
            }
            return acc && (dilate || in.InVolume(x, y, z));
        });
    return in;
}

std::unique_ptr<QelBlockedBitTree> Morph(const QelBlockedBitTree& a, const Reach& r, bool dilate)
{
    return (dilate ? Ops::CubicDilate : Ops::CubicErode)(a, r[0], r[1], r[2], r[3], r[4], r[5]);
}

// The downsized voxel at (x, y, z) by factor f, as Downsize promises it. Empty entries,
// of the source or the mask, need no rule of their own: their voxels are clear.
bool Downsized(const Grid& source, const Grid* mask, std::uint32_t f, bool anySet, std::int64_t x, std::int64_t y,
               std::int64_t z)
{
    if (!source.InGrid(x * f, y * f, z * f))
        return false;
    bool any = false, all = true;
    for (std::uint32_t n = 0; n < f * f * f; ++n) {
        const std::int64_t sx = x * f + n % f, sy = y * f + n / f % f, sz = z * f + n / f / f;
        const bool bit = source.Get(sx, sy, sz) && (!mask || mask->Get(sx, sy, sz));
        any |= bit;
        all &= bit;
    }
    return anySet ? any : all;
}

// Random mixes of entry forms against the reference bit for bit, padding included.
// Dilation runs its slabs on three threads, three phases apart so that no two write one block.
TEST(QelBlockedBitTreeOpsTest, OperationsMatchTheReference)
{
    const QelRenderThreadCountPin threads(3);
    std::mt19937 random(TestSeed());
    const auto pick = [&random](std::uint32_t n) { return static_cast<int>(random() % n); };
    std::vector<std::array<std::uint32_t, 3>> sizes = {{70, 45, 33}, {33, 1, 1}, {64, 64, 40}, {32, 32, 32}};
    for (int k = 0; k < 3; ++k)
        sizes.push_back({1u + pick(140), 1u + pick(80), 1u + pick(80)});
    for (const auto& [w, h, d] : sizes) {
        SCOPED_TRACE(std::to_string(w) + "x" + std::to_string(h) + "x" + std::to_string(d));
        for (int round = 0; round < 2 && !HasFailure(); ++round) {
            auto a = RandomTree(w, h, d, random), b = RandomTree(w, h, d, random);
            const Grid ga = Grid::Of(*a), gb = Grid::Of(*b);
            const auto both = [&](auto op) {
                return ga.Map([&](auto x, auto y, auto z) { return op(ga.Get(x, y, z), gb.Get(x, y, z)); });
            };
            ExpectTreeIs(*Ops::Union(*a, *b), both(std::logical_or<>()), true);
            ExpectTreeIs(*Ops::Intersection(*a, *b), both(std::logical_and<>()), true);
            ExpectTreeIs(*Ops::Xor(*a, *b), both(std::not_equal_to<>()), true);
            // A full entry comes back empty; elsewhere rows beyond the height come out set,
            // planes beyond the depth clear, the rest inverted.
            ExpectTreeIs(*Ops::Invert(*a), ga.Map([&](auto x, auto y, auto z) {
                             return a->GetBlock(a->GetBlockIndex(x, y, z)) != QelBlockedBitTree::FullBlock() &&
                                    z < d && (y >= h || !ga.Get(x, y, z));
                         }), true);
            const Reach any{pick(9), pick(9), pick(5), pick(5), pick(9), pick(9)};
            for (const Reach& r : {Reach{0, 0, 0, 0, 0, 0}, Reach{8, 8, 4, 4, 8, 8}, any})
                for (bool dilate : {true, false}) {
                    auto result = Morph(*a, r, dilate);
                    ASSERT_NE(result, nullptr);
                    ExpectTreeIs(*result, Spread(ga, r, dilate), true);
                }
            // Any, all, and any under b as a mask. The width sets the factor; the other axes
            // may round up past the source. In two ranges, as a caller splitting the work
            // would; the second one finishes.
            for (std::uint32_t f = 2, tw = std::max(1u, w / f); f <= 32; f *= 2, tw = std::max(1u, w / f))
                for (int variant = 0; variant < 3 && std::trunc(double(w) / tw + 0.5) == f; ++variant) {
                    SCOPED_TRACE("downsize by " + std::to_string(f) + ", variant " + std::to_string(variant));
                    auto target = MakeTree(tw, (h + f - 1) / f, (d + f - 1) / f);
                    const std::uint32_t half = a->GetBlockCount() / 2;
                    const QelBlockedBitTree* mask = variant == 2 ? b.get() : nullptr;
                    ASSERT_TRUE(Ops::Downsize(*a, *target, 0, half, variant != 1, mask));
                    ASSERT_TRUE(Ops::Downsize(*a, *target, half, a->GetBlockCount(), variant != 1, mask));
                    ExpectTreeIs(*target, Grid(tw, (h + f - 1) / f, (d + f - 1) / f).Map([&](auto x, auto y, auto z) {
                                     return Downsized(ga, mask ? &gb : nullptr, f, variant != 1, x, y, z);
                                 }));
                }
        }
    }
}

// Structural equality, and the entry forms the operations promise.
TEST(QelBlockedBitTreeOpsTest, EqualityAndEntryFormsAreStructural)
{
    std::mt19937 random(TestSeed());
    auto a = RandomTree(70, 45, 33, random);
    EXPECT_TRUE(Ops::Equal(*a, *a->Copy()) && Ops::Equal(*MakeTree(0, 5, 5), *MakeTree(0, 5, 5)));
    EXPECT_FALSE(Ops::Equal(*a, *MakeTree(70, 45, 34)) || Ops::Equal(*MakeTree(64, 1, 1), *MakeTree(33, 1, 1)));
    // A padding bit counts; a real block with nothing set differs from an empty entry.
    auto edge = MakeTree(33, 1, 1), other = MakeTree(33, 1, 1);
    ASSERT_TRUE(edge->SetRowBits(1, 0, 0, 0x2u) && other->SetRowBits(1, 0, 0, 0x4u));
    EXPECT_FALSE(Ops::Equal(*edge, *other));
    ASSERT_TRUE(edge->SetRowBits(1, 0, 0, 0u));
    EXPECT_FALSE(Ops::Equal(*edge, *MakeTree(33, 1, 1)));

    // A union that covers everything stays a real block, which differs from a full entry.
    auto ones = MakeTree(32, 32, 32), one = MakeTree(32, 32, 32);
    FillBlock(*ones, 0);
    ASSERT_TRUE(one->SetBit(5, 6, 7));
    auto all = Ops::Union(*ones, *one), full = all->Copy();
    full->ComputeBlockEmptiness();
    EXPECT_TRUE(QelBlockedBitTree::HasStorage(all->GetBlock(0)) && full->GetBlock(0) == QelBlockedBitTree::FullBlock());
    EXPECT_FALSE(Ops::Equal(*all, *full));
}

TEST(QelBlockedBitTreeOpsTest, KernelsBeyondATileAndBadFactorsAreRefused)
{
    auto tree = MakeTree(40, 40, 40);
    for (const Reach& r : {Reach{0, 0, 5, 0, 0, 0}, Reach{0, 0, 0, 0, 0, 9}, Reach{-1, 0, 0, 0, 0, 0}})
        for (bool dilate : {true, false})
            EXPECT_EQ(AssertionText([&] { (void)Morph(*tree, r, dilate); }),
                      "QelBlockedBitTreeOps::CubicErode: Incorrect dilation kernel :must be lower or equal than 8 in "
                      "XZ and 4 in Y\n")
                << ::testing::PrintToString(r) << dilate;
    auto target = MakeTree(13, 10, 10);  // 40 / 13 rounds to 3
    EXPECT_NE(AssertionText([&] { (void)Ops::Downsize(*tree, *target, 0, 8, true, nullptr); }), "");
}

// Every allocation that can fail fails once, in turn: the result is null (false for
// Downsize) and nothing stays outstanding beyond the operands.
TEST(QelBlockedBitTreeOpsTest, RunningOutOfMemoryLeavesNothingBehind)
{
    CountingMemoryManager manager;
    std::mt19937 random(TestSeed());
    auto a = RandomTree(70, 45, 40, random, &manager), b = RandomTree(70, 45, 40, random, &manager);
    ASSERT_TRUE(a && b);
    const std::size_t operands = manager.Outstanding();
    // Every operation in a row, a new tree and a copy among them, so that each
    // allocation among them fails in turn.
    const auto operations = [&] {
        auto target = MakeTree(35, 23, 20, &manager);
        return target && a->Copy() && Ops::Union(*a, *b) && Ops::Intersection(*a, *b) && Ops::Xor(*a, *b) &&
               Ops::Invert(*a) && Ops::CubicDilate(*a, 1, 2, 1, 2, 1, 2) && Ops::CubicErode(*a, 2, 1, 2, 1, 2, 1) &&
               Ops::Downsize(*a, *target, 0, a->GetBlockCount(), true, nullptr);
    };
    for (int allowed = 0;; ++allowed) {
        manager.SetFailAfter(allowed);
        const bool made = operations();
        manager.SetFailAfter(-1);
        ASSERT_EQ(manager.Outstanding(), operands) << "allowed " << allowed;
        if (made)
            break;
        ASSERT_LT(allowed, 2000);
    }
    EXPECT_EQ(manager.ForeignFrees(), 0);
}

}  // namespace
