#include "ax/rendering/BitVolume.h"

#include "ax/rendering/ImageStack.h"
#include "ax/rendering/Initializer.h"
#include "ax/rendering/MemoryRasterImage.h"
#include "ax/rendering/RenderingException.h"
#include "ax/system/Exception.h"
#include "bittree/QelBlockedBitTree.h"

#include "support/MessageOf.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <random>

namespace {

using Ax::Primitives::GrayscalePixelFormat;
using Ax::Primitives::Size;
using Ax::Rendering::BitVolume;
using Ax::Rendering::ImageStack;
using Ax::Rendering::RenderingException;
using Ax::System::ArgumentException;
using Ax::System::SerializationException;
using Ax::System::SerializationInfo;

// The plain reference: one bool per voxel, in the persisted order.
struct Dense {
    std::int32_t width, height, depth;
    std::vector<bool> bits = std::vector<bool>(static_cast<std::size_t>(width) * height * depth);

    // Sets each voxel as `rule` says of its x, y and z.
    Dense& Where(const std::function<bool(std::int32_t x, std::int32_t y, std::int32_t z)>& rule)
    {
        for (std::int32_t i = 0; i < static_cast<std::int32_t>(bits.size()); ++i)
            bits[i] = rule(i % width, i / width % height, i / width / height);
        return *this;
    }
};

void ExpectVoxels(const BitVolume& volume, const Dense& dense)
{
    ASSERT_EQ(volume.ToString(), BitVolume(dense.width, dense.height, dense.depth, false).ToString());
    EXPECT_EQ(Dense(dense).Where([&](auto x, auto y, auto z) { return volume.IsSet(x, y, z); }).bits, dense.bits);
}

class BitVolumeTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() { Ax::Rendering::Initializer::Initialize(); }

    // Random voxels, about one in `oneIn`, and their reference; in volumes wider than
    // 64 a whole block is filled too, so that full entries take part.
    std::pair<std::shared_ptr<BitVolume>, Dense> Random(std::int32_t w, std::int32_t h, std::int32_t d, int oneIn)
    {
        auto volume = std::make_shared<BitVolume>(w, h, d, false);
        Dense dense = Dense{w, h, d}.Where([&](std::int32_t x, std::int32_t y, std::int32_t z) {
            const bool set = m_random() % oneIn == 0 || (x < 32 && y < 32 && z < 32 && w > 64);
            if (set)
                volume->Set(x, y, z);
            return set;
        });
        return {volume, dense};
    }

    std::mt19937 m_random{20261123};
};

TEST_F(BitVolumeTest, ThePersistedFormIsTheDenseBitsInXYZOrderReadsBackEqualAndIsCheckedOnReading)
{
    for (const auto& [w, h, d] : {std::array{33, 1, 1}, std::array{70, 45, 33}, std::array{7, 3, 2}})
        for (bool inverted : {false, true}) {
            auto [volume, dense] = Random(w, h, d, 5);
            if (inverted) {  // which sets the bits beyond the edges: no voxels, not persisted
                volume = volume->Invert();
                dense.bits.flip();
            }
            SerializationInfo info;
            volume->GetObjectData(info);
            EXPECT_EQ((std::array{info.GetInt32("Width"), info.GetInt32("Height"), info.GetInt32("Depth")}),
                      (std::array{w, h, d}));
            const auto& data = info.GetBitArray("Data");
            std::vector<bool> persisted(data.Length());
            for (std::size_t i = 0; i < persisted.size(); ++i)
                persisted[i] = data.Get(static_cast<std::int64_t>(i));
            EXPECT_EQ(persisted, dense.bits);
            const BitVolume back(info);
            ExpectVoxels(back, dense);
            EXPECT_EQ(back.Equals(volume.get()), !inverted);  // every voxel agrees, the blocks don't
        }

    // Forms that disagree with themselves are refused.
    const auto refusal = [](std::int32_t w, std::int32_t h, std::int32_t d, std::int64_t bits) {
        SerializationInfo info;
        info.AddValue("Width", w);
        info.AddValue("Height", h);
        info.AddValue("Depth", d);
        info.AddValue("Data", Ax::System::BitArray(bits));
        return MessageOf<SerializationException>([&] { BitVolume volume(info); });
    };
    EXPECT_EQ(refusal(4, 4, 4, 63),
              "The persisted BitVolume's Data holds 63 bits, but [Width=4, Height=4, Depth=4] has 64 voxels.");
    EXPECT_EQ(refusal(65536, 65536, 2, 0),
              "The persisted BitVolume's Data holds 0 bits, but [Width=65536, Height=65536, Depth=2] has "
              "8589934592 voxels.");
    EXPECT_EQ(refusal(0, 4, 4, 0),
              "The persisted BitVolume has the size [Width=0, Height=4, Depth=4]; every side must be above 0.");
}

TEST_F(BitVolumeTest, ConstructorsCheckTheirSizesInOrder)
{
    const auto check = [](std::function<void()> make, const char* message, const char* param) {
        try {
            make();
            ADD_FAILURE() << "nothing thrown for " << param;
        } catch (const ArgumentException& e) {
            EXPECT_STREQ(e.what(), message);
            EXPECT_EQ(e.ParamName(), param);
        }
    };
    check([] { BitVolume(0, 0, 0, false); }, "The width of the BitVolume cannot be zero or less.", "width");
    check([] { BitVolume(1, -1, 0, false); }, "The height of the BitVolume cannot be zero or less.", "height");
    check([] { BitVolume(1, 1, 0, true); }, "The depth of the BitVolume cannot be zero or less.", "depth");
    check([] { BitVolume(ImageStack(), 0, 5); }, "The depth of the BitVolume cannot be zero or less.", "depth");
    check([] { BitVolume volume(nullptr); }, "Value cannot be null.", "qelBlockedBitTree");
}

TEST_F(BitVolumeTest, TheAlgebraAgreesWithTheReference)
{
    auto [a, denseA] = Random(70, 45, 33, 3);
    auto [b, denseB] = Random(70, 45, 33, 4);
    // The operations themselves are held to a reference where they live; this checks each one's
    // wiring (Invert's with the persisted form).
    const std::pair<std::shared_ptr<BitVolume>, std::function<bool(bool, bool)>> results[] = {
        {a->Union(*b), std::logical_or<>()}, {a->Intersection(*b), std::logical_and<>()},
        {a->Xor(*b), std::not_equal_to<>()}};
    for (const auto& [result, rule] : results) {
        Dense expected{70, 45, 33};
        for (std::size_t i = 0; i < expected.bits.size(); ++i)
            expected.bits[i] = rule(denseA.bits[i], denseB.bits[i]);
        ExpectVoxels(*result, expected);
    }
    ExpectVoxels(*a, denseA);  // the operands stay as they were
    EXPECT_TRUE(!(*a == *b) && *a == *a->Union(*a));

    auto point = std::make_shared<BitVolume>(9, 9, 9, false);
    point->Set(4, 4, 4);
    const Dense box = Dense{9, 9, 9}.Where([](std::int32_t x, std::int32_t y, std::int32_t z) {
        return std::max({std::abs(x - 4), std::abs(y - 4), std::abs(z - 4)}) <= 2;
    });
    ExpectVoxels(*point->CubicDilate(2), box);
    EXPECT_THROW((void)point->CubicDilate(5), RenderingException);
    EXPECT_THROW((void)BitVolume(4, 4, 4, false).CubicDilate(-1), Ax::System::InvalidOperationException);
    // Dilating by nothing answers with the volume itself.
    const auto same = point->CubicDilate(0);
    EXPECT_EQ(same, point);
    same->Dispose();
    EXPECT_THROW((void)point->IsSet(0, 0, 0), Ax::System::InvalidOperationException);
}

TEST_F(BitVolumeTest, DownsizingKeepsAnySetVoxelAndRefusesOtherRatios)
{
    BitVolume volume(64, 64, 64, false);
    volume.Set(41, 7, 63);
    const auto same = volume.WithBoundsDownsized(64, 64, 64);
    same->Set(0, 0, 0);
    EXPECT_TRUE(!volume.IsSet(0, 0, 0) && same->IsSet(41, 7, 63));  // a copy, not a view

    ExpectVoxels(*volume.WithBoundsDownsized(32, 32, 32),
                 Dense{32, 32, 32}.Where([](auto x, auto y, auto z) { return x == 20 && y == 3 && z == 31; }));

    // Height and depth follow the width's ratio: only their lower halves get voxels.
    const auto narrow = BitVolume(64, 64, 64, true).WithBoundsDownsized(32, 64, 64);
    EXPECT_TRUE(narrow->IsSet(31, 31, 31) && !narrow->IsSet(0, 32, 0) && !narrow->IsSet(0, 0, 32));

    EXPECT_EQ(MessageOf<ArgumentException>([&] { (void)volume.WithBoundsDownsized(65, 8, 8); }),
              "Cannot downsize from [Width=64, Height=64, Depth=64] to increased bounds "
              "([Width=65, Height=8, Depth=8]).");
    EXPECT_EQ(MessageOf<RenderingException>([&] { (void)volume.WithBoundsDownsized(21, 21, 21); }),
              "An error occurred while attempting to downsize from [Width=64, Height=64, Depth=64] to "
              "[Width=21, Height=21, Depth=21].");
    EXPECT_THROW((void)volume.WithBoundsDownsized(0, 32, 32), RenderingException);
}

// How the thresholder reads blends, padding and signedness is tested where it lives;
// this checks what the wrapper passes on: the threshold, the depth and the padding.
TEST_F(BitVolumeTest, AThresholdMaskHasTheStacksSizeAndOnlyItsLowerSlices)
{
    const auto stackOf = [](const GrayscalePixelFormat& format, std::int32_t depth) {
        auto stack = std::make_unique<ImageStack>();
        for (int k = 0; k < depth; ++k) {
            auto image = std::make_shared<Ax::Rendering::MemoryRasterImage>();
            image->Resize(format, Size(37, 5));
            for (std::int32_t i = 0; i < 37 * 5 && format.BytesPerPixel() == 2; ++i) {
                const auto value = static_cast<std::uint16_t>(i % 37 * 100 + i / 37 * 10 + k);
                std::memcpy(image->GetPixelAddress(i % 37, i / 37), &value, sizeof value);
            }
            EXPECT_TRUE(stack->InsertImage(image, k));
        }
        return stack;
    };
    const auto stack = stackOf(GrayscalePixelFormat::Gray16(), 4);
    stack->SetPaddingValue(1201);
    ExpectVoxels(BitVolume(*stack, 3, 1200), Dense{37, 5, 4}.Where([](std::int32_t x, std::int32_t y, std::int32_t z) {
        return z < 3 && x * 100 + y * 10 + z >= 1200 && x * 100 + y * 10 + z != 1201;
    }));
    EXPECT_TRUE(BitVolume(*stack, 99, 1200).IsSet(36, 4, 3));  // a depth past the top takes every slice
    EXPECT_EQ(MessageOf<ArgumentException>([&] { BitVolume volume(*stackOf(GrayscalePixelFormat::Gray8(), 1), 1, 0); }),
              "A BitVolume is thresholded from 16-bit pixels; this stack has 8-bit pixels.");
}

}  // namespace
