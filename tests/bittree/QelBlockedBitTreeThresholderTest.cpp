#include "bittree/QelBlockedBitTreeThresholder.h"

#include "bittree/BitTreeTestSupport.h"
#include "bittree/QelBlockedBitTreeOps.h"
#include "bittree/imp/QelBlockedBitTreeThresholderWkr.h"
#include "bittree/imp/QelThresholdRow.h"
#include "image_stack/QelImageStack.h"
#include "image_stack/QelImageStackSegmentationAccelerator.h"
#include "image_stack/TestSlices.h"
#include "support/BaseTestSupport.h"
#include "support/CountingMemoryManager.h"

#include <gtest/gtest.h>

#include <cstring>

namespace {

using Thresholder = QelBlockedBitTreeThresholder;
constexpr std::int32_t kUnset = Thresholder::kUnsetLimit;

// The rule on plain integers: unsigned samples keep their value and the threshold
// is compared on that scale; the blend is floored like a true division.
bool ExpectedBit(std::uint16_t first, std::uint16_t second, bool twoPlanes, std::int32_t weight, bool isSigned,
                 bool hasPadding, std::uint16_t padding, std::int64_t threshold)
{
    const auto value = [isSigned](std::uint16_t raw) { return isSigned ? std::int16_t(raw) : std::int64_t{raw}; };
    if (hasPadding && (second == padding || (twoPlanes && first == padding)))
        return false;
    if (!twoPlanes)
        return value(second) >= threshold;
    const std::int64_t bias = isSigned ? 0 : 32768;
    const std::int64_t sum = (value(first) - bias) * weight + (value(second) - bias) * (16384 - weight);
    return (sum >= 0 ? sum / 16384 : -((-sum + 16383) / 16384)) + bias >= threshold;
}

// A stack over slices the test owns, one slice per z given, in that (rising) order.
struct TestVolume {
    TestVolume(std::int32_t width, std::int32_t height, const std::vector<float>& zs, bool isSigned, int bytes = 2)
        : isSigned(isSigned)
    {
        for (float z : zs) {
            slices.push_back(std::make_unique<TestSlice>(width, height, bytes));
            EXPECT_TRUE(stack->InsertImage(slices.back().get(), z, false, isSigned)) << z;
        }
    }
    const QelImageStackSegmentationAccelerator& Accelerator() const { return *stack->SegmentationAccelerator(); }
    void Set(std::size_t slice, std::int32_t x, std::int32_t y, std::uint16_t value)
    {
        std::memcpy(slices[slice]->PixelAddress(x, y), &value, sizeof value);
    }
    std::unique_ptr<Thresholder> Make(std::int32_t threshold, int threads, bool classify = false, float scale = 1) const
    {
        return Thresholder::New(*stack, Accelerator(), threshold, scale, kUnset, kUnset, classify, threads);
    }
    // Slices `first` to `last` of the volume box by the rule, from the accelerator's rows.
    Grid Reference(std::int64_t threshold, std::int32_t first, std::int32_t last) const
    {
        const QelIntBBox3 box = Accelerator().VolumeBox();
        const Grid size(box.Width(), box.Height(), box.Depth());
        return size.Map([&](std::int64_t x, std::int64_t y, std::int64_t z) {
            if (!size.InVolume(x, y, z) || z < first || z > last)
                return false;
            const std::uint8_t *above = nullptr, *below = nullptr;
            const std::uint16_t fraction = Accelerator().RowPlanes(std::int32_t(z), above, below);
            const std::ptrdiff_t at = y * stack->BytesPerLine() + 2 * x;
            std::uint16_t a, b;
            std::memcpy(&a, above + at, 2);
            std::memcpy(&b, below + at, 2);
            return ExpectedBit(a, b, fraction != 0, fraction >> 2, isSigned, stack->HasPadding(),
                               static_cast<std::uint16_t>(stack->PaddingValue()), threshold);
        });
    }

    bool isSigned;
    std::vector<std::unique_ptr<TestSlice>> slices;  // declared first: outlives the stack
    std::unique_ptr<QelImageStack> stack = QelImageStack::New();
};

struct StackCase {
    bool isSigned, hasPadding, uneven;  // uneven: slices at uneven z, so that most rows blend two
    std::int32_t Threshold() const { return isSigned ? -100 : 1200; }
};

// Regions of a block's size: all below the threshold, all above, mixed near it, and
// anything, the range's ends often; padding sprinkled everywhere but in some of the
// high regions, and valued above the threshold so that it would be set if it counted.
std::unique_ptr<TestVolume> RandomVolume(const StackCase& c, std::uint32_t seed)
{
    const std::int32_t t = c.Threshold(), width = c.uneven ? 37 : 70, height = c.uneven ? 66 : 45;
    const auto padding = static_cast<std::uint16_t>(t + 500);
    const std::int32_t ends[] = {c.isSigned ? 0x8000 : 0, c.isSigned ? 0x7FFF : 0xFFFF};  // bottom and top of the range
    std::vector<float> z;  // an uneven stack's row 0 lies below its first slice
    for (float at = c.uneven ? 0.5f : 0; at < (c.uneven ? 50 : 40); at += c.uneven ? 0.75f + z.size() % 4 * 0.6f : 1)
        z.push_back(at);
    auto volume = std::make_unique<TestVolume>(width, height, z, c.isSigned);
    if (c.hasPadding)
        volume->stack->SetPaddingValue(c.isSigned ? static_cast<std::int16_t>(padding) : padding);
    std::mt19937 random(seed);
    for (std::size_t n = 0; n < z.size() * width * height; ++n) {
        const std::int32_t x = n % width, y = n / width % height, kind = (x / 32 * 3 + y / 32 * 5) % 4;
        const auto r = static_cast<std::int32_t>(random() % 65536);
        const bool pure = kind == 1 && x < 32;
        std::int32_t value =
            std::array{t - 1 - r % 1000, t + r % 1000, t - 200 + r % 400, r % 8 ? r : ends[r / 8 % 2]}[kind];
        if (c.hasPadding && (pure ? value == padding : random() % 40 == 0))
            value = pure ? t : padding;
        volume->Set(n / width / height, x, y, static_cast<std::uint16_t>(value));
    }
    return volume;
}

class QelBlockedBitTreeThresholderRandomTest : public ::testing::TestWithParam<int> {};

// Whole, partial and clipped ranges on one and two threads; then, once the
// accelerator has block ranges, skipping unreachable blocks and every processor level
// must give the same entries; then pre-classification keeps the voxels and leaves
// exactly the undecided blocks as candidates; last, thresholds past the range.
TEST_P(QelBlockedBitTreeThresholderRandomTest, MatchesTheReference)
{
    const StackCase c{(GetParam() & 1) != 0, (GetParam() & 2) != 0, (GetParam() & 4) != 0};
    const auto volume = RandomVolume(c, TestSeed());
    const std::int32_t depth = volume->Accelerator().VolumeBox().Depth(), t = c.Threshold();
    const Grid whole = volume->Reference(t, 0, depth - 1), part = volume->Reference(t, 3, depth - 8);
    std::unique_ptr<Thresholder> thresholder;
    for (int threads : {1, 2}) {
        thresholder = volume->Make(t, threads);
        ASSERT_TRUE(thresholder);
        ExpectMatches(thresholder->Threshold(0, depth - 1).get(), whole);
        ExpectMatches(thresholder->Threshold(3, depth - 8).get(), part);  // the tree still spans the volume
        ExpectMatches(thresholder->Threshold(-5, depth + 5).get(), whole);
    }
    const std::uint8_t* padding = nullptr;
    ASSERT_EQ(volume->Accelerator().BlockValues(false, padding), nullptr);
    auto plain = thresholder->Threshold(0, depth - 1);
    ASSERT_TRUE(plain);
    const std::uint16_t* values = volume->Accelerator().BlockValues(true, padding);
    ASSERT_NE(values, nullptr);
    const auto order = [&](std::uint16_t v) { return c.isSigned ? std::int16_t(v) : std::int32_t{v}; };
    const std::uint32_t perSlab = plain->BlocksX() * plain->BlocksY();
    int unreachable = 0;  // the volume must offer blocks to skip, or this proves nothing
    for (std::uint32_t i = 0; i < perSlab * (depth / 32); ++i)  // the slab that sticks out is never skipped
        unreachable += order(values[2 * i + 1]) < t ? 1 : 0;
    EXPECT_GT(unreachable, 0);
    for (QelIsa isa : QelSupportedIsas()) {
        const QelIsaLimit limit(isa);
        EXPECT_TRUE(QelBlockedBitTreeOps::Equal(*thresholder->Threshold(0, depth - 1), *plain)) << QelIsaName(isa);
    }

    thresholder = volume->Make(t, 2, true);
    ASSERT_TRUE(thresholder && thresholder->IsClassified() && thresholder->CandidateTree());
    int full = 0;
    for (std::uint32_t i = 0; i < plain->GetBlockCount(); ++i) {
        const std::int32_t low = order(values[2 * i]), high = order(values[2 * i + 1]);
        const bool wholeSlab = (i / perSlab + 1) * 32 <= static_cast<std::uint32_t>(depth);
        const bool decidedFull = wholeSlab && low <= high && low >= t && padding[i] == 0;
        full += decidedFull ? 1 : 0;
        EXPECT_EQ(thresholder->CandidateTree()->GetBlock(i),
                  low > high || (wholeSlab && (high < t || decidedFull)) ? nullptr : QelBlockedBitTree::FullBlock())
            << "block " << i;
    }
    EXPECT_GT(full, 0) << "the volume offers no full block";
    ExpectMatches(thresholder->Threshold(0, depth - 1).get(), whole);
    // A decided full block reaching out of the range must be read instead.
    ExpectMatches(thresholder->Threshold(2, depth - 1).get(), volume->Reference(t, 2, depth - 1));

    // Thresholds beyond the pixel range: the top one sets nothing, the bottom ones
    // everything but padding.
    for (const std::int32_t end : {c.isSigned ? 32768 : 65536, c.isSigned ? -100000 : -7})
        for (bool classify : {false, true})
            ExpectMatches(volume->Make(end, 2, classify)->Threshold(0, depth - 1).get(),
                          volume->Reference(end, 0, depth - 1));
}

INSTANTIATE_TEST_SUITE_P(Stacks, QelBlockedBitTreeThresholderRandomTest, testing::Range(0, 8), [](const auto& info) {
    return std::string(info.param & 1 ? "Signed" : "Unsigned") + (info.param & 2 ? "Padded" : "") +
           (info.param & 4 ? "Uneven" : "Even");
});

TEST(QelBlockedBitTreeThresholderTest, FailuresGiveNullAndLeaveNothingBehind)
{
    const auto volume = RandomVolume({true, false, false}, TestSeed());
    auto thresholder = volume->Make(-100, 2);
    ASSERT_TRUE(thresholder);
    CountingMemoryManager manager;
    thresholder->SetTreeMemoryManager(&manager);
    for (int allowed : {0, 1, 2, 3, 5}) {  // no tree at all, then the tree but only some of its blocks
        manager.SetFailAfter(allowed);
        EXPECT_EQ(thresholder->Threshold(0, 39), nullptr) << allowed;
        EXPECT_EQ(manager.Outstanding(), 0u) << allowed;
    }
    manager.SetFailAfter(-1);  // still usable
    ExpectMatches(thresholder->Threshold(0, 39).get(), volume->Reference(-100, 0, 39));
    EXPECT_EQ(manager.ForeignFrees(), 0);

    // Scales other than 1 and pixels other than 16 bits are refused; an empty stack gives an empty tree.
    TestVolume small(16, 16, {0.0f, 1.0f}, false), bytes(16, 16, {0.0f, 1.0f}, false, 1), empty(16, 16, {}, false);
    EXPECT_FALSE(small.Make(10, 2, false, 0.5f) || small.Make(10, 2, false, 2.0f) || bytes.Make(10, 2));
    thresholder = empty.Make(10, 2, true);
    ASSERT_TRUE(thresholder);
    EXPECT_FALSE(thresholder->IsClassified());
    auto tree = thresholder->Threshold(0, 10);
    ASSERT_TRUE(tree);
    EXPECT_EQ(tree->GetBlockCount(), 0u);
}

// A stack refilled with larger slices between two calls needs workers with larger
// buffers, and a pre-classification made before no longer holds.
TEST(QelBlockedBitTreeThresholderTest, FollowsAStackRefilledSinceTheLastCall)
{
    for (bool classify : {false, true}) {
        TestVolume volume(20, 10, {0.0f, 1.0f}, false);
        auto thresholder = volume.Make(200, 2, classify);
        ASSERT_TRUE(thresholder && thresholder->Threshold(0, 1));
        volume.stack->Reset();
        for (float z : {0.0f, 40.0f}) {
            volume.slices.push_back(std::make_unique<TestSlice>(70, 33));
            ASSERT_TRUE(volume.stack->InsertImage(volume.slices.back().get(), z, false, false));
        }
        for (std::int32_t n = 0; n < 2 * 70 * 33; ++n)
            volume.Set(2 + n / 2310, n % 70, n / 70 % 33, static_cast<std::uint16_t>(n * 7 % 400));
        auto tree = thresholder->Threshold(0, 40);
        ASSERT_TRUE(tree);
        EXPECT_EQ(tree->Box(), volume.Accelerator().VolumeBox());
        ExpectMatches(tree.get(), volume.Reference(200, 0, 40));
    }
}

class QelThresholdRowTest : public ::testing::TestWithParam<QelIsa> {};

// Every level against the rule: random rows of both signednesses, with and without
// padding, one plane and blends, every width up to a few words and some long ones.
// The planes hold exactly the row's samples, so that a read past the end shows
// under the address sanitizer.
TEST_P(QelThresholdRowTest, GivesTheRuleBitForBitOnRandomRows)
{
    std::mt19937 random(TestSeed());
    const auto sample = [&random]() -> std::uint16_t {  // the range's ends show up often
        const std::uint16_t ends[] = {0x8000, 0x7FFF, 0xFFFF, 0};
        return random() % 2 ? std::uint16_t(random()) : ends[random() % 4];
    };
    for (std::int32_t width = 1; width < 1100; width += width < 130 ? 1 : 127)
        for (int variant = 0; variant < 8; ++variant) {
            QelThresholdRow row;
            row.TwoPlanes = variant & 4;
            row.HasPadding = variant & 2;
            row.Bias = variant & 1 ? 0 : 0x8000;
            row.Padding = sample();
            row.Pixels = width;
            row.Weight = std::min<std::int32_t>(std::array{0, 16383, 8192, 0}[random() % 4] +
                                                (random() % 3 ? 0 : random() % 16384), 16383);
            std::vector<std::uint16_t> first(width), second(width);
            for (std::int32_t j = 0; j < width; ++j) {
                first[j] = random() % 5 ? sample() : row.Padding;
                second[j] = random() % 5 ? sample() : row.Padding;
            }
            row.First = reinterpret_cast<const std::uint8_t*>(first.data());
            row.Second = reinterpret_cast<const std::uint8_t*>(second.data());
            const std::int32_t threshold = variant & 1 ? std::int16_t(sample()) : std::int32_t{sample()};
            ASSERT_TRUE(qel::threshold::BiasedThreshold(threshold, variant & 1, row.Threshold));
            std::vector<std::uint32_t> words((width + 31) / 32 + 1, 0xA5A5A5A5u), expected(words.size(), 0);
            expected.back() = words.back();  // nothing written past the row's words
            for (std::int32_t j = 0; j < width; ++j)
                expected[j / 32] |= std::uint32_t{ExpectedBit(first[j], second[j], row.TwoPlanes, row.Weight,
                                                              variant & 1, row.HasPadding, row.Padding, threshold)}
                                    << j % 32;
            QelThresholdRowFor(GetParam())(row, words.data());
            ASSERT_EQ(words, expected) << "width " << width << " variant " << variant << " weight " << row.Weight
                                       << " threshold " << threshold << " padding " << row.Padding;
        }
}

INSTANTIATE_TEST_SUITE_P(AllIsas, QelThresholdRowTest, testing::ValuesIn(QelSupportedIsas()), IsaName);

// A row packed at an offset: every bit lands at offset + its index, nothing spills
// past the row, and bits already there stay. The only check of the path for data
// lying offset in the box, which no stack makes today.
TEST(QelThresholdMerge, PlacesEveryBitAtItsOffsetWithinTheRow)
{
    std::mt19937 random(TestSeed());
    for (std::int32_t rowWords = 1; rowWords <= 4; ++rowWords)
        for (std::int32_t offset = 0; offset < 32 * rowWords; ++offset) {
            std::vector<std::uint32_t> source(1 + random() % 4), row(rowWords);
            for (std::uint32_t& word : source)
                word = static_cast<std::uint32_t>(random());
            for (std::uint32_t& word : row)
                word = static_cast<std::uint32_t>(random()) & 0x01010101u;
            std::vector<std::uint32_t> expected = row;
            for (std::int32_t bit = 0; bit < 32 * std::int32_t(source.size()) && offset + bit < 32 * rowWords; ++bit)
                expected[(offset + bit) / 32] |= (source[bit / 32] >> (bit % 32) & 1u) << ((offset + bit) % 32);
            qel::threshold::MergeShifted(source.data(), std::int32_t(source.size()), offset, row.data(), rowWords);
            EXPECT_EQ(row, expected) << "offset " << offset << " words " << source.size() << " into " << rowWords;
        }
}

}  // namespace
