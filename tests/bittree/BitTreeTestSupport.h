#pragma once

#include "bittree/QelBlockedBitTree.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <memory>
#include <random>
#include <vector>

inline std::unique_ptr<QelBlockedBitTree> MakeTree(std::uint32_t w, std::uint32_t h, std::uint32_t d,
                                                   QelMemoryManager* manager = nullptr)
{
    const auto range = [](std::uint32_t n) { return n ? QelIntRange(0, std::int32_t(n) - 1) : QelIntRange(); };
    return QelBlockedBitTree::New({range(w), range(h), range(d)}, manager);
}

inline unsigned TestSeed()
{
    const char* text = std::getenv("AX_TEST_SEED");
    return text ? static_cast<unsigned>(std::strtoul(text, nullptr, 10)) : 20261123u;
}

inline void FillBlock(QelBlockedBitTree& tree, std::uint32_t i)
{
    for (std::uint32_t n = 0; n < 32 * 32; ++n)
        ASSERT_TRUE(tree.SetRowBits(i, n % 32, n / 32, ~0u));
}

// The plain reference: one byte per voxel of a volume's whole block grid, padding included.
struct Grid {
    Grid(std::uint32_t width, std::uint32_t height, std::uint32_t depth)
        : w(width), h(height), d(depth), gw((w + 31) & ~31u), gh((h + 31) & ~31u), gd((d + 31) & ~31u),
          bits(std::size_t{gw} * gh * gd)
    {
    }
    // The tree's bits as stored, outside the volume too: an empty entry is clear, a full one set.
    static Grid Of(const QelBlockedBitTree& tree)
    {
        const Grid size(tree.Width(), tree.Height(), tree.Depth());
        return size.Map([&](std::uint32_t x, std::uint32_t y, std::uint32_t z) {
            const QelBlockedBitTree::Block* entry = tree.GetBlock(tree.GetBlockIndex(x, y, z));
            if (!QelBlockedBitTree::HasStorage(entry))
                return entry != nullptr;
            return (entry->Bits[128 * (z % 32) + 32 * (x % 32 / 8) + y % 32] >> (x % 8) & 1) != 0;
        });
    }
    // A grid of this size with f(x, y, z) at every voxel, padding included.
    template <class F>
    Grid Map(F f) const
    {
        Grid out(w, h, d);
        for (std::uint32_t n = 0; n < bits.size(); ++n)
            out.bits[n] = f(std::int64_t{n % gw}, std::int64_t{n / gw % gh}, std::int64_t{n / gw / gh});
        return out;
    }
    bool InVolume(std::int64_t x, std::int64_t y, std::int64_t z) const { return Within(x, y, z, w, h, d); }
    bool InGrid(std::int64_t x, std::int64_t y, std::int64_t z) const { return Within(x, y, z, gw, gh, gd); }
    bool Get(std::int64_t x, std::int64_t y, std::int64_t z) const { return InGrid(x, y, z) && bits[At(x, y, z)]; }
    void Set(std::int64_t x, std::int64_t y, std::int64_t z, bool value = true)
    {
        if (InGrid(x, y, z))
            bits[At(x, y, z)] = value;
    }
    // The same voxels inside the volume, padding clear.
    Grid Volume() const
    {
        return Map([this](auto x, auto y, auto z) { return Get(x, y, z) && InVolume(x, y, z); });
    }
    static bool Within(std::int64_t x, std::int64_t y, std::int64_t z, std::int64_t a, std::int64_t b, std::int64_t c)
    {
        return x >= 0 && y >= 0 && z >= 0 && x < a && y < b && z < c;
    }
    std::size_t At(std::int64_t x, std::int64_t y, std::int64_t z) const { return std::size_t((z * gh + y) * gw + x); }

    std::uint32_t w, h, d, gw, gh, gd;
    std::vector<std::uint8_t> bits;
};

// Voxels through both readers, raw bits (padding too when `padding`), every block's
// row and column accessors against its raw bits (which a broken summary promise
// fails), and the emptiness flags: a 1 must mean no set voxel in the 33-cube.
inline void ExpectTreeIs(const QelBlockedBitTree& tree, const Grid& ref, bool padding = false)
{
    Grid voxels = ref, inRows = ref;  // the readers' answers inside the volume
    for (std::uint32_t n = 0; n < ref.bits.size(); ++n) {
        const std::uint32_t x = n % ref.gw, y = n / ref.gw % ref.gh, z = n / ref.gw / ref.gh;
        if (ref.InVolume(x, y, z)) {
            voxels.bits[n] = tree.IsSet(std::int32_t(x), std::int32_t(y), std::int32_t(z));
            inRows.bits[n] = tree.IsSetInRow(x, 128 * (z % 32) + y % 32, tree.GetBlockIndex(0, y, z));
        }
    }
    EXPECT_TRUE(voxels.bits == ref.bits && inRows.bits == ref.bits) << "voxels";
    EXPECT_TRUE(!padding || Grid::Of(tree).bits == ref.bits) << "raw bits";
    EXPECT_FALSE(tree.IsSetInRow(tree.Width(), 0, 0)) << "row end";
    std::vector<std::uint32_t> wrongAccessors, wrongFlags;  // block indices
    for (std::uint32_t i = 0; i < tree.GetBlockCount(); ++i) {
        std::uint32_t x0, y0, z0;
        tree.GetBlockOrigin(i, x0, y0, z0);
        const QelBlockedBitTree::Block* block = tree.GetBlock(i);
        for (std::uint32_t n = 0; QelBlockedBitTree::HasStorage(block) && n < 32 * 32; ++n) {
            const std::uint32_t k = n % 32, z = n / 32;
            std::uint32_t row = 0, column = 0;
            for (std::uint32_t b = 0; b < 32; ++b) {
                row |= std::uint32_t(block->Bits[128 * z + 32 * (b / 8) + k] >> (b % 8) & 1) << b;
                column |= std::uint32_t(block->Bits[128 * z + 32 * (k / 8) + b] >> (k % 8) & 1) << b;
            }
            if (block->GetRowBits(k, z) != row || block->GetColumnBits(k, z) != column) {
                wrongAccessors.push_back(i);
                break;
            }
        }
        for (std::uint32_t n = 0; tree.BlockEmptiness()[i] && n < 33 * 33 * 33; ++n)
            if (ref.InVolume(x0 + n % 33, y0 + n / 33 % 33, z0 + n / 1089) &&
                ref.Get(x0 + n % 33, y0 + n / 33 % 33, z0 + n / 1089)) {
                wrongFlags.push_back(i);
                break;
            }
    }
    EXPECT_EQ(wrongAccessors, std::vector<std::uint32_t>()) << "blocks whose rows or columns differ from their bits";
    EXPECT_EQ(wrongFlags, std::vector<std::uint32_t>()) << "blocks flagged empty with set voxels in reach";
}

// ExpectTreeIs after what a writer's caller does with the tree before anyone reads it.
inline void ExpectMatches(QelBlockedBitTree* tree, const Grid& ref, bool padding = false)
{
    ASSERT_NE(tree, nullptr);
    tree->CompleteSummaryInX();
    tree->CompleteSummaryInY();
    tree->ComputeBlockEmptiness();
    ExpectTreeIs(*tree, ref, padding);
}

// Entries of every form: empty, full, sparse, nearly full and random rows, written
// past the volume's edge too; flags computed, as a builder of masks leaves them.
inline std::unique_ptr<QelBlockedBitTree> RandomTree(std::uint32_t w, std::uint32_t h, std::uint32_t d,
                                                     std::mt19937& random, QelMemoryManager* manager = nullptr)
{
    auto tree = MakeTree(w, h, d, manager);
    for (std::uint32_t i = 0; tree && i < tree->GetBlockCount(); ++i) {
        const std::uint32_t kind = random() % 5;
        for (std::uint32_t n = 0; kind && n < 32 * 32; ++n) {
            const std::uint32_t words[] = {random() % 3 ? 0u : std::uint32_t(random()), ~0u,
                                           random() % 16 ? 0u : 1u << (random() % 32),
                                           ~(1u << (random() % 32)) | (random() % 4 ? 0u : ~0u)};
            if (!tree->SetRowBits(i, n % 32, n / 32, words[kind % 4]))
                return nullptr;
        }
    }
    if (tree)
        tree->ComputeBlockEmptiness();
    return tree;
}
