#include "bittree/QelBlockedBitTree.h"

#include "base/QelCrashReport.h"
#include "bittree/BitTreeTestSupport.h"
#include "support/BaseTestSupport.h"
#include "support/CountingMemoryManager.h"
#include "support/RealFaults.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <numeric>
#include <random>
#include <string>
#include <vector>

// Reaches the tree's private fields to break it the ways Verify must notice.
class QelBlockedBitTreeTestPeer {
public:
    static std::uint32_t& Width(QelBlockedBitTree& tree) { return tree.m_width; }
    static std::uint32_t& BlockCount(QelBlockedBitTree& tree) { return tree.m_blockCount; }
    static auto& Table(QelBlockedBitTree& tree) { return tree.m_blocks; }
    static auto& Flags(QelBlockedBitTree& tree) { return tree.m_emptiness; }
};

namespace {

using Block = QelBlockedBitTree::Block;
using Peer = QelBlockedBitTreeTestPeer;

constexpr std::uint32_t kBlock = QelBlockedBitTree::kBlockBytes;
constexpr std::uint32_t kEmptyTree2 = 176 + 5 * 2;  // memory size of an empty two-block tree

std::string VerifyText(const QelBlockedBitTree& tree)
{
    char message[128] = "untouched";
    return tree.Verify(message, sizeof message) ? "verified" : message;
}

void FillWithRows(QelBlockedBitTree& tree, std::uint32_t i)
{
    for (std::uint32_t n = 0; n < 32 * 32; ++n)
        ASSERT_TRUE(tree.SetRowBits(i, n % 32, n / 32, ~0u));
}

// A random walk of the writing operations over a tree and a dense mask, with sizes
// that straddle block edges; voxels, lines, summaries and flags are checked often.
TEST(QelBlockedBitTreeTest, RandomWritesMatchADenseMask)
{
    const unsigned seed = TestSeed();
    SCOPED_TRACE("seed " + std::to_string(seed) + " (set AX_TEST_SEED to repeat another)");
    std::mt19937 random(seed);
    const auto pick = [&random](std::uint32_t n) { return static_cast<std::int32_t>(random() % n); };
    std::vector<std::array<std::uint32_t, 3>> sizes = {{33, 1, 1}, {45, 70, 33}, {32, 32, 32}, {1, 33, 64}};
    for (int k = 0; k < 3; ++k)
        sizes.push_back({1u + pick(70), 1u + pick(70), 1u + pick(70)});

    for (const auto& [w, h, d] : sizes) {
        SCOPED_TRACE(std::to_string(w) + "x" + std::to_string(h) + "x" + std::to_string(d));
        auto tree = MakeTree(w, h, d);
        DenseMask dense(w, h, d);
        for (int round = 0; round < 6 && !HasFailure(); ++round) {
            // Half the voxels in a small cluster, so that rows, planes and blocks fill.
            const std::int32_t cx = pick(w), cy = pick(h), cz = pick(d);
            for (int n = 0; n < 400; ++n) {
                const bool near = n % 2 == 0;
                const std::int32_t x = near ? std::min<std::int32_t>(cx + pick(4), w - 1) : pick(w);
                const std::int32_t y = near ? std::min<std::int32_t>(cy + pick(4), h - 1) : pick(h);
                const std::int32_t z = near ? std::min<std::int32_t>(cz + pick(4), d - 1) : pick(d);
                ASSERT_TRUE(tree->SetBit(x, y, z));
                dense.Set(x, y, z);
            }
            for (int n = 0; n < 40; ++n) {
                const std::uint32_t i = pick(tree->GetBlockCount()), y = pick(32), z = pick(32);
                const std::uint32_t words[] = {0u, ~0u, static_cast<std::uint32_t>(random()), 0x0F0F00FFu};
                const std::uint32_t word = words[pick(4)];
                ASSERT_TRUE(tree->SetRowBits(i, y, z, word));
                std::uint32_t x0, y0, z0;
                tree->GetBlockOrigin(i, x0, y0, z0);
                for (std::uint32_t x = 0; x < 32; ++x)
                    dense.Set(x0 + x, y0 + y, z0 + z, word >> x & 1);
            }
            if (round % 2 == 1) {
                const std::int32_t z = pick(d);
                ASSERT_TRUE(tree->ClearSlice(z));
                for (std::uint32_t y = 0; y < h; ++y)
                    for (std::uint32_t x = 0; x < w; ++x)
                        dense.Set(x, y, z, false);
            }
            ExpectSameVoxels(*tree, dense);
            if (round % 3 == 2) {
                tree->CompleteSummaryInX();
                tree->CompleteSummaryInY();
            }
            tree->ComputeBlockEmptiness();
            ExpectSameVoxels(*tree, dense);
            ExpectEmptinessPromisesHold(*tree, dense);
        }
        // A trilinear sample sees the object exactly when one of its eight voxels is set.
        for (int n = 0; n < 2000; ++n) {
            const float x = pick(w * 8 + 16) / 8.0f - 1.0f, y = pick(h * 8 + 16) / 8.0f - 1.0f,
                        z = pick(d * 8 + 16) / 8.0f - 1.0f;
            const auto i = static_cast<std::int64_t>(std::floor(x)), j = static_cast<std::int64_t>(std::floor(y)),
                       k = static_cast<std::int64_t>(std::floor(z));
            ASSERT_EQ(tree->IsCellSet(x, y, z), dense.Inside(i, j, k) && dense.AnyIn(i, j, k, 2))
                << x << ", " << y << ", " << z;
        }
    }
}

// The bit layout is read by renderers and stored in streams: pin it.
TEST(QelBlockedBitTreeTest, VoxelsLandAtTheirFixedBitsAndTableIndices)
{
    auto tree = MakeTree(70, 40, 35);
    struct Case {
        std::int32_t x, y, z;
        std::uint32_t index, byte, bit;
    };
    const Case cases[] = {
        {0, 0, 0, 0, 0, 0},
        {9, 3, 2, 0, 128 * 2 + 32 + 3, 1},
        {31, 31, 31, 0, 4095, 7},
        {69, 39, 33, (1 + 1 * 2) * 3 + 2, 128 + 7, 5},
    };
    for (const Case& c : cases) {
        ASSERT_TRUE(tree->SetBit(c.x, c.y, c.z));
        ASSERT_EQ(tree->GetBlockIndex(c.x, c.y, c.z), c.index);
        EXPECT_EQ(tree->GetBlock(c.index)->Bits[c.byte], 1u << c.bit) << c.x << ", " << c.y << ", " << c.z;
        std::uint32_t x0, y0, z0;
        tree->GetBlockOrigin(c.index, x0, y0, z0);
        EXPECT_EQ(x0 + y0 * 100 + z0 * 10000, c.x / 32u * 32 + c.y / 32u * 3200 + c.z / 32u * 320000);
    }
    EXPECT_FALSE(tree->IsSet(70, 0, 0));
    EXPECT_FALSE(tree->SetBit(0, 40, 0));
    EXPECT_FALSE(tree->SetBit(0, 0, -1));
    EXPECT_FALSE(tree->IsCellSet(std::nanf(""), 0.0f, 0.0f));
    EXPECT_FALSE(tree->IsCellSet(-0.5f, 0.0f, 0.0f));  // floors to -1
    EXPECT_EQ(MakeTree(33, 1, 1)->GetBlockCount(), 2u);
    auto flat = MakeTree(0, 5, 5);
    EXPECT_TRUE(flat->Box().X.IsEmpty());
    EXPECT_EQ(flat->GetMemorySize(), 176u);
    EXPECT_EQ(VerifyText(*flat), "verified");
}

TEST(QelBlockedBitTreeTest, AFilledBlockBecomesTheMarkerAndGivesItsStorageBack)
{
    CountingMemoryManager manager;
    auto tree = MakeTree(40, 32, 32, &manager);
    std::vector<std::int32_t> order(32768);
    std::iota(order.begin(), order.end(), 0);
    std::shuffle(order.begin(), order.end(), std::mt19937(TestSeed()));
    for (std::int32_t v : order) {
        ASSERT_TRUE(tree->SetBit(v & 31, v >> 5 & 31, v >> 10));
        if (v != order.back()) {
            ASSERT_EQ(tree->GetMemorySize(), kEmptyTree2 + kBlock);
        }
    }
    EXPECT_EQ(tree->GetBlock(0), QelBlockedBitTree::FullBlock());
    EXPECT_EQ(tree->GetMemorySize(), kEmptyTree2);
    EXPECT_EQ(manager.Outstanding(), 2u);  // the table and the flags
    EXPECT_EQ(tree->BlockEmptiness()[0], 0);

    // At the volume's edge the ones beyond the width count too.
    FillWithRows(*tree, 1);
    tree->ComputeEmptinessOfBlock(1);
    EXPECT_EQ(tree->GetBlock(1), QelBlockedBitTree::FullBlock());
    // A full entry is split for anything but ones and keeps its other voxels.
    ASSERT_TRUE(tree->SetRowBits(1, 3, 4, 0x1u));
    EXPECT_EQ(std::vector<bool>({tree->IsSet(32, 3, 4), tree->IsSet(33, 3, 4), tree->IsSet(33, 4, 4)}),
              std::vector<bool>({true, false, true}));
    ASSERT_TRUE(tree->ClearSlice(4));
    EXPECT_FALSE(tree->IsSet(5, 6, 4));
    EXPECT_TRUE(tree->IsSet(5, 6, 5));
    EXPECT_EQ(tree->GetMemorySize(), kEmptyTree2 + 2 * kBlock);
    tree->Clear();
    EXPECT_EQ(manager.Outstanding(), 2u);
    EXPECT_EQ(tree->BlockEmptiness()[0], 1);
}

// Each voxel lies just outside block 0 of a 65-cube; only those that a sample
// inside block 0 can reach clear its flag, and only once the flags are computed.
TEST(QelBlockedBitTreeTest, ANeighbourVoxelClearsTheOriginFlagOnlyWithinReach)
{
    struct Case {
        std::int32_t x, y, z;
        bool reaches;
    };
    const Case cases[] = {
        {32, 0, 0, true},   {32, 31, 32, true}, {0, 32, 0, true},   {31, 32, 32, true},  {0, 0, 32, true},
        {31, 31, 32, true}, {32, 32, 7, true},  {32, 32, 32, true}, {33, 0, 0, false},   {0, 33, 0, false},
        {0, 0, 33, false},  {32, 33, 0, false}, {33, 32, 32, false}, {33, 33, 32, false},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(std::to_string(c.x) + ", " + std::to_string(c.y) + ", " + std::to_string(c.z));
        auto tree = MakeTree(65, 65, 65);
        ASSERT_TRUE(tree->SetBit(c.x, c.y, c.z));
        EXPECT_EQ(tree->BlockEmptiness()[0], 1);
        tree->ComputeBlockEmptiness();
        EXPECT_EQ(tree->GetBlock(0), nullptr);
        EXPECT_EQ(tree->BlockEmptiness()[0], c.reaches ? 0 : 1);
    }
    // Bits that a row word set past the volume's edge are never seen.
    auto tree = MakeTree(33, 1, 1);
    ASSERT_TRUE(tree->SetRowBits(1, 1, 0, ~0u));
    ASSERT_TRUE(tree->SetRowBits(1, 0, 0, ~0u << 1));
    tree->ComputeBlockEmptiness();
    EXPECT_EQ(tree->BlockEmptiness()[0], 1);
    EXPECT_FALSE(tree->IsSet(33, 0, 0));
}

TEST(QelBlockedBitTreeTest, CopiesAndNewBoxesKeepEntriesByIndex)
{
    CountingMemoryManager manager;
    auto tree = MakeTree(64, 40, 10, &manager);
    auto empty = tree->Copy();
    EXPECT_EQ(manager.Outstanding(), 4u);  // two tables and two flag arrays, no block
    ASSERT_TRUE(tree->SetBit(40, 35, 9));
    FillWithRows(*tree, 0);
    tree->ComputeBlockEmptiness();
    auto copy = tree->Copy();
    ASSERT_NE(copy, nullptr);
    EXPECT_EQ(copy->GetBlock(0), QelBlockedBitTree::FullBlock());
    EXPECT_NE(copy->GetBlock(3), tree->GetBlock(3));
    EXPECT_EQ(std::memcmp(copy->GetBlock(3), tree->GetBlock(3), kBlock), 0);
    EXPECT_TRUE(std::equal(tree->BlockEmptiness(), tree->BlockEmptiness() + 4, copy->BlockEmptiness()));

    // Two entries fewer: index 1 keeps its block (now at y 32), the surplus goes back.
    ASSERT_TRUE(copy->SetBit(33, 0, 0));
    const std::size_t before = manager.Outstanding();
    ASSERT_TRUE(copy->SetBox({QelIntRange(0, 31), QelIntRange(0, 63), QelIntRange(0, 9)}));
    EXPECT_EQ(copy->GetBlockCount(), 2u);
    EXPECT_TRUE(copy->IsSet(1, 32, 0));
    EXPECT_EQ(copy->BlockEmptiness()[1], 0);
    EXPECT_EQ(manager.Outstanding(), before - 1);
    EXPECT_EQ(VerifyText(*copy), "verified");
    ASSERT_TRUE(copy->SetBox({QelIntRange(0, 90), QelIntRange(0, 0), QelIntRange(0, 0)}));
    EXPECT_EQ(copy->GetBlock(2), nullptr);
    EXPECT_EQ(copy->BlockEmptiness()[2], 1);
}

TEST(QelBlockedBitTreeTest, RunningOutOfMemoryFailsCleanly)
{
    CountingMemoryManager manager;
    for (int allowed : {0, 1}) {  // the table, then the flags
        manager.SetFailAfter(allowed);
        EXPECT_EQ(MakeTree(40, 40, 40, &manager), nullptr) << allowed;
        EXPECT_EQ(manager.Outstanding(), 0u);
    }
    manager.SetFailAfter(-1);
    EXPECT_EQ(MakeTree(65536, 65536, 65536, &manager), nullptr);  // 2^33 entries
    auto tree = MakeTree(64, 64, 64, &manager);
    ASSERT_TRUE(tree->SetBit(40, 1, 1));
    FillWithRows(*tree, 2);
    tree->ComputeEmptinessOfBlock(2);

    manager.SetFailAfter(2);  // a copy's table and flags, but no block
    EXPECT_EQ(tree->Copy(), nullptr);
    manager.SetFailing(true);
    EXPECT_EQ(manager.Outstanding(), 3u);
    EXPECT_FALSE(tree->SetBit(3, 3, 3));
    EXPECT_FALSE(tree->IsSet(3, 3, 3));
    EXPECT_FALSE(tree->SetRowBits(0, 1, 1, 5u));
    EXPECT_FALSE(tree->SetRowBits(2, 1, 1, 5u));  // a full entry can't be split
    EXPECT_TRUE(tree->SetRowBits(2, 1, 1, ~0u));  // nor needs to be
    EXPECT_FALSE(tree->ClearSlice(2));  // the full entry 2 lies in the first slab
    EXPECT_FALSE(tree->SetBox({QelIntRange(0, 200), QelIntRange(0, 0), QelIntRange(0, 0)}));
    EXPECT_EQ(tree->GetBlockCount(), 8u);
    EXPECT_EQ(tree->Width(), 64u);
    EXPECT_EQ(manager.Outstanding(), 3u);
    EXPECT_EQ(VerifyText(*tree), "verified");
}

TEST(QelBlockedBitTreeTest, VerifyReportsTheFirstBrokenPartInOrder)
{
    auto tree = MakeTree(64, 32, 40);
    ASSERT_TRUE(tree->SetBit(40, 1, 1));
    auto* page = reinterpret_cast<std::uint8_t*>(const_cast<int*>(ForbiddenPage()));
    const auto expectWith = [&tree](auto& field, auto value, const char* text) {
        auto kept = field;
        field = value;
        EXPECT_EQ(VerifyText(*tree), text);
        field = kept;
    };
    expectWith(Peer::Width(*tree), 65u, "Invalid Block Size for Bittree");
    expectWith(Peer::BlockCount(*tree), 5u, "Invalid Volume size for Bittree");

    // The owners give up their storage while a bad pointer stands in for it.
    auto* table = Peer::Table(*tree).release();
    EXPECT_EQ(VerifyText(*tree), "Invalid Block Pointer for Bittree");
    Peer::Table(*tree).reset(reinterpret_cast<QelBlockedBitTree::ManagedBlock*>(page));
    EXPECT_EQ(VerifyText(*tree), "An unknown error (exception) occurred during Bittree check");
    (void)Peer::Table(*tree).release();
    Peer::Table(*tree).reset(table);

    Block* block = tree->GetBlock(1);
    tree->Blocks()[1].store(reinterpret_cast<Block*>(page));
    EXPECT_EQ(VerifyText(*tree), "Invalid Block Data pointer for Bittree");
    tree->Blocks()[1].store(block);

    std::uint8_t* flags = Peer::Flags(*tree).release();
    Peer::Flags(*tree).reset(page);
    EXPECT_EQ(VerifyText(*tree), "Invalid Block Emptiness pointer for Bittree");
    EXPECT_FALSE(tree->Verify(nullptr, 0));  // without a buffer only the result comes back
    EXPECT_EQ(QelLastExceptionCode(), 0xC0000005u);
    char shortMessage[8];
    EXPECT_FALSE(tree->Verify(shortMessage, sizeof shortMessage));
    EXPECT_EQ(std::string(shortMessage), "Invalid");
    (void)Peer::Flags(*tree).release();
    Peer::Flags(*tree).reset(flags);
    EXPECT_EQ(VerifyText(*tree), "verified");
}

}  // namespace
