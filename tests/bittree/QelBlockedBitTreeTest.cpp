#include "bittree/QelBlockedBitTree.h"

#include "base/QelCrashReport.h"
#include "bittree/BitTreeTestSupport.h"
#include "support/AssertionText.h"
#include "support/CountingMemoryManager.h"
#include "support/RealFaults.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <latch>
#include <numeric>
#include <thread>

// Reaches the tree's private fields to break it the ways Verify must notice.
class QelBlockedBitTreeTestPeer {
public:
    static std::uint32_t& Width(QelBlockedBitTree& tree) { return tree.m_width; }
    static std::uint32_t& BlockCount(QelBlockedBitTree& tree) { return tree.m_blockCount; }
    static auto& Table(QelBlockedBitTree& tree) { return tree.m_blocks; }
    static auto& Flags(QelBlockedBitTree& tree) { return tree.m_emptiness; }
};

namespace {

using Peer = QelBlockedBitTreeTestPeer;
using Bytes = std::vector<std::uint8_t>;
constexpr std::uint32_t kBlock = QelBlockedBitTree::kBlockBytes;
constexpr std::uint32_t kEmptyTree2 = 176 + 5 * 2;  // memory size of an empty two-block tree
QelBlockedBitTree::Block* const kFull = QelBlockedBitTree::FullBlock();

std::string VerifyText(const QelBlockedBitTree& tree)
{
    char message[128] = "untouched";
    return tree.Verify(message, sizeof message) ? "verified" : message;
}

// A random walk of the writing operations, with sizes that straddle block edges.
TEST(QelBlockedBitTreeTest, RandomWritesMatchTheReference)
{
    std::mt19937 random(TestSeed());
    const auto pick = [&random](std::uint32_t n) { return static_cast<std::int32_t>(random() % n); };
    std::vector<std::array<std::int32_t, 3>> sizes = {{33, 1, 1}, {45, 70, 33}, {32, 32, 32}, {1, 33, 64}};
    for (int k = 0; k < 3; ++k)
        sizes.push_back({1 + pick(70), 1 + pick(70), 1 + pick(70)});
    for (const auto& size : sizes) {
        const auto [w, h, d] = size;
        SCOPED_TRACE(::testing::PrintToString(size));
        auto tree = MakeTree(w, h, d);
        Grid ref(w, h, d);
        for (int round = 0; round < 6 && !HasFailure(); ++round) {
            // Half the voxels in a small cluster, so that rows, planes and blocks fill.
            const std::int32_t c[] = {pick(w), pick(h), pick(d)};
            for (int n = 0; n < 400; ++n) {
                std::int32_t p[3];
                for (int axis = 0; axis < 3; ++axis)
                    p[axis] = n % 2 ? pick(size[axis]) : std::min(c[axis] + pick(4), size[axis] - 1);
                ASSERT_TRUE(tree->SetBit(p[0], p[1], p[2]));
                ref.Set(p[0], p[1], p[2]);
            }
            for (int n = 0; n < 40; ++n) {
                const std::uint32_t i = pick(tree->GetBlockCount()), y = pick(32), z = pick(32);
                const std::uint32_t word = std::array{0u, ~0u, std::uint32_t(random()), 0x0F0F00FFu}[pick(4)];
                ASSERT_TRUE(tree->SetRowBits(i, y, z, word));
                std::uint32_t x0, y0, z0;
                tree->GetBlockOrigin(i, x0, y0, z0);
                for (std::uint32_t x = 0; x < 32; ++x)
                    ref.Set(x0 + x, y0 + y, z0 + z, word >> x & 1);
            }
            if (const std::int32_t z = pick(d); round % 2) {
                ASSERT_TRUE(tree->ClearSlice(z));
                for (std::uint32_t n = 0; n < ref.gw * ref.gh; ++n)
                    ref.Set(n % ref.gw, n / ref.gw, z, false);
            }
            if (round % 3 == 2) {
                tree->CompleteSummaryInX();
                tree->CompleteSummaryInY();
            }
            tree->ComputeBlockEmptiness();
            ExpectTreeIs(*tree, ref, true);
        }
        // A trilinear sample sees the object exactly when one of its eight voxels is set.
        const Grid inside = ref.Volume();
        for (int n = 0; n < 2000; ++n) {
            const float p[] = {pick(w * 8 + 16) / 8.0f - 1, pick(h * 8 + 16) / 8.0f - 1, pick(d * 8 + 16) / 8.0f - 1};
            const std::int64_t i = std::lround(std::floor(p[0])), j = std::lround(std::floor(p[1])),
                               k = std::lround(std::floor(p[2]));
            bool any = false;
            for (int c = 0; c < 8; ++c)
                any |= ref.InVolume(i, j, k) && inside.Get(i + c % 2, j + c / 2 % 2, k + c / 4);
            ASSERT_EQ(tree->IsCellSet(p[0], p[1], p[2]), any) << p[0] << " " << p[1] << " " << p[2];
        }
    }
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
        ASSERT_EQ(tree->GetMemorySize(), kEmptyTree2 + (v == order.back() ? 0 : kBlock));
    }
    EXPECT_EQ(tree->GetBlock(0), kFull);
    EXPECT_EQ(manager.Outstanding(), 2u);  // the table and the flags
    EXPECT_EQ(tree->BlockEmptiness()[0], 0);
    FillBlock(*tree, 1);  // at the volume's edge the ones beyond the width count too
    tree->ComputeEmptinessOfBlock(1);
    EXPECT_EQ(tree->GetBlock(1), kFull);
    // A full entry is split for anything but ones and keeps its other voxels.
    ASSERT_TRUE(tree->SetRowBits(1, 3, 4, 0x1u));
    EXPECT_EQ(std::vector<bool>({tree->IsSet(32, 3, 4), tree->IsSet(33, 3, 4), tree->IsSet(33, 4, 4)}),
              std::vector<bool>({true, false, true}));
    ASSERT_TRUE(tree->ClearSlice(4));
    EXPECT_FALSE(tree->IsSet(5, 6, 4) || !tree->IsSet(5, 6, 5));
    EXPECT_EQ(tree->GetMemorySize(), kEmptyTree2 + 2 * kBlock);
    tree->Clear();
    EXPECT_EQ(manager.Outstanding(), 2u);
    EXPECT_EQ(tree->BlockEmptiness()[0], 1);
}

TEST(QelBlockedBitTreeTest, CopiesAndNewBoxesKeepEntriesByIndex)
{
    CountingMemoryManager manager;
    auto tree = MakeTree(64, 40, 10, &manager);
    auto empty = tree->Copy();
    EXPECT_EQ(manager.Outstanding(), 4u);  // two tables and two flag arrays, no block
    ASSERT_TRUE(tree->SetBit(40, 35, 9));
    auto copy = tree->Copy();
    ASSERT_NE(copy, nullptr);
    EXPECT_NE(copy->GetBlock(3), tree->GetBlock(3));
    EXPECT_EQ(std::memcmp(copy->GetBlock(3), tree->GetBlock(3), kBlock), 0);
    EXPECT_TRUE(std::equal(tree->BlockEmptiness(), tree->BlockEmptiness() + 4, copy->BlockEmptiness()));
    // Two entries fewer: index 1 keeps its block (now at y 32), the surplus goes back.
    ASSERT_TRUE(copy->SetBit(33, 0, 0));
    const std::size_t before = manager.Outstanding();
    ASSERT_TRUE(copy->SetBox({QelIntRange(0, 31), QelIntRange(0, 63), QelIntRange(0, 9)}));
    EXPECT_TRUE(copy->GetBlockCount() == 2u && copy->IsSet(1, 32, 0) && copy->BlockEmptiness()[1] == 0);
    EXPECT_EQ(manager.Outstanding(), before - 1);
    EXPECT_EQ(VerifyText(*copy), "verified");
    ASSERT_TRUE(copy->SetBox({QelIntRange(0, 90), QelIntRange(0, 0), QelIntRange(0, 0)}));
    EXPECT_TRUE(copy->GetBlock(2) == nullptr && copy->BlockEmptiness()[2] == 1);
}

// Renderers and streams walk the table X fastest, then Y, then Z: pin it. The layout
// inside a block is pinned by Grid::Of, which the random walk reads back. Nothing
// outside the volume is set or can be; out of memory, every write that needs a block
// fails and leaves the tree sound.
TEST(QelBlockedBitTreeTest, TableOrderIsFixedNothingOutsideIsSetAndRunningOutOfMemoryFailsCleanly)
{
    CountingMemoryManager manager;
    EXPECT_EQ(MakeTree(65536, 65536, 65536, &manager), nullptr);  // 2^33 entries
    auto tree = MakeTree(70, 40, 35, &manager);
    std::uint32_t o[3];
    tree->GetBlockOrigin(11, o[0], o[1], o[2]);
    EXPECT_EQ(std::vector<std::uint32_t>(o, o + 3), std::vector<std::uint32_t>({64, 32, 32}));
    ASSERT_TRUE(tree->SetBit(40, 1, 1));
    FillBlock(*tree, 2);  // its ones beyond the width are no voxels
    tree->ComputeEmptinessOfBlock(2);
    EXPECT_FALSE(tree->IsSet(70, 0, 0) || tree->IsSet(-1, 0, 0) || tree->SetBit(0, 40, 0) || tree->SetBit(0, 0, -1));
    EXPECT_FALSE(tree->IsCellSet(std::nanf(""), 0.0f, 0.0f));

    manager.SetFailing(true);
    EXPECT_FALSE(tree->SetBit(3, 3, 3) || tree->IsSet(3, 3, 3) || tree->SetRowBits(0, 1, 1, 5u));
    EXPECT_FALSE(tree->SetRowBits(2, 1, 1, 5u));  // a full entry can't be split
    EXPECT_TRUE(tree->SetRowBits(2, 1, 1, ~0u));  // nor needs to be
    EXPECT_FALSE(tree->ClearSlice(2));            // the full entry 2 lies in the first slab
    EXPECT_FALSE(tree->SetBox({QelIntRange(0, 200), QelIntRange(0, 0), QelIntRange(0, 0)}));
    EXPECT_EQ(tree->GetBlockCount(), 12u);
    EXPECT_EQ(manager.Outstanding(), 3u);
    EXPECT_EQ(VerifyText(*tree), "verified");
}

TEST(QelBlockedBitTreeTest, VerifyReportsTheFirstBrokenPartInOrder)
{
    auto tree = MakeTree(64, 32, 40);
    ASSERT_TRUE(tree->SetBit(40, 1, 1));
    auto* page = reinterpret_cast<std::uint8_t*>(const_cast<int*>(ForbiddenPage()));
    Peer::Width(*tree) = 65;
    EXPECT_EQ(VerifyText(*tree), "Invalid Block Size for Bittree");
    Peer::Width(*tree) = 64;
    Peer::BlockCount(*tree) = 5;
    EXPECT_EQ(VerifyText(*tree), "Invalid Volume size for Bittree");
    Peer::BlockCount(*tree) = 4;
    // The owners give up their storage while a bad pointer stands in for it.
    auto* table = Peer::Table(*tree).release();
    EXPECT_EQ(VerifyText(*tree), "Invalid Block Pointer for Bittree");
    Peer::Table(*tree).reset(table);
    auto* block = tree->Blocks()[1].exchange(reinterpret_cast<QelBlockedBitTree::Block*>(page));
    EXPECT_EQ(VerifyText(*tree), "Invalid Block Data pointer for Bittree");
    tree->Blocks()[1].store(block);
    std::uint8_t* flags = Peer::Flags(*tree).release();
    Peer::Flags(*tree).reset(page);
    EXPECT_EQ(VerifyText(*tree), "Invalid Block Emptiness pointer for Bittree");
    EXPECT_EQ(QelLastExceptionCode(), 0xC0000005u);
    (void)Peer::Flags(*tree).release();
    Peer::Flags(*tree).reset(flags);
    EXPECT_EQ(VerifyText(*tree), "verified");
    EXPECT_EQ(VerifyText(*MakeTree(0, 5, 5)), "verified");  // no table at all
}

// ---- Stream form ----

using File = std::unique_ptr<std::FILE, int (*)(std::FILE*)>;

Bytes Saved(const QelBlockedBitTree& tree)
{
    File file(std::tmpfile(), &std::fclose);
    EXPECT_TRUE(tree.Save(file.get()));
    Bytes bytes(static_cast<std::size_t>(std::ftell(file.get())));
    std::rewind(file.get());
    EXPECT_EQ(std::fread(bytes.data(), 1, bytes.size(), file.get()), bytes.size());
    return bytes;
}

std::unique_ptr<QelBlockedBitTree> Loaded(const Bytes& bytes, QelMemoryManager* manager = nullptr)
{
    File file(std::tmpfile(), &std::fclose);
    EXPECT_EQ(bytes.empty() ? 0 : std::fwrite(bytes.data(), 1, bytes.size(), file.get()), bytes.size());
    std::rewind(file.get());
    return QelBlockedBitTree::Load(file.get(), manager);
}

// 33 x 1 x 1: block 0 holds voxel (2, 0, 0), block 1 is full.
std::unique_ptr<QelBlockedBitTree> SmallTree()
{
    auto tree = MakeTree(33, 1, 1);
    EXPECT_TRUE(tree->SetBit(2, 0, 0));
    FillBlock(*tree, 1);
    tree->ComputeBlockEmptiness();
    return tree;
}

TEST(QelBlockedBitTreeStreamTest, SavesTheFixedFormAndLoadsItBack)
{
    Bytes expected = {33, 0, 0, 0, 1, 0, 0, 0, 1, 0, 0, 0, 2, 0, 0, 0, 1, 0, 0, 0, 1, 0, 0, 0, 2, 0, 0, 0, 1, 2};
    expected.resize(expected.size() + 4096);
    expected[30] = 0x04;  // voxel (2, 0, 0): bit 2 of byte 0
    EXPECT_EQ(Saved(*SmallTree()), expected);

    std::mt19937 random(TestSeed());
    auto tree = RandomTree(70, 45, 33, random);
    auto loaded = Loaded(Saved(*tree));
    ASSERT_NE(loaded, nullptr);
    const std::uint8_t* flags = tree->BlockEmptiness();
    EXPECT_TRUE(std::equal(flags, flags + tree->GetBlockCount(), loaded->BlockEmptiness()));
    ExpectTreeIs(*loaded, Grid::Of(*tree), true);
    EXPECT_EQ(Saved(*loaded), Saved(*tree));
    auto none = Loaded(Saved(*MakeTree(0, 0, 0)));
    ASSERT_NE(none, nullptr);
    EXPECT_EQ(none->GetBlockCount(), 0u);
}

// Every cut of a stream and every lie its header can tell is refused, with nothing
// leaked or allocated for data that isn't there.
TEST(QelBlockedBitTreeStreamTest, BadStreamsAndFilesAreRefused)
{
    const Bytes good = Saved(*SmallTree());
    CountingMemoryManager manager;
    for (std::size_t cut = 0; cut < good.size(); ++cut) {
        ASSERT_EQ(Loaded(Bytes(good.begin(), good.begin() + cut), &manager), nullptr) << cut;
        ASSERT_EQ(manager.Outstanding(), 0u) << cut;
    }
    const auto put = [](Bytes& bytes, std::size_t at, std::uint32_t value) {
        for (int k = 0; k < 4; ++k)
            bytes[at + k] = static_cast<std::uint8_t>(value >> (8 * k));
    };
    // Width needing three blocks, blocks in X, block count, a width no box holds,
    // an unknown kind byte (the 32-bit write makes the second kind 0).
    for (const auto& [at, value] : {std::pair{0, 65u}, {12, 1u}, {24, 3u}, {0, 0x80000000u}, {28, 3u}}) {
        Bytes bad = good;
        put(bad, at, value);
        EXPECT_EQ(Loaded(bad, &manager), nullptr) << at << " " << value;
    }
    Bytes huge(28 + 10, 0);  // a consistent header for 1600^3 blocks and nothing behind it
    for (std::size_t axis = 0; axis < 3; ++axis) {
        put(huge, 4 * axis, 1600 * 32);
        put(huge, 12 + 4 * axis, 1600);
    }
    put(huge, 24, 1600u * 1600u * 1600u);
    const int calls = manager.AllocCalls();
    EXPECT_EQ(Loaded(huge, &manager), nullptr);
    EXPECT_EQ(manager.AllocCalls(), calls);
    manager.SetFailAfter(2);  // the table and the flags, but not the block
    EXPECT_EQ(Loaded(good, &manager), nullptr);
    EXPECT_EQ(manager.Outstanding(), 0u);

    EXPECT_EQ(AssertionText([] { (void)SmallTree()->Save(nullptr); }), "Save():\n  NULL pointer (file)\n");
    EXPECT_EQ(AssertionText([] { (void)QelBlockedBitTree::Load(nullptr); }), "Save():\n  NULL pointer (file)\n");
    File readOnly(std::fopen("/dev/null", "r"), &std::fclose);
    EXPECT_FALSE(SmallTree()->Save(readOnly.get()));
}

// Writers split the work by plane, as the thresholder and the extruder do: no two write
// one plane of a block, but all create, fill, collapse and split the same blocks at once.
TEST(QelBlockedBitTreeThreadsTest, WritersOnDistinctPlanesShareBlocks)
{
    auto bits = MakeTree(70, 40, 64), rows = MakeTree(64, 64, 64);
    Grid bitsRef(70, 40, 64), rowsRef(64, 64, 64);
    for (std::uint32_t full : {0u, 5u}) {  // to be split while other planes are written
        FillBlock(*rows, full);
        rows->ComputeEmptinessOfBlock(full);
    }
    std::atomic<int> failures = 0;
    {
        std::latch start(4);
        std::vector<std::jthread> threads;
        for (std::uint32_t t = 0; t < 4; ++t)
            threads.emplace_back([&, t] {
                start.arrive_and_wait();
                for (std::uint32_t n = 0; n < 70 * 40 * 16; ++n) {
                    const std::uint32_t x = n % 70, y = n / 70 % 40, z = t + 4 * (n / 2800);
                    // Block 0 fills up completely, so that its collapse races with the other planes.
                    if ((x < 32 && y < 32 && z < 32) || (x * 7 + y * 13 + z * 3) % 5 == 0) {
                        failures += !bits->SetBit(x, y, z);
                        bitsRef.Set(x, y, z);
                    }
                }
                for (std::uint32_t n = 0; n < 8 * 32 * 8; ++n) {
                    const std::uint32_t i = n % 8, y = n / 8 % 32, z = t + 4 * (n / 256);
                    const std::uint32_t hash = (i * 2654435761u) ^ (y * 40503u) ^ (z * 9973u);
                    const std::uint32_t word = hash % 7 == 0 ? 0u : hash % 7 == 1 ? ~0u : hash;
                    failures += !rows->SetRowBits(i, y, z, word);
                    for (std::uint32_t x = 0; x < 32; ++x)
                        rowsRef.Set(i % 2 * 32 + x, i / 2 % 2 * 32 + y, i / 4 * 32 + z, word >> x & 1);
                }
            });
    }
    EXPECT_EQ(failures, 0);
    EXPECT_EQ(bits->GetBlock(0), kFull);
    bits->ComputeBlockEmptiness();
    ExpectTreeIs(*bits, bitsRef);
    ExpectMatches(rows.get(), rowsRef, true);
}

}  // namespace
