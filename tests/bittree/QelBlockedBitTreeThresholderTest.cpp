#include "bittree/QelBlockedBitTreeThresholder.h"

#include "bittree/ThresholdTestSupport.h"
#include "support/BaseTestSupport.h"
#include "support/CountingMemoryManager.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cmath>
#include <cstdio>
#include <random>
#include <string>
#include <tuple>

namespace {

using Thresholder = QelBlockedBitTreeThresholder;
using Block = QelBlockedBitTree::Block;

constexpr std::int32_t kUnset = Thresholder::kUnsetLimit;

std::unique_ptr<Thresholder> MakeThresholder(const TestVolume& volume, std::int32_t threshold, int threads,
                                             bool classifyNow = false)
{
    return Thresholder::New(volume.Stack(), volume.Accelerator(), threshold, 1.0f, kUnset, kUnset, classifyNow,
                            threads);
}

// What the caller does with the tree before anyone reads it.
void Complete(QelBlockedBitTree& tree)
{
    tree.CompleteSummaryInX();
    tree.CompleteSummaryInY();
    tree.ComputeBlockEmptiness();
}

void ExpectMatches(QelBlockedBitTree& tree, const DenseMask& expected)
{
    Complete(tree);
    ExpectSameVoxels(tree, expected);
    ExpectEmptinessPromisesHold(tree, expected);
}

// Entry kinds, bits and summaries as they come out of Threshold, before completion.
void ExpectSameEntries(const QelBlockedBitTree& actual, const QelBlockedBitTree& expected)
{
    ASSERT_EQ(actual.GetBlockCount(), expected.GetBlockCount());
    for (std::uint32_t i = 0; i < actual.GetBlockCount(); ++i) {
        const Block* a = actual.GetBlock(i);
        const Block* e = expected.GetBlock(i);
        ASSERT_EQ(QelBlockedBitTree::HasStorage(a), QelBlockedBitTree::HasStorage(e)) << "block " << i;
        if (!QelBlockedBitTree::HasStorage(a)) {
            EXPECT_EQ(a, e) << "block " << i;
            continue;
        }
        EXPECT_EQ(std::memcmp(a, e, QelBlockedBitTree::kBlockBytes), 0) << "block " << i;
    }
}

std::uint32_t OwnedBlocks(const QelBlockedBitTree& tree)
{
    std::uint32_t owned = 0;
    for (std::uint32_t i = 0; i < tree.GetBlockCount(); ++i)
        owned += QelBlockedBitTree::HasStorage(tree.GetBlock(i)) ? 1u : 0u;
    return owned;
}

// ---- Random stacks against the reference ----

struct StackCase {
    bool isSigned;
    bool hasPadding;
    bool uneven;  // slices at uneven z, so that most rows blend two of them
};

std::string CaseName(const ::testing::TestParamInfo<StackCase>& info)
{
    return std::string(info.param.isSigned ? "Signed" : "Unsigned") + (info.param.hasPadding ? "Padded" : "") +
           (info.param.uneven ? "Uneven" : "Even");
}

// Regions of a block's width and height: all below the threshold, all above, mixed near
// it, and anything; padding sprinkled everywhere but in some of the high regions,
// and valued above the threshold so that it would be set if it counted.
class RandomVolume {
public:
    RandomVolume(const StackCase& c, std::uint32_t seed)
        : threshold(c.isSigned ? -100 : 1200), padding(static_cast<std::uint16_t>(threshold + 500))
    {
        std::vector<float> z;
        if (c.uneven) {
            const float gaps[] = {1.0f, 2.5f, 0.75f, 3.0f, 1.25f};
            float at = 0.5f;  // row 0 lies below the first slice
            for (int k = 0; at < 50.0f; ++k, at += gaps[k % 5])
                z.push_back(at);
        } else {
            for (int k = 0; k < 40; ++k)
                z.push_back(static_cast<float>(k));
        }
        const std::int32_t width = c.uneven ? 37 : 70;
        const std::int32_t height = c.uneven ? 66 : 45;
        volume = std::make_unique<TestVolume>(width, height, z, c.isSigned);
        if (c.hasPadding)
            volume->Stack().SetPaddingValue(c.isSigned ? static_cast<std::int16_t>(padding) : padding);
        std::mt19937 random(seed);
        for (std::int32_t k = 0; k < volume->SliceCount(); ++k) {
            // The same across slabs: the rows at a slab's top read the slice above too.
            for (std::int32_t y = 0; y < height; ++y)
                for (std::int32_t x = 0; x < width; ++x) {
                    const std::int32_t bx = x / 32, by = y / 32;
                    const std::int32_t kind = (bx * 3 + by * 5) % 4;
                    std::int32_t value = 0;
                    switch (kind) {
                    case 0: value = threshold - 1 - static_cast<std::int32_t>(random() % 1000); break;
                    case 1: value = threshold + static_cast<std::int32_t>(random() % 1000); break;
                    case 2: value = threshold - 200 + static_cast<std::int32_t>(random() % 400); break;
                    default: value = static_cast<std::int32_t>(random() % 65536); break;
                    }
                    const bool pure = kind == 1 && bx == 0;
                    if (c.hasPadding && !pure && random() % 40 == 0)
                        value = padding;
                    else if (c.hasPadding && pure && value == padding)
                        value = threshold;
                    volume->Set(k, x, y, static_cast<std::uint16_t>(value));
                }
        }
    }

    std::int32_t threshold;
    std::uint16_t padding;
    std::unique_ptr<TestVolume> volume;
};

class QelBlockedBitTreeThresholderRandomTest : public ::testing::TestWithParam<StackCase> {};

TEST_P(QelBlockedBitTreeThresholderRandomTest, MatchesTheReferenceOnWholeAndPartialRanges)
{
    const RandomVolume random(GetParam(), TestSeed());
    const TestVolume& volume = *random.volume;
    const std::int32_t depth = volume.Accelerator().VolumeBox().Depth();
    const DenseMask whole = volume.Reference(random.threshold, 0, depth - 1);
    for (int threads : {1, 2}) {
        SCOPED_TRACE(threads);
        std::unique_ptr<Thresholder> thresholder = MakeThresholder(volume, random.threshold, threads);
        ASSERT_TRUE(thresholder);
        std::unique_ptr<QelBlockedBitTree> tree = thresholder->Threshold(0, depth - 1);
        ASSERT_TRUE(tree);
        EXPECT_EQ(tree->Box(), volume.Accelerator().VolumeBox());
        ExpectMatches(*tree, whole);

        // The tree spans the whole volume whatever the range; slices outside stay clear.
        tree = thresholder->Threshold(3, depth - 8);
        ASSERT_TRUE(tree);
        EXPECT_EQ(tree->Depth(), static_cast<std::uint32_t>(depth));
        ExpectMatches(*tree, volume.Reference(random.threshold, 3, depth - 8));

        // A range reaching past the volume is cut to it.
        tree = thresholder->Threshold(-5, depth + 5);
        ASSERT_TRUE(tree);
        ExpectMatches(*tree, whole);
    }
}

// Blocks whose value range can't reach the threshold are skipped unread once the
// accelerator has the ranges; the tree must not notice, down to the raw bytes.
TEST_P(QelBlockedBitTreeThresholderRandomTest, SkipsUnreachableBlocksWithoutChangingABit)
{
    const RandomVolume random(GetParam(), TestSeed());
    const TestVolume& volume = *random.volume;
    const std::int32_t depth = volume.Accelerator().VolumeBox().Depth();
    std::unique_ptr<Thresholder> thresholder = MakeThresholder(volume, random.threshold, 2);
    ASSERT_TRUE(thresholder);
    const std::uint8_t* padding = nullptr;
    ASSERT_EQ(volume.Accelerator().BlockValues(false, padding), nullptr);
    std::unique_ptr<QelBlockedBitTree> plain = thresholder->Threshold(0, depth - 1);
    std::unique_ptr<QelBlockedBitTree> plainPart = thresholder->Threshold(5, depth - 3);
    ASSERT_TRUE(plain && plainPart);

    const std::uint16_t* values = volume.Accelerator().BlockValues(true, padding);
    ASSERT_NE(values, nullptr);
    // The volume must offer blocks to skip, or this proves nothing.
    const bool isSigned = GetParam().isSigned;
    int unreachable = 0;
    const std::int32_t blocks = volume.Accelerator().BlocksX() * volume.Accelerator().BlocksY() *
                                (depth / 32);  // the slab that sticks out is never skipped
    for (std::int32_t i = 0; i < blocks; ++i) {
        const std::int32_t high = isSigned ? static_cast<std::int16_t>(values[2 * i + 1]) : values[2 * i + 1];
        unreachable += high < random.threshold ? 1 : 0;
    }
    EXPECT_GT(unreachable, 0);

    std::unique_ptr<QelBlockedBitTree> skipping = thresholder->Threshold(0, depth - 1);
    std::unique_ptr<QelBlockedBitTree> skippingPart = thresholder->Threshold(5, depth - 3);
    ASSERT_TRUE(skipping && skippingPart);
    ExpectSameEntries(*skipping, *plain);
    ExpectSameEntries(*skippingPart, *plainPart);
    ExpectMatches(*skipping, volume.Reference(random.threshold, 0, depth - 1));
}

// Decided blocks become full entries or stay empty without a read; the voxels are
// those of the compare, and the candidates are exactly the undecided blocks.
TEST_P(QelBlockedBitTreeThresholderRandomTest, PreClassificationKeepsTheVoxelsAndMarksTheUndecided)
{
    const RandomVolume random(GetParam(), TestSeed());
    const TestVolume& volume = *random.volume;
    const std::int32_t depth = volume.Accelerator().VolumeBox().Depth();
    std::unique_ptr<Thresholder> thresholder = MakeThresholder(volume, random.threshold, 2, true);
    ASSERT_TRUE(thresholder);
    ASSERT_TRUE(thresholder->IsClassified());
    const QelBlockedBitTree* candidates = thresholder->CandidateTree();
    ASSERT_NE(candidates, nullptr);

    const std::uint8_t* padding = nullptr;
    const std::uint16_t* values = volume.Accelerator().BlockValues(false, padding);
    ASSERT_NE(values, nullptr);
    const bool isSigned = GetParam().isSigned;
    const auto order = [isSigned](std::uint16_t v) {
        return isSigned ? std::int32_t{static_cast<std::int16_t>(v)} : std::int32_t{v};
    };
    const std::uint32_t perSlab = candidates->BlocksX() * candidates->BlocksY();
    int full = 0;
    for (std::uint32_t i = 0; i < candidates->GetBlockCount(); ++i) {
        const std::int32_t low = order(values[2 * i]), high = order(values[2 * i + 1]);
        const bool wholeSlab = (i / perSlab + 1) * 32 <= static_cast<std::uint32_t>(depth);
        const bool decidedFull = wholeSlab && low <= high && low >= random.threshold && padding[i] == 0;
        const bool decided = low > high || (wholeSlab && (high < random.threshold || decidedFull));
        full += decidedFull ? 1 : 0;
        EXPECT_EQ(candidates->GetBlock(i), decided ? nullptr : QelBlockedBitTree::FullBlock()) << "block " << i;
    }
    EXPECT_GT(full, 0) << "the volume offers no full block";

    std::unique_ptr<QelBlockedBitTree> tree = thresholder->Threshold(0, depth - 1);
    ASSERT_TRUE(tree);
    ExpectMatches(*tree, volume.Reference(random.threshold, 0, depth - 1));
    // A decided full block reaching out of the range must be read instead.
    tree = thresholder->Threshold(2, depth - 1);
    ASSERT_TRUE(tree);
    ExpectMatches(*tree, volume.Reference(random.threshold, 2, depth - 1));
}

INSTANTIATE_TEST_SUITE_P(Stacks, QelBlockedBitTreeThresholderRandomTest,
                         testing::Values(StackCase{false, false, false}, StackCase{false, false, true},
                                         StackCase{false, true, false}, StackCase{false, true, true},
                                         StackCase{true, false, false}, StackCase{true, false, true},
                                         StackCase{true, true, false}, StackCase{true, true, true}),
                         CaseName);

// Every processor level gives the scalar level's tree, byte for byte.
TEST(QelBlockedBitTreeThresholderTest, EveryProcessorLevelGivesTheSameTree)
{
    const RandomVolume random({false, true, true}, TestSeed() + 1);
    const TestVolume& volume = *random.volume;
    const std::int32_t depth = volume.Accelerator().VolumeBox().Depth();
    std::unique_ptr<Thresholder> thresholder = MakeThresholder(volume, random.threshold, 2);
    ASSERT_TRUE(thresholder);
    std::unique_ptr<QelBlockedBitTree> scalar;
    {
        const QelIsaLimit limit(QelIsa::Scalar);
        scalar = thresholder->Threshold(0, depth - 1);
    }
    ASSERT_TRUE(scalar);
    for (QelIsa isa : QelSupportedIsas()) {
        SCOPED_TRACE(QelIsaName(isa));
        const QelIsaLimit limit(isa);
        std::unique_ptr<QelBlockedBitTree> tree = thresholder->Threshold(0, depth - 1);
        ASSERT_TRUE(tree);
        ExpectSameEntries(*tree, *scalar);
    }
}

// ---- Thresholds at the ends of the range ----

TEST(QelBlockedBitTreeThresholderTest, ThresholdsAboveThePixelRangeGiveAnEmptyTreeWithoutBlocks)
{
    for (const auto& [isSigned, threshold] : {std::tuple{false, 70000}, std::tuple{false, 65536},
                                              std::tuple{true, 32768}}) {
        SCOPED_TRACE(threshold);
        TestVolume volume(40, 35, {0.0f, 1.0f, 2.5f, 3.0f}, isSigned);
        volume.Fill(isSigned ? 0x7FFF : 0xFFFF);
        for (bool classifyNow : {false, true}) {
            std::unique_ptr<Thresholder> thresholder = MakeThresholder(volume, threshold, 2, classifyNow);
            ASSERT_TRUE(thresholder);
            CountingMemoryManager manager;
            thresholder->SetTreeMemoryManager(&manager);
            std::unique_ptr<QelBlockedBitTree> tree = thresholder->Threshold(0, 3);
            ASSERT_TRUE(tree);
            EXPECT_EQ(OwnedBlocks(*tree), 0u);
            EXPECT_EQ(manager.Outstanding(), 2u);  // the table and the flags
            ExpectMatches(*tree, DenseMask(40, 35, 4));
        }
    }
}

TEST(QelBlockedBitTreeThresholderTest, LowestThresholdsSetEveryVoxelAndCompleteBlocksBecomeFull)
{
    // 64 x 40 x 33: two blocks lie wholly inside; the others stick out.
    std::vector<float> z;
    for (int k = 0; k < 33; ++k)
        z.push_back(static_cast<float>(k));
    for (const auto& [isSigned, threshold] : {std::tuple{false, 0}, std::tuple{false, -7}, std::tuple{true, -32768},
                                              std::tuple{true, -100000}}) {
        SCOPED_TRACE(threshold);
        TestVolume volume(64, 40, z, isSigned);
        std::mt19937 random(TestSeed());
        for (std::int32_t k = 0; k < 33; ++k)
            for (std::int32_t y = 0; y < 40; ++y)
                for (std::int32_t x = 0; x < 64; ++x)
                    volume.Set(k, x, y, static_cast<std::uint16_t>(random()));
        std::unique_ptr<Thresholder> thresholder = MakeThresholder(volume, threshold, 2);
        ASSERT_TRUE(thresholder);
        std::unique_ptr<QelBlockedBitTree> tree = thresholder->Threshold(0, 32);
        ASSERT_TRUE(tree);
        DenseMask all(64, 40, 33);
        for (std::int32_t k = 0; k < 33; ++k)
            for (std::int32_t y = 0; y < 40; ++y)
                for (std::int32_t x = 0; x < 64; ++x)
                    all.Set(x, y, k);
        ExpectMatches(*tree, all);
        EXPECT_EQ(tree->GetBlock(tree->GetBlockIndex(0, 0, 0)), QelBlockedBitTree::FullBlock());
        EXPECT_EQ(tree->GetBlock(tree->GetBlockIndex(32, 0, 0)), QelBlockedBitTree::FullBlock());
        EXPECT_TRUE(QelBlockedBitTree::HasStorage(tree->GetBlock(tree->GetBlockIndex(0, 32, 0))));
    }
}

// Padding is clear even where the threshold lies below it, on a slice of its own and
// in a blend, where either source being padding is enough.
TEST(QelBlockedBitTreeThresholderTest, PaddingStaysClearEvenBelowTheThreshold)
{
    TestVolume volume(9, 3, {0.0f, 2.0f}, false);
    volume.Stack().SetPaddingValue(5000);
    volume.Fill(4000);
    volume.Set(0, 1, 0, 5000);  // padding in the lower slice
    volume.Set(1, 2, 0, 5000);  // padding in the upper slice
    volume.Set(0, 8, 2, 5000);  // the row's last pixel, past the last whole byte
    std::unique_ptr<Thresholder> thresholder = MakeThresholder(volume, 10, -1);
    ASSERT_TRUE(thresholder);
    std::unique_ptr<QelBlockedBitTree> tree = thresholder->Threshold(0, 2);
    ASSERT_TRUE(tree);
    Complete(*tree);
    for (std::int32_t z = 0; z < 3; ++z) {
        SCOPED_TRACE(z);
        EXPECT_EQ(tree->IsSet(1, 0, z), z == 2);  // row 2 is the upper slice alone
        EXPECT_EQ(tree->IsSet(2, 0, z), z == 0);  // row 0 is the lower slice alone
        EXPECT_EQ(tree->IsSet(8, 2, z), z == 2);
        EXPECT_TRUE(tree->IsSet(0, 0, z));
        EXPECT_TRUE(tree->IsSet(7, 2, z));
    }
}

// ---- Failures ----

TEST(QelBlockedBitTreeThresholderTest, RunningOutOfMemoryGivesNullAndLeavesNothingBehind)
{
    const RandomVolume random({true, false, false}, TestSeed());
    const TestVolume& volume = *random.volume;
    std::unique_ptr<Thresholder> thresholder = MakeThresholder(volume, random.threshold, 2);
    ASSERT_TRUE(thresholder);
    CountingMemoryManager manager;
    thresholder->SetTreeMemoryManager(&manager);
    // No tree at all, then the tree but only some of its blocks.
    for (int allowed : {0, 1, 2, 3, 5}) {
        SCOPED_TRACE(allowed);
        manager.SetFailAfter(allowed);
        EXPECT_EQ(thresholder->Threshold(0, 39), nullptr);
        EXPECT_EQ(manager.Outstanding(), 0u);
    }
    // The thresholder is still usable.
    manager.SetFailAfter(-1);
    std::unique_ptr<QelBlockedBitTree> tree = thresholder->Threshold(0, 39);
    ASSERT_TRUE(tree);
    ExpectMatches(*tree, volume.Reference(random.threshold, 0, 39));
    EXPECT_EQ(manager.ForeignFrees(), 0);
}

TEST(QelBlockedBitTreeThresholderTest, RefusesScalesAndPixelSizesItCannotServe)
{
    TestVolume volume(16, 16, {0.0f, 1.0f}, false);
    EXPECT_EQ(Thresholder::New(volume.Stack(), volume.Accelerator(), 10, 0.5f, kUnset, kUnset, false), nullptr);
    EXPECT_EQ(Thresholder::New(volume.Stack(), volume.Accelerator(), 10, 2.0f, kUnset, kUnset, false), nullptr);
    TestVolume bytes(16, 16, {0.0f, 1.0f}, false, 1);
    EXPECT_EQ(MakeThresholder(bytes, 10, 2), nullptr);
}

TEST(QelBlockedBitTreeThresholderTest, AnEmptyStackGivesAnEmptyTree)
{
    TestVolume volume(16, 16, {}, false);
    std::unique_ptr<Thresholder> thresholder = MakeThresholder(volume, 10, 2, true);
    ASSERT_TRUE(thresholder);
    EXPECT_FALSE(thresholder->IsClassified());
    std::unique_ptr<QelBlockedBitTree> tree = thresholder->Threshold(0, 10);
    ASSERT_TRUE(tree);
    EXPECT_EQ(tree->GetBlockCount(), 0u);
}

// A stack that grows between two calls gets workers with buffers for its new box.
TEST(QelBlockedBitTreeThresholderTest, FollowsAStackThatGrewSinceTheLastCall)
{
    TestVolume volume(20, 10, {0.0f, 1.0f}, false);
    volume.Fill(300);
    std::unique_ptr<Thresholder> thresholder = MakeThresholder(volume, 200, 2);
    ASSERT_TRUE(thresholder);
    ASSERT_TRUE(thresholder->Threshold(0, 1));
    TestSlice later(20, 10);
    const std::uint16_t value = 100;
    for (std::int32_t y = 0; y < 10; ++y)
        for (std::int32_t x = 0; x < 20; ++x)
            std::memcpy(later.PixelAddress(x, y), &value, 2);
    ASSERT_TRUE(volume.Stack().InsertImage(&later, 40.0f, false, false));
    std::unique_ptr<QelBlockedBitTree> tree = thresholder->Threshold(0, 40);
    ASSERT_TRUE(tree);
    EXPECT_EQ(tree->Depth(), 41u);
    ExpectMatches(*tree, volume.Reference(200, 0, 40));
}

// ---- Timing (run with --gtest_also_run_disabled_tests) ----

TEST(QelBlockedBitTreeThresholderTest, DISABLED_TimesA512CubedStack)
{
    constexpr std::int32_t kSize = 512;
    std::vector<float> z;
    for (int k = 0; k < kSize; ++k)
        z.push_back(static_cast<float>(k));
    TestVolume volume(kSize, kSize, z, false);
    // A ball of "tissue" at 1100 in "air" at 0, with noise of +-64: about half the voxels set.
    std::mt19937 random(TestSeed());
    for (std::int32_t k = 0; k < kSize; ++k)
        for (std::int32_t y = 0; y < kSize; ++y)
            for (std::int32_t x = 0; x < kSize; ++x) {
                const double r = std::hypot(x - 256.0, y - 256.0, k - 256.0);
                volume.Set(k, x, y, static_cast<std::uint16_t>((r < 250 ? 1100 : 0) + random() % 128));
            }
    // What reading the samples alone costs, for comparison.
    double readBest = 1e9;
    for (int run = 0; run < 5; ++run) {
        const auto start = std::chrono::steady_clock::now();
        std::uint64_t sum = 0;
        for (std::int32_t k = 0; k < kSize; ++k) {
            const QelRasterImage* slice = volume.Stack().Image(k).Image;
            const auto* words = reinterpret_cast<const std::uint64_t*>(slice->OriginAddress());
            for (std::size_t i = 0; i < std::size_t{kSize} * kSize / 4; ++i)
                sum += words[i];
        }
        const auto end = std::chrono::steady_clock::now();
        readBest = std::min(readBest, std::chrono::duration<double, std::milli>(end - start).count());
        EXPECT_NE(sum, 0u);
    }
    std::printf("reading 256 MiB on one thread: %.1f ms\n", readBest);
    for (int threads : {1, 2}) {
        for (std::int32_t threshold : {1000, 1150, 70000}) {
            std::unique_ptr<Thresholder> thresholder = MakeThresholder(volume, threshold, threads);
            ASSERT_TRUE(thresholder);
            double best = 1e9;
            for (int run = 0; run < 5; ++run) {
                const auto start = std::chrono::steady_clock::now();
                std::unique_ptr<QelBlockedBitTree> tree = thresholder->Threshold(0, kSize - 1);
                const auto end = std::chrono::steady_clock::now();
                ASSERT_TRUE(tree);
                best = std::min(best, std::chrono::duration<double, std::milli>(end - start).count());
            }
            std::printf("threads %d threshold %d: %.1f ms\n", threads, threshold, best);
        }
    }
}

}  // namespace
