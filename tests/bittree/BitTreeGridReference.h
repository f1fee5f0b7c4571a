#pragma once

#include "bittree/BitTreeTestSupport.h"
#include "bittree/QelBlockedBitTree.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <random>
#include <string>
#include <vector>

// The plain reference over a tree's whole block grid, padding included: one byte
// per voxel of BlocksX x 32 by BlocksY x 32 by BlocksZ x 32, read raw from the
// entries (an empty entry is clear, a full one set). The operations work on whole
// blocks, so their results are pinned bit for bit, outside the volume too.
class BlockGrid {
public:
    explicit BlockGrid(const QelBlockedBitTree& shape)
        : m_width(32 * shape.BlocksX()), m_height(32 * shape.BlocksY()), m_depth(32 * shape.BlocksZ()),
          m_bits(std::size_t{m_width} * m_height * m_depth)
    {
    }

    static BlockGrid Of(const QelBlockedBitTree& tree)
    {
        BlockGrid grid(tree);
        for (std::uint32_t z = 0; z < grid.m_depth; ++z)
            for (std::uint32_t y = 0; y < grid.m_height; ++y)
                for (std::uint32_t x = 0; x < grid.m_width; ++x)
                    grid.Set(x, y, z, RawBit(tree, x, y, z));
        return grid;
    }

    static bool RawBit(const QelBlockedBitTree& tree, std::uint32_t x, std::uint32_t y, std::uint32_t z)
    {
        const QelBlockedBitTree::Block* entry = tree.GetBlock(tree.GetBlockIndex(x, y, z));
        if (!QelBlockedBitTree::HasStorage(entry))
            return entry != nullptr;
        return entry->Bits[128 * (z % 32) + 32 * (x % 32 / 8) + y % 32] >> (x % 8) & 1;
    }

    [[nodiscard]] bool Inside(std::int64_t x, std::int64_t y, std::int64_t z) const
    {
        return x >= 0 && y >= 0 && z >= 0 && x < m_width && y < m_height && z < m_depth;
    }
    [[nodiscard]] bool Get(std::int64_t x, std::int64_t y, std::int64_t z) const
    {
        return Inside(x, y, z) && m_bits[Index(x, y, z)] != 0;
    }
    void Set(std::int64_t x, std::int64_t y, std::int64_t z, bool value)
    {
        if (Inside(x, y, z))
            m_bits[Index(x, y, z)] = value ? 1 : 0;
    }
    // The voxels inside a volume of the given size, for the voxel-level checks.
    [[nodiscard]] DenseMask Volume(const QelBlockedBitTree& tree) const
    {
        DenseMask dense(tree.Width(), tree.Height(), tree.Depth());
        for (std::uint32_t z = 0; z < tree.Depth(); ++z)
            for (std::uint32_t y = 0; y < tree.Height(); ++y)
                for (std::uint32_t x = 0; x < tree.Width(); ++x)
                    dense.Set(x, y, z, Get(x, y, z));
        return dense;
    }

    std::uint32_t m_width, m_height, m_depth;

private:
    [[nodiscard]] std::size_t Index(std::int64_t x, std::int64_t y, std::int64_t z) const
    {
        return static_cast<std::size_t>((z * m_height + y) * m_width + x);
    }

    std::vector<std::uint8_t> m_bits;
};

// Every raw bit of the tree's grid as the reference has it, the first few
// differences reported.
inline void ExpectSameGrid(const QelBlockedBitTree& tree, const BlockGrid& grid)
{
    int reported = 0;
    for (std::uint32_t z = 0; z < grid.m_depth; ++z)
        for (std::uint32_t y = 0; y < grid.m_height; ++y)
            for (std::uint32_t x = 0; x < grid.m_width; ++x)
                if (BlockGrid::RawBit(tree, x, y, z) != grid.Get(x, y, z) && reported++ < 5)
                    ADD_FAILURE() << "grid bit " << x << ", " << y << ", " << z << " should be "
                                  << grid.Get(x, y, z);
}

// Voxels, lines and summaries inside the volume, emptiness promises, and the raw
// grid with its padding.
inline void ExpectTreeIs(const QelBlockedBitTree& tree, const BlockGrid& grid)
{
    const DenseMask dense = grid.Volume(tree);
    ExpectSameVoxels(tree, dense);
    ExpectEmptinessPromisesHold(tree, dense);
    ExpectSameGrid(tree, grid);
}

// A tree whose entries are a random mix of empty, full, sparse, nearly full and
// rows of every kind written past the volume's edge, so that padding bits are set.
// The flags are computed, as a builder of masks leaves them.
inline std::unique_ptr<QelBlockedBitTree> RandomTree(std::uint32_t width, std::uint32_t height, std::uint32_t depth,
                                                     std::mt19937& random, QelMemoryManager* manager = nullptr)
{
    auto tree = MakeTree(width, height, depth, manager);
    if (!tree)
        return nullptr;
    for (std::uint32_t i = 0; i < tree->GetBlockCount(); ++i) {
        const std::uint32_t kind = random() % 5;
        if (kind == 0)
            continue;
        for (std::uint32_t n = 0; n < 32 * 32; ++n) {
            std::uint32_t word = 0;
            if (kind == 1)
                word = ~0u;
            else if (kind == 2)
                word = random() % 16 == 0 ? 1u << (random() % 32) : 0u;
            else if (kind == 3)
                word = ~(1u << (random() % 32)) | (random() % 4 == 0 ? ~0u : 0u);
            else
                word = random() % 3 == 0 ? static_cast<std::uint32_t>(random()) : 0u;
            if (!tree->SetRowBits(i, n % 32, n / 32, word))
                return nullptr;
        }
    }
    tree->ComputeBlockEmptiness();
    return tree;
}
