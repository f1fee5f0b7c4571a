#include "bittree/QelBlockedBitTreeOps.h"

#include "bittree/BitTreeGridReference.h"
#include "bittree/BitTreeTestSupport.h"
#include "support/AssertionText.h"
#include "support/CountingMemoryManager.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <functional>
#include <random>
#include <string>
#include <vector>

namespace Ops = QelBlockedBitTreeOps;

namespace {

using Block = QelBlockedBitTree::Block;

constexpr const char* kKernelText =
    "QelBlockedBitTreeOps::CubicErode: Incorrect dilation kernel :must be lower or equal than 8 in XZ and 4 in Y\n";

struct Size {
    std::uint32_t w, h, d;
};

std::string Name(const Size& s)
{
    return std::to_string(s.w) + "x" + std::to_string(s.h) + "x" + std::to_string(s.d);
}

std::vector<Size> PropertySizes(std::mt19937& random)
{
    std::vector<Size> sizes = {{70, 45, 33}, {33, 1, 1}, {64, 64, 40}, {32, 32, 32}};
    const auto pick = [&random] { return 1 + static_cast<std::uint32_t>(random() % 80); };
    for (int k = 0; k < 2; ++k)
        sizes.push_back({pick(), pick(), pick()});
    return sizes;
}

BlockGrid Combine(const BlockGrid& a, const BlockGrid& b, const std::function<bool(bool, bool)>& op)
{
    BlockGrid out = a;
    for (std::uint32_t z = 0; z < a.m_depth; ++z)
        for (std::uint32_t y = 0; y < a.m_height; ++y)
            for (std::uint32_t x = 0; x < a.m_width; ++x)
                out.Set(x, y, z, op(a.Get(x, y, z), b.Get(x, y, z)));
    return out;
}

// What Invert promises bit for bit: a full entry comes back empty; elsewhere rows
// beyond the height come out set, planes beyond the depth clear, the rest inverted.
BlockGrid InvertReference(const QelBlockedBitTree& tree, const BlockGrid& a)
{
    BlockGrid out = a;
    for (std::uint32_t z = 0; z < a.m_depth; ++z)
        for (std::uint32_t y = 0; y < a.m_height; ++y)
            for (std::uint32_t x = 0; x < a.m_width; ++x) {
                const bool full = tree.GetBlock(tree.GetBlockIndex(x, y, z)) == QelBlockedBitTree::FullBlock();
                out.Set(x, y, z, !full && z < tree.Depth() && (y >= tree.Height() || !a.Get(x, y, z)));
            }
    return out;
}

struct Reach {
    int xMinus, xPlus, yMinus, yPlus, zMinus, zPlus;
};

// One axis at a time, as a box is separable: out(p) = OR (or AND) of in(p + s) for
// s from -before to +after along the axis; `outside` stands for what lies beyond.
template <class Get, class Set>
void SpreadAxis(const std::array<std::int64_t, 3>& size, int axis, int before, int after, bool any, Get get,
                Set set)
{
    for (std::int64_t z = 0; z < size[2]; ++z)
        for (std::int64_t y = 0; y < size[1]; ++y)
            for (std::int64_t x = 0; x < size[0]; ++x) {
                std::array<std::int64_t, 3> p = {x, y, z};
                bool acc = !any;
                const std::int64_t centre = p[axis];
                for (std::int64_t s = centre - before; s <= centre + after; ++s) {
                    p[axis] = s;
                    acc = any ? acc || get(p) : acc && get(p);
                }
                set(x, y, z, acc);
            }
}

// Every bit of the grid, padding too, spreads over the box; what leaves the grid is lost.
BlockGrid DilateReference(const BlockGrid& a, const Reach& r)
{
    const std::array<std::int64_t, 3> size = {a.m_width, a.m_height, a.m_depth};
    const int before[] = {r.xPlus, r.yPlus, r.zPlus}, after[] = {r.xMinus, r.yMinus, r.zMinus};
    BlockGrid in = a, out = a;
    for (int axis = 0; axis < 3; ++axis) {
        SpreadAxis(
            size, axis, before[axis], after[axis], true, [&](const auto& p) { return in.Get(p[0], p[1], p[2]); },
            [&](std::int64_t x, std::int64_t y, std::int64_t z, bool v) { out.Set(x, y, z, v); });
        in = out;
    }
    return out;
}

// A voxel survives when every voxel of its box that lies in the volume is set;
// padding of the result is clear.
BlockGrid ErodeReference(const QelBlockedBitTree& tree, const BlockGrid& a, const Reach& r)
{
    const std::array<std::int64_t, 3> size = {tree.Width(), tree.Height(), tree.Depth()};
    const int before[] = {r.xPlus, r.yPlus, r.zPlus}, after[] = {r.xMinus, r.yMinus, r.zMinus};
    DenseMask in = a.Volume(tree), out = in;
    for (int axis = 0; axis < 3; ++axis) {
        SpreadAxis(
            size, axis, before[axis], after[axis], false,
            [&](const auto& p) { return !in.Inside(p[0], p[1], p[2]) || in.Get(p[0], p[1], p[2]); },
            [&](std::int64_t x, std::int64_t y, std::int64_t z, bool v) { out.Set(x, y, z, v); });
        in = out;
    }
    BlockGrid result(tree);
    for (std::int64_t z = 0; z < size[2]; ++z)
        for (std::int64_t y = 0; y < size[1]; ++y)
            for (std::int64_t x = 0; x < size[0]; ++x)
                result.Set(x, y, z, out.Get(x, y, z));
    return result;
}

Reach RandomReach(std::mt19937& random)
{
    const auto xz = [&random] { return static_cast<int>(random() % 9); };
    const auto y = [&random] { return static_cast<int>(random() % 5); };
    return {xz(), xz(), y(), y(), xz(), xz()};
}

std::string Name(const Reach& r)
{
    return "reach x -" + std::to_string(r.xMinus) + " +" + std::to_string(r.xPlus) + " y -" +
           std::to_string(r.yMinus) + " +" + std::to_string(r.yPlus) + " z -" + std::to_string(r.zMinus) + " +" +
           std::to_string(r.zPlus);
}

// The set operations on random mixes of entry forms agree with the reference bit
// for bit, padding included, and keep the summaries' and the flags' promises.
TEST(QelBlockedBitTreeOpsTest, SetOperationsMatchTheReference)
{
    const unsigned seed = TestSeed();
    SCOPED_TRACE("seed " + std::to_string(seed) + " (set AX_TEST_SEED to repeat another)");
    std::mt19937 random(seed);
    for (const Size& size : PropertySizes(random)) {
        SCOPED_TRACE(Name(size));
        for (int round = 0; round < 3 && !HasFailure(); ++round) {
            auto a = RandomTree(size.w, size.h, size.d, random);
            auto b = RandomTree(size.w, size.h, size.d, random);
            const BlockGrid ga = BlockGrid::Of(*a), gb = BlockGrid::Of(*b);
            {
                SCOPED_TRACE("union");
                ExpectTreeIs(*Ops::Union(*a, *b), Combine(ga, gb, [](bool p, bool q) { return p || q; }));
            }
            {
                SCOPED_TRACE("intersection");
                ExpectTreeIs(*Ops::Intersection(*a, *b), Combine(ga, gb, [](bool p, bool q) { return p && q; }));
            }
            {
                SCOPED_TRACE("xor");
                ExpectTreeIs(*Ops::Xor(*a, *b), Combine(ga, gb, [](bool p, bool q) { return p != q; }));
            }
            {
                SCOPED_TRACE("invert");
                auto inverse = Ops::Invert(*a);
                ExpectTreeIs(*inverse, InvertReference(*a, ga));
                // Inside the volume a second inversion gives the voxels back.
                ExpectSameVoxels(*Ops::Invert(*inverse), ga.Volume(*a));
            }
            // Operands stay as they were.
            ExpectSameGrid(*a, ga);
            ExpectSameGrid(*b, gb);
        }
    }
}

TEST(QelBlockedBitTreeOpsTest, DilationAndErosionMatchTheReference)
{
    const unsigned seed = TestSeed();
    SCOPED_TRACE("seed " + std::to_string(seed) + " (set AX_TEST_SEED to repeat another)");
    std::mt19937 random(seed);
    for (const Size& size : PropertySizes(random)) {
        SCOPED_TRACE(Name(size));
        for (int round = 0; round < 2 && !HasFailure(); ++round) {
            auto a = RandomTree(size.w, size.h, size.d, random);
            const BlockGrid ga = BlockGrid::Of(*a);
            // The smallest, the largest and a random kernel.
            for (const Reach& r : {Reach{0, 0, 0, 0, 0, 0}, Reach{8, 8, 4, 4, 8, 8}, RandomReach(random)}) {
                SCOPED_TRACE(Name(r));
                auto dilated = Ops::CubicDilate(*a, r.xMinus, r.xPlus, r.yMinus, r.yPlus, r.zMinus, r.zPlus);
                ASSERT_NE(dilated, nullptr);
                ExpectTreeIs(*dilated, DilateReference(ga, r));
                auto eroded = Ops::CubicErode(*a, r.xMinus, r.xPlus, r.yMinus, r.yPlus, r.zMinus, r.zPlus);
                ASSERT_NE(eroded, nullptr);
                ExpectTreeIs(*eroded, ErodeReference(*a, ga, r));
            }
            ExpectSameGrid(*a, ga);
        }
    }
}

TEST(QelBlockedBitTreeOpsTest, DownsizingMatchesTheReference)
{
    const unsigned seed = TestSeed();
    SCOPED_TRACE("seed " + std::to_string(seed) + " (set AX_TEST_SEED to repeat another)");
    std::mt19937 random(seed);
    const Size sizes[] = {{70, 45, 33}, {96, 64, 64}, {64, 64, 64}, {131, 40, 70}};
    for (const Size& size : sizes) {
        auto source = RandomTree(size.w, size.h, size.d, random);
        auto mask = RandomTree(size.w, size.h, size.d, random);
        const BlockGrid gs = BlockGrid::Of(*source), gm = BlockGrid::Of(*mask);
        for (std::uint32_t f : {2u, 4u, 8u, 16u, 32u}) {
            // The width sets the factor; the other axes may round up past the source.
            const std::uint32_t tw = std::max(1u, size.w / f), th = (size.h + f - 1) / f, td = (size.d + f - 1) / f;
            if (std::trunc(static_cast<double>(size.w) / tw + 0.5) != f)
                continue;
            for (int variant = 0; variant < 3; ++variant) {
                const bool anySet = variant != 1, masked = variant == 2;
                SCOPED_TRACE(Name(size) + " by " + std::to_string(f) + (anySet ? " any" : " all") +
                             (masked ? " masked" : ""));
                auto target = MakeTree(tw, th, td);
                ASSERT_TRUE(Ops::Downsize(*source, *target, 0, source->GetBlockCount(), anySet,
                                          masked ? mask.get() : nullptr));
                DenseMask expected(tw, th, td);
                for (std::uint32_t z = 0; z < td; ++z)
                    for (std::uint32_t y = 0; y < th; ++y)
                        for (std::uint32_t x = 0; x < tw; ++x) {
                            if (!gs.Inside(x * f, y * f, z * f))
                                continue;
                            const std::uint32_t i = source->GetBlockIndex(x * f, y * f, z * f);
                            if (!source->GetBlock(i) ||
                                (masked && !mask->GetBlock(i)))
                                continue;
                            bool any = false, all = true;
                            for (std::uint32_t n = 0; n < f * f * f; ++n) {
                                const std::uint32_t sx = x * f + n % f, sy = y * f + n / f % f, sz = z * f + n / f / f;
                                const bool bit = gs.Get(sx, sy, sz) && (!masked || gm.Get(sx, sy, sz));
                                any |= bit;
                                all &= bit;
                            }
                            expected.Set(x, y, z, anySet ? any : all);
                        }
                ExpectSameVoxels(*target, expected);
                ExpectEmptinessPromisesHold(*target, expected);
            }
        }
    }
}

TEST(QelBlockedBitTreeOpsTest, EqualityIsStructural)
{
    std::mt19937 random(TestSeed());
    auto a = RandomTree(70, 45, 33, random);
    auto copy = a->Copy();
    EXPECT_TRUE(Ops::Equal(*a, *copy));
    EXPECT_FALSE(Ops::Equal(*a, *MakeTree(70, 45, 34)));
    EXPECT_FALSE(Ops::Equal(*MakeTree(64, 1, 1), *MakeTree(33, 1, 1)));  // same table, other width
    EXPECT_TRUE(Ops::Equal(*MakeTree(0, 5, 5), *MakeTree(0, 5, 5)));

    // A padding bit counts; a real block with nothing set differs from an empty entry.
    auto edge = MakeTree(33, 1, 1), other = MakeTree(33, 1, 1);
    ASSERT_TRUE(edge->SetRowBits(1, 0, 0, 0x2u));
    ASSERT_TRUE(other->SetRowBits(1, 0, 0, 0x4u));
    EXPECT_FALSE(Ops::Equal(*edge, *other));
    ASSERT_TRUE(other->SetRowBits(1, 0, 0, 0x2u));
    EXPECT_TRUE(Ops::Equal(*edge, *other));
    ASSERT_TRUE(edge->SetRowBits(1, 0, 0, 0u));
    EXPECT_FALSE(Ops::Equal(*edge, *MakeTree(33, 1, 1)));
    // A full entry differs from a real block of ones.
    auto full = MakeTree(32, 32, 32), ones = MakeTree(32, 32, 32);
    for (std::uint32_t n = 0; n < 32 * 32; ++n) {
        ASSERT_TRUE(full->SetRowBits(0, n % 32, n / 32, ~0u));
        ASSERT_TRUE(ones->SetRowBits(0, n % 32, n / 32, ~0u));
    }
    full->ComputeBlockEmptiness();
    EXPECT_FALSE(Ops::Equal(*full, *ones));
}

// The decisions the entry tables make, where they show in the structure.
TEST(QelBlockedBitTreeOpsTest, EntryFormsFollowTheOperation)
{
    auto a = MakeTree(32, 32, 32), b = MakeTree(32, 32, 32);
    for (std::uint32_t n = 0; n < 32 * 32; ++n) {
        ASSERT_TRUE(a->SetRowBits(0, n % 32, n / 32, n % 2 ? 0xF0F0F0F0u : 0x0F0F0F0Fu));
        ASSERT_TRUE(b->SetRowBits(0, n % 32, n / 32, n % 2 ? 0x0F0F0F0Fu : 0xF0F0F0F0u));
    }
    // Two halves that cover everything stay a real block until the flags are computed.
    auto both = Ops::Union(*a, *b);
    ASSERT_TRUE(QelBlockedBitTree::HasStorage(both->GetBlock(0)));
    both->ComputeBlockEmptiness();
    EXPECT_EQ(both->GetBlock(0), QelBlockedBitTree::FullBlock());
    // Equal real blocks leave the entry empty; disjoint ones a real block of nothing.
    EXPECT_EQ(Ops::Xor(*a, *a->Copy())->GetBlock(0), nullptr);
    auto nothing = Ops::Intersection(*a, *b);
    ASSERT_TRUE(QelBlockedBitTree::HasStorage(nothing->GetBlock(0)));
    EXPECT_EQ(nothing->GetBlock(0)->SummaryY[7], ~0u);
    // Xor with a full entry inverts; two full entries cancel.
    auto inverse = Ops::Xor(*both, *a);
    EXPECT_TRUE(Ops::Equal(*inverse, *b));
    EXPECT_EQ(Ops::Xor(*both, *both)->GetBlock(0), nullptr);
}

TEST(QelBlockedBitTreeOpsTest, InvertFillsWholeSlabsAndLeavesPlanesBeyondTheDepthClear)
{
    auto cube = Ops::Invert(*MakeTree(64, 64, 64));
    for (std::uint32_t i = 0; i < 8; ++i)
        EXPECT_EQ(cube->GetBlock(i), QelBlockedBitTree::FullBlock()) << i;

    auto low = Ops::Invert(*MakeTree(64, 64, 40));
    for (std::uint32_t i = 0; i < 8; ++i) {
        SCOPED_TRACE(i);
        const Block* entry = low->GetBlock(i);
        if (i < 4) {
            EXPECT_EQ(entry, QelBlockedBitTree::FullBlock());
            continue;
        }
        ASSERT_TRUE(QelBlockedBitTree::HasStorage(entry));
        EXPECT_EQ(entry->GetRowBits(31, 7), ~0u);
        EXPECT_EQ(entry->GetRowBits(0, 8), 0u);
        EXPECT_EQ(entry->SummaryY[8], ~0u);
        EXPECT_EQ(entry->SummaryY[7], 0u);
    }
}

TEST(QelBlockedBitTreeOpsTest, DilationReachesAcrossBlockCornersAndStopsAtTheVolume)
{
    auto corner = MakeTree(64, 64, 64);
    ASSERT_TRUE(corner->SetBit(31, 31, 31));
    corner->ComputeBlockEmptiness();
    auto grown = Ops::CubicDilate(*corner, 1, 1, 1, 1, 1, 1);
    for (std::uint32_t i = 0; i < 8; ++i)
        EXPECT_TRUE(QelBlockedBitTree::HasStorage(grown->GetBlock(i))) << i;
    EXPECT_TRUE(grown->IsSet(32, 32, 32));
    EXPECT_TRUE(grown->IsSet(30, 30, 30));
    EXPECT_FALSE(grown->IsSet(33, 32, 32));

    auto origin = MakeTree(40, 40, 40);
    ASSERT_TRUE(origin->SetBit(0, 0, 0));
    auto eight = Ops::CubicDilate(*origin, 1, 1, 1, 1, 1, 1);
    std::uint32_t count = 0;
    for (std::int32_t z = -1; z < 3; ++z)
        for (std::int32_t y = -1; y < 3; ++y)
            for (std::int32_t x = -1; x < 3; ++x)
                count += eight->IsSet(x, y, z) ? 1 : 0;
    EXPECT_EQ(count, 8u);
}

TEST(QelBlockedBitTreeOpsTest, KernelsBeyondATileAreRefused)
{
    auto tree = MakeTree(40, 40, 40);
    const Reach refused[] = {{0, 0, 5, 0, 0, 0}, {0, 0, 0, 5, 0, 0}, {9, 0, 0, 0, 0, 0},
                             {0, 0, 0, 0, 0, 9}, {-1, 0, 0, 0, 0, 0}, {0, 0, 0, 0, -1, 0}};
    for (const Reach& r : refused) {
        SCOPED_TRACE(Name(r));
        EXPECT_EQ(AssertionText([&] {
                      (void)Ops::CubicDilate(*tree, r.xMinus, r.xPlus, r.yMinus, r.yPlus, r.zMinus, r.zPlus);
                  }),
                  kKernelText);
        EXPECT_EQ(AssertionText([&] {
                      (void)Ops::CubicErode(*tree, r.xMinus, r.xPlus, r.yMinus, r.yPlus, r.zMinus, r.zPlus);
                  }),
                  kKernelText);
    }
    const std::string report = MessageOf<QelThrowBugHandler::AssertException>(
        [&] { (void)Ops::CubicDilate(*tree, 0, 0, 5, 0, 0, 0); });
    EXPECT_NE(report.find("src/bittree/imp/QelBlockedBitTreeOps"), std::string::npos) << report;
    EXPECT_NE(Ops::CubicDilate(*tree, 8, 8, 4, 4, 8, 8), nullptr);

    auto target = MakeTree(13, 10, 10);  // 40 / 13 rounds to 3
    EXPECT_NE(AssertionText([&] { (void)Ops::Downsize(*tree, *target, 0, 8, true, nullptr); }), "");
}

TEST(QelBlockedBitTreeOpsTest, DownsizingOneVoxelByTwoHalvesItsCoordinates)
{
    auto source = MakeTree(64, 64, 64);
    ASSERT_TRUE(source->SetBit(45, 13, 50));
    auto target = MakeTree(32, 32, 32);
    // In two ranges, as a caller splitting the work would; the second one finishes.
    ASSERT_TRUE(Ops::Downsize(*source, *target, 0, 5, true, nullptr));
    ASSERT_TRUE(Ops::Downsize(*source, *target, 5, 8, true, nullptr));
    DenseMask expected(32, 32, 32);
    expected.Set(22, 6, 25);
    ExpectSameVoxels(*target, expected);
    ExpectEmptinessPromisesHold(*target, expected);
}

// Every allocation that can fail fails once, in turn: the result is null (false for
// Downsize) and nothing stays outstanding beyond the operands.
TEST(QelBlockedBitTreeOpsTest, RunningOutOfMemoryLeavesNothingBehind)
{
    CountingMemoryManager manager;
    std::mt19937 random(TestSeed());
    auto a = RandomTree(70, 45, 40, random, &manager);
    auto b = RandomTree(70, 45, 40, random, &manager);
    ASSERT_NE(a, nullptr);
    ASSERT_NE(b, nullptr);
    const std::size_t operands = manager.Outstanding();
    using Operation = std::function<bool()>;
    const std::pair<const char*, Operation> operations[] = {
        {"union", [&] { return Ops::Union(*a, *b) != nullptr; }},
        {"intersection", [&] { return Ops::Intersection(*a, *b) != nullptr; }},
        {"xor", [&] { return Ops::Xor(*a, *b) != nullptr; }},
        {"invert", [&] { return Ops::Invert(*a) != nullptr; }},
        {"dilate", [&] { return Ops::CubicDilate(*a, 1, 2, 1, 2, 1, 2) != nullptr; }},
        {"erode", [&] { return Ops::CubicErode(*a, 2, 1, 2, 1, 2, 1) != nullptr; }},
        {"downsize",
         [&] {
             auto target = MakeTree(35, 23, 20, &manager);
             return target && Ops::Downsize(*a, *target, 0, a->GetBlockCount(), true, nullptr);
         }},
    };
    for (const auto& [name, operation] : operations) {
        SCOPED_TRACE(name);
        for (int allowed = 0;; ++allowed) {
            manager.SetFailAfter(allowed);
            const bool made = operation();
            manager.SetFailAfter(-1);
            ASSERT_EQ(manager.Outstanding(), operands) << allowed;
            if (made)
                break;
            ASSERT_LT(allowed, 1000);
        }
    }
    EXPECT_EQ(manager.ForeignFrees(), 0);
}

}  // namespace
