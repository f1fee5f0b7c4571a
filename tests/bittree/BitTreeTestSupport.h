#pragma once

#include "bittree/QelBlockedBitTree.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

class QelMemoryManager;

inline QelIntRange SizeRange(std::uint32_t size)
{
    return size == 0 ? QelIntRange() : QelIntRange(0, static_cast<std::int32_t>(size) - 1);
}

inline std::unique_ptr<QelBlockedBitTree> MakeTree(std::uint32_t width, std::uint32_t height, std::uint32_t depth,
                                                   QelMemoryManager* manager = nullptr)
{
    return QelBlockedBitTree::New({SizeRange(width), SizeRange(height), SizeRange(depth)}, manager);
}

inline unsigned TestSeed()
{
    const char* text = std::getenv("AX_TEST_SEED");
    return text ? static_cast<unsigned>(std::strtoul(text, nullptr, 10)) : 20261123u;
}

// The plain reference: one bool per voxel inside the volume, X fastest.
class DenseMask {
public:
    DenseMask(std::uint32_t width, std::uint32_t height, std::uint32_t depth)
        : m_width(width), m_height(height), m_depth(depth), m_bits(std::size_t{width} * height * depth)
    {
    }

    [[nodiscard]] bool Inside(std::int64_t x, std::int64_t y, std::int64_t z) const
    {
        return x >= 0 && y >= 0 && z >= 0 && x < m_width && y < m_height && z < m_depth;
    }
    [[nodiscard]] bool Get(std::int64_t x, std::int64_t y, std::int64_t z) const
    {
        return Inside(x, y, z) && m_bits[Index(x, y, z)];
    }
    void Set(std::int64_t x, std::int64_t y, std::int64_t z, bool value = true)
    {
        if (Inside(x, y, z))
            m_bits[Index(x, y, z)] = value;
    }
    void ClearPlane(std::int64_t z)
    {
        for (std::uint32_t y = 0; y < m_height; ++y)
            for (std::uint32_t x = 0; x < m_width; ++x)
                Set(x, y, z, false);
    }
    [[nodiscard]] bool AnyIn(std::int64_t x0, std::int64_t y0, std::int64_t z0, std::int64_t edge) const
    {
        for (std::int64_t z = z0; z < z0 + edge; ++z)
            for (std::int64_t y = y0; y < y0 + edge; ++y)
                for (std::int64_t x = x0; x < x0 + edge; ++x)
                    if (Get(x, y, z))
                        return true;
        return false;
    }

    std::uint32_t m_width, m_height, m_depth;

private:
    [[nodiscard]] std::size_t Index(std::int64_t x, std::int64_t y, std::int64_t z) const
    {
        return static_cast<std::size_t>((z * m_height + y) * m_width + x);
    }

    std::vector<bool> m_bits;
};

// Every voxel, every block row and column as the accessors give them, and the
// summary promises: a 1 must mean a row or column without a set bit.
inline void ExpectSameVoxels(const QelBlockedBitTree& tree, const DenseMask& dense)
{
    int reported = 0;
    const auto report = [&reported](const std::string& what) {
        if (reported++ < 5)
            ADD_FAILURE() << what;
    };
    for (std::uint32_t z = 0; z < dense.m_depth; ++z)
        for (std::uint32_t y = 0; y < dense.m_height; ++y)
            for (std::uint32_t x = 0; x < dense.m_width; ++x) {
                const bool expected = dense.Get(x, y, z);
                const std::string at = std::to_string(x) + ", " + std::to_string(y) + ", " + std::to_string(z);
                if (tree.IsSet(static_cast<std::int32_t>(x), static_cast<std::int32_t>(y),
                               static_cast<std::int32_t>(z)) != expected)
                    report("voxel " + at);
                if (tree.IsSetInRow(x, 128 * (z % 32) + y % 32, tree.GetBlockIndex(0, y, z)) != expected)
                    report("row voxel " + at);
            }
    EXPECT_FALSE(tree.IsSetInRow(dense.m_width, 0, 0));

    for (std::uint32_t i = 0; i < tree.GetBlockCount(); ++i) {
        const QelBlockedBitTree::Block* block = tree.GetBlock(i);
        if (!QelBlockedBitTree::HasStorage(block))
            continue;
        std::uint32_t x0, y0, z0;
        tree.GetBlockOrigin(i, x0, y0, z0);
        for (std::uint32_t z = 0; z < 32; ++z)
            for (std::uint32_t k = 0; k < 32; ++k) {
                std::uint32_t row = 0, column = 0, rowMask = 0, columnMask = 0, rawRow = 0, rawColumn = 0;
                for (std::uint32_t b = 0; b < 32; ++b) {
                    row |= std::uint32_t{dense.Get(x0 + b, y0 + k, z0 + z)} << b;
                    column |= std::uint32_t{dense.Get(x0 + k, y0 + b, z0 + z)} << b;
                    rowMask |= std::uint32_t{dense.Inside(x0 + b, y0 + k, z0 + z)} << b;
                    columnMask |= std::uint32_t{dense.Inside(x0 + k, y0 + b, z0 + z)} << b;
                    rawRow |= std::uint32_t(block->Bits[128 * z + 32 * (b / 8) + k] >> (b % 8) & 1) << b;
                    rawColumn |= std::uint32_t(block->Bits[128 * z + 32 * (k / 8) + b] >> (k % 8) & 1) << b;
                }
                const std::string at = "block " + std::to_string(i) + " line " + std::to_string(k) + " z " +
                                       std::to_string(z);
                if ((block->GetRowBits(k, z) & rowMask) != row)
                    report("row bits, " + at);
                if ((block->GetColumnBits(k, z) & columnMask) != column)
                    report("column bits, " + at);
                if ((block->SummaryY[z] >> k & 1) && rawRow != 0)
                    report("SummaryY broken, " + at);
                if ((block->SummaryX[z] >> k & 1) && rawColumn != 0)
                    report("SummaryX broken, " + at);
            }
    }
}

// A flag of 1 must mean that nothing is set in the 33-voxel cube from the origin.
inline void ExpectEmptinessPromisesHold(const QelBlockedBitTree& tree, const DenseMask& dense)
{
    for (std::uint32_t i = 0; i < tree.GetBlockCount(); ++i) {
        if (tree.BlockEmptiness()[i] == 0)
            continue;
        std::uint32_t x0, y0, z0;
        tree.GetBlockOrigin(i, x0, y0, z0);
        EXPECT_FALSE(dense.AnyIn(x0, y0, z0, 33)) << "block " << i << " at (" << x0 << ", " << y0 << ", " << z0 << ")";
    }
}
