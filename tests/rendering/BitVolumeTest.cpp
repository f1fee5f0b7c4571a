#include "ax/rendering/BitVolume.h"

#include "ax/rendering/ImageStack.h"
#include "ax/rendering/Initializer.h"
#include "ax/rendering/MemoryRasterImage.h"
#include "ax/rendering/RenderingException.h"
#include "ax/system/Exception.h"
#include "bittree/QelBlockedBitTree.h"

#include "support/MessageOf.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <functional>
#include <memory>
#include <random>
#include <sstream>
#include <vector>

namespace {

using Ax::Primitives::GrayscalePixelFormat;
using Ax::Primitives::Size;
using Ax::Rendering::BitVolume;
using Ax::Rendering::ImageStack;
using Ax::Rendering::MemoryRasterImage;
using Ax::Rendering::RenderingException;
using Ax::System::ArgumentException;
using Ax::System::SerializationException;
using Ax::System::SerializationInfo;

// The plain reference: one bool per voxel, in the persisted order.
struct Dense {
    std::int32_t width, height, depth;
    std::vector<bool> bits;

    Dense(std::int32_t w, std::int32_t h, std::int32_t d)
        : width(w), height(h), depth(d), bits(static_cast<std::size_t>(w) * h * d)
    {
    }
    [[nodiscard]] std::size_t Index(std::int32_t x, std::int32_t y, std::int32_t z) const
    {
        return static_cast<std::size_t>(x + width * (y + static_cast<std::int64_t>(height) * z));
    }
    template <class Visit>
    void ForEach(Visit visit) const
    {
        for (std::int32_t z = 0; z < depth; ++z)
            for (std::int32_t y = 0; y < height; ++y)
                for (std::int32_t x = 0; x < width; ++x)
                    visit(x, y, z);
    }
};

class BitVolumeTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() { Ax::Rendering::Initializer::Initialize(); }

    // A volume with random voxels (about one in `oneIn`) and its reference; a few
    // whole blocks are filled so that full entries take part.
    std::pair<std::shared_ptr<BitVolume>, Dense> Random(std::int32_t w, std::int32_t h, std::int32_t d, int oneIn)
    {
        auto volume = std::make_shared<BitVolume>(w, h, d, false);
        Dense dense(w, h, d);
        dense.ForEach([&](std::int32_t x, std::int32_t y, std::int32_t z) {
            if (m_random() % oneIn == 0 || (x < 32 && y < 32 && z < 32 && (w > 64 || oneIn == 1))) {
                volume->Set(x, y, z);
                dense.bits[dense.Index(x, y, z)] = true;
            }
        });
        return {volume, dense};
    }

    static void ExpectVoxels(const BitVolume& volume, const Dense& dense)
    {
        ASSERT_EQ(volume.Width(), dense.width);
        ASSERT_EQ(volume.Height(), dense.height);
        ASSERT_EQ(volume.Depth(), dense.depth);
        int wrong = 0;
        dense.ForEach([&](std::int32_t x, std::int32_t y, std::int32_t z) {
            if (volume.IsSet(x, y, z) != dense.bits[dense.Index(x, y, z)] && wrong++ < 5)
                ADD_FAILURE() << x << ", " << y << ", " << z;
        });
    }

    std::mt19937 m_random{20261123};
};

TEST_F(BitVolumeTest, ThePersistedFormIsTheDenseBitsInXYZOrderAndReadsBackEqual)
{
    for (const auto& [w, h, d] : {std::array{33, 1, 1}, std::array{70, 45, 33}, std::array{7, 3, 2}}) {
        auto [volume, dense] = Random(w, h, d, 5);
        SerializationInfo info;
        volume->GetObjectData(info);
        ASSERT_EQ(info.GetInt32("Width"), w);
        EXPECT_EQ(info.GetInt32("Height"), h);
        EXPECT_EQ(info.GetInt32("Depth"), d);
        const auto& data = info.GetBitArray("Data");
        ASSERT_EQ(data.Length(), static_cast<std::int64_t>(dense.bits.size()));
        for (std::size_t i = 0; i < dense.bits.size(); ++i)
            ASSERT_EQ(data.Get(static_cast<std::int64_t>(i)), dense.bits[i]) << i;

        std::stringstream file;
        info.Write(file);
        const BitVolume back(SerializationInfo::Read(file));
        ExpectVoxels(back, dense);
        EXPECT_TRUE(back.Equals(volume.get()));
    }
    // Invert also sets the bits beyond the edges, which aren't voxels and aren't
    // persisted: every voxel agrees, the blocks don't.
    auto inverted = BitVolume(33, 2, 2, false).Invert();
    SerializationInfo info;
    inverted->GetObjectData(info);
    const BitVolume back(info);
    EXPECT_TRUE(back.IsSet(32, 1, 1));
    EXPECT_FALSE(back.Equals(inverted.get()));
}

TEST_F(BitVolumeTest, PersistedFormsThatDisagreeWithThemselvesAreRefused)
{
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
    SerializationInfo noDepth;
    noDepth.AddValue("Width", 1);
    noDepth.AddValue("Height", 1);
    EXPECT_EQ(MessageOf<SerializationException>([&] { BitVolume volume(noDepth); }), "Member 'Depth' was not found.");
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
    ImageStack stack;
    check([&] { BitVolume(stack, 0, 5); }, "The depth of the BitVolume cannot be zero or less.", "depth");
    try {
        BitVolume volume(nullptr);
        ADD_FAILURE();
    } catch (const Ax::System::ArgumentNullException& e) {
        EXPECT_EQ(e.ParamName(), "qelBlockedBitTree");
    }

    const BitVolume filled(33, 1, 1, true);
    EXPECT_TRUE(filled.IsSet(32, 0, 0));
    EXPECT_FALSE(filled.IsSet(33, 0, 0));
    EXPECT_FALSE(filled.IsSet(-1, 0, 0));
}

TEST_F(BitVolumeTest, TheAlgebraAgreesWithTheReference)
{
    auto [a, denseA] = Random(70, 45, 33, 3);
    auto [b, denseB] = Random(70, 45, 33, 4);
    const auto expect = [&](const std::shared_ptr<BitVolume>& result, auto rule) {
        Dense dense(70, 45, 33);
        for (std::size_t i = 0; i < dense.bits.size(); ++i)
            dense.bits[i] = rule(denseA.bits[i], denseB.bits[i]);
        ExpectVoxels(*result, dense);
    };
    expect(a->Union(*b), [](bool p, bool q) { return p || q; });
    expect(a->Intersection(*b), [](bool p, bool q) { return p && q; });
    expect(a->Xor(*b), [](bool p, bool q) { return p != q; });
    expect(a->Invert(), [](bool p, bool) { return !p; });
    // The operands stay as they were.
    ExpectVoxels(*a, denseA);

    BitVolume point(9, 9, 9, false);
    point.Set(4, 4, 4);
    auto shared = std::make_shared<BitVolume>(9, 9, 9, false);
    shared->Set(4, 4, 4);
    const auto grown = shared->CubicDilate(2);
    Dense box(9, 9, 9);
    box.ForEach([&](std::int32_t x, std::int32_t y, std::int32_t z) {
        box.bits[box.Index(x, y, z)] = x >= 2 && x <= 6 && y >= 2 && y <= 6 && z >= 2 && z <= 6;
    });
    ExpectVoxels(*grown, box);
    EXPECT_THROW((void)shared->CubicDilate(5), RenderingException);
}

TEST_F(BitVolumeTest, DilatingByNothingAnswersWithTheSameVolume)
{
    auto volume = std::make_shared<BitVolume>(4, 4, 4, false);
    const auto same = volume->CubicDilate(0);
    EXPECT_EQ(same, volume);
    same->Dispose();
    EXPECT_THROW((void)volume->IsSet(0, 0, 0), Ax::System::InvalidOperationException);
    BitVolume unshared(4, 4, 4, false);
    EXPECT_THROW((void)unshared.CubicDilate(-1), Ax::System::InvalidOperationException);
}

TEST_F(BitVolumeTest, DownsizingKeepsAnySetVoxelAndRefusesOtherRatios)
{
    BitVolume volume(64, 64, 64, false);
    volume.Set(41, 7, 63);
    const auto same = volume.WithBoundsDownsized(64, 64, 64);
    same->Set(0, 0, 0);
    EXPECT_FALSE(volume.IsSet(0, 0, 0));  // a copy, not a view
    EXPECT_TRUE(same->IsSet(41, 7, 63));

    const auto half = volume.WithBoundsDownsized(32, 32, 32);
    Dense expected(32, 32, 32);
    expected.bits[expected.Index(20, 3, 31)] = true;
    ExpectVoxels(*half, expected);

    // Height and depth follow the width's ratio: only their lower halves get voxels.
    BitVolume tall(64, 64, 64, true);
    const auto narrow = tall.WithBoundsDownsized(32, 64, 64);
    EXPECT_TRUE(narrow->IsSet(31, 31, 31));
    EXPECT_FALSE(narrow->IsSet(0, 32, 0));
    EXPECT_FALSE(narrow->IsSet(0, 0, 32));

    EXPECT_EQ(MessageOf<ArgumentException>([&] { (void)volume.WithBoundsDownsized(65, 8, 8); }),
              "Cannot downsize from [Width=64, Height=64, Depth=64] to increased bounds "
              "([Width=65, Height=8, Depth=8]).");
    EXPECT_EQ(MessageOf<RenderingException>([&] { (void)volume.WithBoundsDownsized(21, 21, 21); }),
              "An error occurred while attempting to downsize from [Width=64, Height=64, Depth=64] to "
              "[Width=21, Height=21, Depth=21].");
    EXPECT_THROW((void)volume.WithBoundsDownsized(0, 32, 32), RenderingException);
}

TEST_F(BitVolumeTest, EqualityHashAndText)
{
    BitVolume a(40, 3, 2, false), b(40, 3, 2, false), c(40, 3, 3, false);
    a.Set(39, 2, 1);
    EXPECT_FALSE(a == b);
    b.Set(39, 2, 1);
    EXPECT_TRUE(a == b);
    EXPECT_FALSE(a.Equals(&c));
    EXPECT_FALSE(a.Equals(nullptr));
    EXPECT_TRUE(BitVolume::Equals(nullptr, nullptr));
    EXPECT_FALSE(BitVolume::Equals(&a, nullptr));
    EXPECT_EQ(a.GetHashCode(), BitVolume(40, 3, 2, true).GetHashCode());
    EXPECT_EQ(a.GetHashCode(), 40 * 17 + 13 + 3 * 19 + 2 * 23);
    EXPECT_EQ(c.ToString(), "[Width=40, Height=3, Depth=3]");
}

// How the thresholder reads blends, padding and signedness is tested where it lives;
// this checks what the wrapper passes on: the threshold, the depth and the padding.
TEST_F(BitVolumeTest, AThresholdMaskHasTheStacksSizeAndOnlyItsLowerSlices)
{
    ImageStack stack;
    for (int k = 0; k < 4; ++k) {
        auto image = std::make_shared<MemoryRasterImage>();
        image->Resize(GrayscalePixelFormat::Gray16(), Size(37, 5));
        for (std::int32_t y = 0; y < 5; ++y)
            for (std::int32_t x = 0; x < 37; ++x) {
                const auto value = static_cast<std::uint16_t>(x * 100 + y * 10 + k);
                std::memcpy(image->GetPixelAddress(x, y), &value, sizeof value);
            }
        ASSERT_TRUE(stack.InsertImage(image, k));
    }
    stack.SetPaddingValue(1201);
    const BitVolume mask(stack, 3, 1200);
    ASSERT_EQ(mask.Width(), 37);
    ASSERT_EQ(mask.Height(), 5);
    ASSERT_EQ(mask.Depth(), 4);
    Dense expected(37, 5, 4);
    expected.ForEach([&](std::int32_t x, std::int32_t y, std::int32_t z) {
        const int value = x * 100 + y * 10 + z;
        expected.bits[expected.Index(x, y, z)] = z < 3 && value >= 1200 && value != 1201;
    });
    ExpectVoxels(mask, expected);
    // A depth past the top examines every slice.
    EXPECT_TRUE(BitVolume(stack, 99, 1200).IsSet(36, 4, 3));

    ImageStack bytes;
    auto image = std::make_shared<MemoryRasterImage>();
    image->Resize(GrayscalePixelFormat::Gray8(), Size(4, 4));
    ASSERT_TRUE(bytes.InsertImage(image, 0));
    EXPECT_EQ(MessageOf<ArgumentException>([&] { BitVolume volume(bytes, 1, 0); }),
              "A BitVolume is thresholded from 16-bit pixels; this stack has 8-bit pixels.");
}

}  // namespace
