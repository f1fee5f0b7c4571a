#include "bittree/QelBlockedBitTree.h"

#include "bittree/BitTreeTestSupport.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <latch>
#include <numeric>
#include <random>
#include <thread>
#include <vector>

// Writers split the work by plane, as the thresholder and the extruder do: no two
// threads write one plane of a block, but all of them create, split, fill and
// collapse the same blocks at once. Meant to run under the thread sanitizer too.

namespace {

constexpr int kThreads = 4;

// Runs body(thread) on kThreads threads that start together.
template <class Body>
void RunTogether(Body body)
{
    std::latch start(kThreads);
    std::vector<std::jthread> threads;
    for (int t = 0; t < kThreads; ++t)
        threads.emplace_back([&, t] {
            start.arrive_and_wait();
            body(t);
        });
}

bool Pattern(std::uint32_t x, std::uint32_t y, std::uint32_t z)
{
    // Block 0 fills up completely, so that its collapse races with the other planes.
    return (x < 32 && y < 32 && z < 32) || (x * 7 + y * 13 + z * 3) % 5 == 0;
}

TEST(QelBlockedBitTreeThreadsTest, SetBitFromSeveralThreadsOnDistinctPlanes)
{
    constexpr std::uint32_t w = 70, h = 40, d = 64;
    auto tree = MakeTree(w, h, d);
    ASSERT_NE(tree, nullptr);
    std::vector<int> failures(kThreads, 0);
    RunTogether([&](int t) {
        for (std::uint32_t z = t; z < d; z += kThreads)
            for (std::uint32_t y = 0; y < h; ++y)
                for (std::uint32_t x = 0; x < w; ++x)
                    if (Pattern(x, y, z) && !tree->SetBit(x, y, z))
                        ++failures[t];
    });
    EXPECT_EQ(std::accumulate(failures.begin(), failures.end(), 0), 0);
    EXPECT_EQ(tree->GetBlock(0), QelBlockedBitTree::FullBlock());

    DenseMask dense(w, h, d);
    for (std::uint32_t z = 0; z < d; ++z)
        for (std::uint32_t y = 0; y < h; ++y)
            for (std::uint32_t x = 0; x < w; ++x)
                dense.Set(x, y, z, Pattern(x, y, z));
    tree->ComputeBlockEmptiness();
    ExpectSameVoxels(*tree, dense);
    ExpectEmptinessPromisesHold(*tree, dense);
}

TEST(QelBlockedBitTreeThreadsTest, EveryBlockIsCreatedOnceWhoeverAsksFirst)
{
    auto tree = MakeTree(100, 100, 100);
    const std::uint32_t count = tree->GetBlockCount();
    std::vector<std::vector<QelBlockedBitTree::Block*>> seen(kThreads);
    RunTogether([&](int t) {
        std::vector<std::uint32_t> order(count);
        std::iota(order.begin(), order.end(), 0u);
        std::shuffle(order.begin(), order.end(), std::mt19937(t));
        seen[t].resize(count);
        for (std::uint32_t i : order)
            seen[t][i] = tree->GetOrCreateBlock(i);
    });
    for (int t = 1; t < kThreads; ++t)
        EXPECT_EQ(seen[t], seen[0]);
    EXPECT_EQ(std::count(seen[0].begin(), seen[0].end(), nullptr), 0);
    EXPECT_EQ(tree->GetMemorySize(), 176u + 5 * count + QelBlockedBitTree::kBlockBytes * count);
}

// Rows stored word by word, over entries that start empty and entries that start
// full and must be split under the stripe while other planes are being written.
TEST(QelBlockedBitTreeThreadsTest, RowWritesFromSeveralThreadsSplitFullBlocksOnce)
{
    constexpr std::uint32_t edge = 64;
    auto tree = MakeTree(edge, edge, edge);
    for (std::uint32_t full : {0u, 5u}) {
        for (std::uint32_t n = 0; n < 32 * 32; ++n)
            ASSERT_TRUE(tree->SetRowBits(full, n % 32, n / 32, ~0u));
        tree->ComputeEmptinessOfBlock(full);
        ASSERT_EQ(tree->GetBlock(full), QelBlockedBitTree::FullBlock());
    }
    const auto word = [](std::uint32_t i, std::uint32_t y, std::uint32_t z) -> std::uint32_t {
        const std::uint32_t hash = (i * 2654435761u) ^ (y * 40503u) ^ (z * 9973u);
        return hash % 7 == 0 ? 0u : hash % 7 == 1 ? ~0u : hash;
    };
    RunTogether([&](int t) {
        for (std::uint32_t z = t; z < 32; z += kThreads)
            for (std::uint32_t i = 0; i < tree->GetBlockCount(); ++i)
                for (std::uint32_t y = 0; y < 32; ++y)
                    EXPECT_TRUE(tree->SetRowBits(i, y, z, word(i, y, z)));
    });
    tree->CompleteSummaryInX();
    tree->CompleteSummaryInY();
    tree->ComputeBlockEmptiness();

    DenseMask dense(edge, edge, edge);
    for (std::uint32_t i = 0; i < tree->GetBlockCount(); ++i) {
        std::uint32_t x0, y0, z0;
        tree->GetBlockOrigin(i, x0, y0, z0);
        for (std::uint32_t z = 0; z < 32; ++z)
            for (std::uint32_t y = 0; y < 32; ++y)
                for (std::uint32_t x = 0; x < 32; ++x)
                    dense.Set(x0 + x, y0 + y, z0 + z, word(i, y, z) >> x & 1);
    }
    ExpectSameVoxels(*tree, dense);
    ExpectEmptinessPromisesHold(*tree, dense);
}

}  // namespace
