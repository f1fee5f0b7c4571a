#include "bittree/QelBlockedBitTreeOps.h"

#include "bittree/BitTreeGridReference.h"
#include "bittree/BitTreeTestSupport.h"
#include "threaded/QelSystemInfo.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <random>

// Dilation runs its slabs on the render threads, three phases apart so that no two
// threads write one block. Meant to run under the thread sanitizer too.

namespace Ops = QelBlockedBitTreeOps;

namespace {

// Clusters that cross slab borders, so that neighbouring slabs write the same blocks.
std::unique_ptr<QelBlockedBitTree> ClusteredTree(std::uint32_t w, std::uint32_t h, std::uint32_t d,
                                                 std::mt19937& random, int clusters, int voxels)
{
    auto tree = MakeTree(w, h, d);
    for (int c = 0; c < clusters; ++c) {
        const std::int32_t cx = random() % w, cy = random() % h, cz = random() % d;
        for (int n = 0; n < voxels; ++n)
            (void)tree->SetBit(cx + static_cast<std::int32_t>(random() % 40) - 20,
                               cy + static_cast<std::int32_t>(random() % 40) - 20,
                               cz + static_cast<std::int32_t>(random() % 40) - 20);
    }
    tree->ComputeBlockEmptiness();
    return tree;
}

TEST(QelBlockedBitTreeOpsThreadsTest, DilationGivesTheSameBitsOnOneAndOnTwoThreads)
{
    std::mt19937 random(TestSeed());
    auto source = ClusteredTree(150, 100, 230, random, 40, 3000);
    for (const int kernel : {1, 4}) {
        SCOPED_TRACE(kernel);
        std::unique_ptr<QelBlockedBitTree> results[2];
        for (int threads : {1, 2}) {
            const QelRenderThreadCountPin pin(threads);
            results[threads - 1] = Ops::CubicDilate(*source, kernel, kernel - 1, kernel, 1, kernel - 1, kernel);
            ASSERT_NE(results[threads - 1], nullptr);
        }
        EXPECT_TRUE(Ops::Equal(*results[0], *results[1]));
        EXPECT_TRUE(std::equal(results[0]->BlockEmptiness(),
                               results[0]->BlockEmptiness() + results[0]->GetBlockCount(),
                               results[1]->BlockEmptiness()));
    }
}

// A stand-in for a bone mask of a 512^3 head: a thick shell with speckle inside a
// ball of blocks, a few thousand real blocks in all. Prints the times; run with
// --gtest_also_run_disabled_tests.
TEST(QelBlockedBitTreeOpsThreadsTest, DISABLED_TimesOnAHeadSizedMask)
{
    std::mt19937 random(TestSeed());
    const auto mask = [&random](double radius) {
        auto tree = MakeTree(512, 512, 512);
        for (std::uint32_t i = 0; i < tree->GetBlockCount(); ++i) {
            std::uint32_t x0, y0, z0;
            tree->GetBlockOrigin(i, x0, y0, z0);
            const double dx = x0 + 16.0 - 256, dy = y0 + 16.0 - 256, dz = z0 + 16.0 - 256;
            const double r = std::sqrt(dx * dx + dy * dy + dz * dz);
            if (r > radius)
                continue;
            for (std::uint32_t n = 0; n < 32 * 32; ++n) {
                const bool shell = std::abs(r - radius + 40) < 24;
                const std::uint32_t word = shell ? static_cast<std::uint32_t>(random()) | 0x00FF0000u
                                                 : (random() % 8 == 0 ? 1u << (random() % 32) : 0u);
                (void)tree->SetRowBits(i, n % 32, n / 32, word);
            }
        }
        tree->ComputeBlockEmptiness();
        return tree;
    };
    auto a = mask(290), b = mask(270);
    std::uint32_t real = 0;
    for (std::uint32_t i = 0; i < a->GetBlockCount(); ++i)
        real += QelBlockedBitTree::HasStorage(a->GetBlock(i)) ? 1 : 0;
    const auto best = [](auto operation) {
        double fastest = 1e9;
        for (int k = 0; k < 7; ++k) {
            const auto start = std::chrono::steady_clock::now();
            auto result = operation();
            const double ms = std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
            fastest = std::min(fastest, ms);
        }
        return fastest;
    };
    std::printf("real blocks: %u of %u\n", real, a->GetBlockCount());
    std::printf("union        %.2f ms\n", best([&] { return Ops::Union(*a, *b); }));
    std::printf("intersection %.2f ms\n", best([&] { return Ops::Intersection(*a, *b); }));
    std::printf("xor          %.2f ms\n", best([&] { return Ops::Xor(*a, *b); }));
    std::printf("invert       %.2f ms\n", best([&] { return Ops::Invert(*a); }));
    for (int threads : {1, 2}) {
        const QelRenderThreadCountPin pin(threads);
        std::printf("dilate 1, %d threads: %.2f ms\n", threads,
                    best([&] { return Ops::CubicDilate(*a, 1, 1, 1, 1, 1, 1); }));
    }
}

}  // namespace
