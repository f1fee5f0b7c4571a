#include "bittree/QelBlockedBitTree.h"

#include "bittree/BitTreeTestSupport.h"
#include "support/AssertionText.h"
#include "support/CountingMemoryManager.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <memory>
#include <random>
#include <vector>

namespace {

using Bytes = std::vector<std::uint8_t>;

struct FileCloser {
    void operator()(std::FILE* file) const noexcept { std::fclose(file); }
};
using File = std::unique_ptr<std::FILE, FileCloser>;

// A temporary file holding `bytes`, positioned at its start.
File FileWith(const Bytes& bytes)
{
    File file(std::tmpfile());
    if (file && !bytes.empty()) {
        EXPECT_EQ(std::fwrite(bytes.data(), 1, bytes.size(), file.get()), bytes.size());
    }
    std::rewind(file.get());
    return file;
}

Bytes Saved(const QelBlockedBitTree& tree)
{
    File file(std::tmpfile());
    EXPECT_TRUE(tree.Save(file.get()));
    Bytes bytes(static_cast<std::size_t>(std::ftell(file.get())));
    std::rewind(file.get());
    EXPECT_EQ(std::fread(bytes.data(), 1, bytes.size(), file.get()), bytes.size());
    return bytes;
}

std::unique_ptr<QelBlockedBitTree> Loaded(const Bytes& bytes, QelMemoryManager* manager = nullptr)
{
    File file = FileWith(bytes);
    return QelBlockedBitTree::Load(file.get(), manager);
}

void PutWord(Bytes& bytes, std::size_t at, std::uint32_t value)
{
    for (int k = 0; k < 4; ++k)
        bytes[at + k] = static_cast<std::uint8_t>(value >> (8 * k));
}

// 33 x 1 x 1: block 0 holds one voxel, block 1 is full.
std::unique_ptr<QelBlockedBitTree> SmallTree()
{
    auto tree = MakeTree(33, 1, 1);
    EXPECT_TRUE(tree->SetBit(2, 0, 0));
    for (std::uint32_t n = 0; n < 32 * 32; ++n)
        EXPECT_TRUE(tree->SetRowBits(1, n % 32, n / 32, ~0u));
    tree->ComputeBlockEmptiness();
    return tree;
}

TEST(QelBlockedBitTreeStreamTest, TheFormIsLittleEndianHeaderKindsThenBits)
{
    const Bytes bytes = Saved(*SmallTree());
    const Bytes head = {33, 0, 0, 0, 1, 0, 0, 0, 1, 0, 0, 0, 2, 0, 0, 0, 1, 0, 0, 0, 1, 0, 0, 0, 2, 0, 0, 0, 1, 2};
    ASSERT_EQ(bytes.size(), head.size() + 4096);
    EXPECT_EQ(Bytes(bytes.begin(), bytes.begin() + 30), head);
    EXPECT_EQ(bytes[30], 0x04);  // voxel (2, 0, 0): bit 2 of byte 0
    EXPECT_EQ(std::count(bytes.begin() + 31, bytes.end(), 0), 4095);
}

TEST(QelBlockedBitTreeStreamTest, ARoundTripRebuildsVoxelsSummariesAndFlags)
{
    std::mt19937 random(TestSeed());
    auto tree = MakeTree(70, 45, 33);
    DenseMask dense(70, 45, 33);
    for (int n = 0; n < 3000; ++n) {
        const std::int32_t x = random() % 70, y = random() % 45, z = random() % 33;
        ASSERT_TRUE(tree->SetBit(x, y, z));
        dense.Set(x, y, z);
    }
    for (std::uint32_t n = 0; n < 32 * 32; ++n)  // a full block among them
        ASSERT_TRUE(tree->SetRowBits(0, n % 32, n / 32, ~0u));
    for (std::int32_t z = 0; z < 32; ++z)
        for (std::int32_t y = 0; y < 32; ++y)
            for (std::int32_t x = 0; x < 32; ++x)
                dense.Set(x, y, z);
    tree->ComputeBlockEmptiness();

    CountingMemoryManager manager;
    auto loaded = Loaded(Saved(*tree), &manager);
    ASSERT_NE(loaded, nullptr);
    EXPECT_EQ(loaded->Box(), tree->Box());
    EXPECT_EQ(loaded->GetBlock(0), QelBlockedBitTree::FullBlock());
    EXPECT_EQ(loaded->GetMemorySize(), tree->GetMemorySize());
    EXPECT_TRUE(std::equal(tree->BlockEmptiness(), tree->BlockEmptiness() + tree->GetBlockCount(),
                           loaded->BlockEmptiness()));
    ExpectSameVoxels(*loaded, dense);
    ExpectEmptinessPromisesHold(*loaded, dense);
    EXPECT_EQ(Saved(*loaded), Saved(*tree));
    loaded.reset();
    EXPECT_EQ(manager.Outstanding(), 0u);

    auto none = Loaded(Saved(*MakeTree(0, 0, 0)));
    ASSERT_NE(none, nullptr);
    EXPECT_EQ(none->GetBlockCount(), 0u);
}

// Every cut of a stream is refused, and so is every lie the header can tell;
// nothing crashes, leaks or allocates for data that isn't there.
TEST(QelBlockedBitTreeStreamTest, ShortAndLyingStreamsGiveNull)
{
    const Bytes good = Saved(*SmallTree());
    CountingMemoryManager manager;
    for (std::size_t cut = 0; cut < good.size(); ++cut) {
        ASSERT_EQ(Loaded(Bytes(good.begin(), good.begin() + cut), &manager), nullptr) << cut;
        ASSERT_EQ(manager.Outstanding(), 0u) << cut;
    }

    struct Lie {
        std::size_t at;
        std::uint32_t value;
    };
    const Lie lies[] = {
        {0, 65},           // width needing three blocks
        {12, 1},           // blocks in X
        {24, 3},           // block count
        {0, 0x80000000u},  // a width no box can hold
        {28, 3},           // an unknown kind byte (a 32-bit write: the second kind becomes 0)
    };
    for (const Lie& lie : lies) {
        Bytes bad = good;
        PutWord(bad, lie.at, lie.value);
        EXPECT_EQ(Loaded(bad, &manager), nullptr) << lie.at << " " << lie.value;
    }
    // A consistent header for 1600^3 blocks and nothing behind it.
    Bytes huge(28 + 10, 0);
    for (std::size_t axis = 0; axis < 3; ++axis) {
        PutWord(huge, 4 * axis, 1600 * 32);
        PutWord(huge, 12 + 4 * axis, 1600);
    }
    PutWord(huge, 24, 1600u * 1600u * 1600u);
    const int calls = manager.AllocCalls();
    EXPECT_EQ(Loaded(huge, &manager), nullptr);
    EXPECT_EQ(manager.AllocCalls(), calls);

    manager.SetFailAfter(2);  // the table and the flags, but not the block
    EXPECT_EQ(Loaded(good, &manager), nullptr);
    EXPECT_EQ(manager.Outstanding(), 0u);
}

TEST(QelBlockedBitTreeStreamTest, ANullFileIsABugReportAndAFailedWriteIsFalse)
{
    auto tree = SmallTree();
    EXPECT_EQ(AssertionText([&] { (void)tree->Save(nullptr); }), "Save():\n  NULL pointer (file)\n");
    EXPECT_EQ(AssertionText([] { (void)QelBlockedBitTree::Load(nullptr); }), "Save():\n  NULL pointer (file)\n");
    File readOnly(std::fopen("/dev/null", "r"));
    ASSERT_NE(readOnly, nullptr);
    EXPECT_FALSE(tree->Save(readOnly.get()));
}

}  // namespace
