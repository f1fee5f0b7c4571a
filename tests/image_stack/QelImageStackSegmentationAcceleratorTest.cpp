#include "image_stack/QelImageStackSegmentationAccelerator.h"

#include "image_stack/QelImageStack.h"
#include "image_stack/TestSlices.h"
#include "threaded/QelSystemInfo.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstring>
#include <memory>
#include <random>
#include <thread>
#include <tuple>
#include <vector>

namespace {

using Accelerator = QelImageStackSegmentationAccelerator;
// Above, below, fraction.
using Row = std::tuple<const std::uint8_t*, const std::uint8_t*, int>;

Row RowOf(const Accelerator& accelerator, std::int32_t row)
{
    const std::uint8_t *above = nullptr, *below = nullptr;
    const int fraction = accelerator.RowPlanes(row, above, below);
    return {above, below, fraction};
}

void Put(const TestSlice& slice, std::int32_t x, std::int32_t y, std::uint16_t value)
{
    std::memcpy(slice.PixelAddress(x, y), &value, sizeof value);
}

class QelImageStackSegmentationAcceleratorTest : public ::testing::Test {
protected:
    TestSlice* Slice(std::int32_t width = 4, std::int32_t height = 3, std::int32_t bytesPerLine = 0)
    {
        m_slices.push_back(std::make_unique<TestSlice>(width, height, 2, bytesPerLine));
        return m_slices.back().get();
    }
    // Origins of new slices at `zValues`, in the order given.
    std::vector<const std::uint8_t*> Fill(std::initializer_list<float> zValues)
    {
        std::vector<const std::uint8_t*> origins;
        for (float z : zValues) {
            TestSlice* slice = Slice();
            EXPECT_TRUE(m_stack->InsertImage(slice, z, false, false)) << z;
            origins.push_back(slice->OriginAddress());
        }
        return origins;
    }
    const Accelerator& Segmentation() const { return *m_stack->SegmentationAccelerator(); }

    std::vector<std::unique_ptr<TestSlice>> m_slices;  // declared first: outlives the stack
    std::unique_ptr<QelImageStack> m_stack = QelImageStack::New();
};

TEST_F(QelImageStackSegmentationAcceleratorTest, RowsBlendTheSlicesAroundThemAndRepeatTheEndSlicesBeyond)
{
    struct Case {
        std::initializer_list<float> z;
        std::vector<std::tuple<int, int, int>> rows;  // above slice, below slice, fraction
        std::vector<int> nearest;
    };
    const Case cases[] = {
        // The last row lies on the upper slice and finds it as the lower plane.
        {{0.0f, 2.0f}, {{1, 0, 0}, {1, 0, 32768}, {1, 1, 0}}, {0, 1, 1}},
        // Row 0 lies below the first slice.
        {{0.5f, 2.5f}, {{0, 0, 0}, {1, 0, 16384}, {1, 0, 49152}}, {0, 0, 1}},
        // Truncation toward zero puts the box's last row, z 0, above the last slice.
        {{-2.5f, -0.5f}, {{1, 0, 16384}, {1, 0, 49152}, {1, 1, 0}}, {0, 1, 1}},
        {{0.0f, 1.0f, 3.0f}, {{1, 0, 0}, {2, 1, 0}, {2, 1, 32768}, {2, 2, 0}}, {0, 1, 2, 2}},
        {{3.7f}, {{0, 0, 0}}, {0}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(::testing::PrintToString(std::vector<float>(c.z)));
        m_stack->Reset();
        const std::vector<const std::uint8_t*> slices = Fill(c.z);
        const Accelerator& accelerator = Segmentation();
        const auto last = static_cast<std::int32_t>(c.rows.size()) - 1;
        for (std::int32_t row = 0; row <= last; ++row) {
            const auto [above, below, fraction] = c.rows[row];
            EXPECT_EQ(RowOf(accelerator, row), Row(slices[above], slices[below], fraction)) << row;
            EXPECT_EQ(accelerator.NearestPlane(row), slices[c.nearest[row]]) << row;
        }
        EXPECT_EQ(accelerator.RowCount(), last + 1);
        // Rows are clamped to the box.
        EXPECT_EQ(RowOf(accelerator, -5), RowOf(accelerator, 0));
        EXPECT_EQ(RowOf(accelerator, last + 9), RowOf(accelerator, last));
        EXPECT_EQ(accelerator.NearestPlane(last + 9), slices[c.nearest.back()]);
    }
}

TEST_F(QelImageStackSegmentationAcceleratorTest, EveryChangeEmptiesTheTablesAndTheNextReadSeesTheNewStack)
{
    const std::vector<const std::uint8_t*> s = Fill({0.0f, 2.0f});
    const Accelerator& own = Segmentation();
    // A second accelerator hears of no change: only the serial number tells it.
    const std::unique_ptr<Accelerator> second = Accelerator::New(*m_stack);
    const std::uint8_t* flags = nullptr;
    EXPECT_EQ(RowOf(own, 1), Row(s[1], s[0], 32768));
    EXPECT_EQ(RowOf(*second, 1), Row(s[1], s[0], 32768));
    EXPECT_NE(own.BlockValues(true, flags), nullptr);
    EXPECT_TRUE(m_stack->Verify(nullptr, 0));

    const auto changed = [&] {
        EXPECT_FALSE(own.HasRowTable());
        EXPECT_EQ(own.BlockValues(false, flags), nullptr);
        EXPECT_EQ(flags, nullptr);
    };
    const std::uint8_t* s1 = Fill({1.0f})[0];
    changed();
    EXPECT_EQ(RowOf(own, 1), Row(s[1], s1, 0));

    TestSlice* replacement = Slice();
    ASSERT_TRUE(m_stack->ReplaceImage(replacement, 2.0f, false, false));
    const std::uint8_t* r = replacement->OriginAddress();
    changed();
    EXPECT_EQ(RowOf(own, 2), Row(r, r, 0));
    EXPECT_EQ(RowOf(*second, 2), Row(r, r, 0));
    EXPECT_EQ(second->NearestPlane(2), r);

    ASSERT_TRUE(m_stack->RemoveImageAt(1));
    changed();
    EXPECT_EQ(RowOf(own, 1), Row(r, s[0], 32768));

    const std::uint8_t* s4 = Fill({4.0f})[0];
    EXPECT_EQ(own.VolumeBox().Z, QelIntRange(0, 4));
    EXPECT_EQ(RowOf(own, 3), Row(s4, r, 32768));
    ASSERT_TRUE(m_stack->RemoveImageAt(0));
    EXPECT_EQ(RowOf(own, 0), Row(s4, r, 0));
    EXPECT_EQ(own.RowCount(), 3);
    EXPECT_TRUE(m_stack->Verify(nullptr, 0));

    m_stack->DropAccelerators();
    EXPECT_FALSE(own.HasRowTable());
    m_stack->Reset();
    const std::uint8_t* s10 = Fill({10.0f})[0];
    EXPECT_EQ(RowOf(own, 0), Row(s10, s10, 0));
    EXPECT_EQ(own.RowCount(), 1);
}

TEST_F(QelImageStackSegmentationAcceleratorTest, WithoutRowsOrWithoutTwoBytePixelsThereIsNothingToRead)
{
    const Accelerator& accelerator = Segmentation();
    const std::uint8_t* flags = nullptr;
    EXPECT_EQ(RowOf(accelerator, 0), Row(nullptr, nullptr, 0));
    EXPECT_EQ(accelerator.NearestPlane(0), nullptr);
    EXPECT_EQ(accelerator.BlockValues(true, flags), nullptr);
    EXPECT_FALSE(accelerator.HasRowTable());

    // Rows need no pixel size; block values are 16-bit.
    TestSlice bytes(4, 3, 1);
    ASSERT_TRUE(m_stack->InsertImage(&bytes, 0.0f, false, false));
    EXPECT_EQ(RowOf(accelerator, 0), Row(bytes.OriginAddress(), bytes.OriginAddress(), 0));
    EXPECT_EQ(accelerator.BlockValues(true, flags), nullptr);
    m_stack->Reset();  // before `bytes` goes
}

TEST_F(QelImageStackSegmentationAcceleratorTest, PaddingOnlyBlocksKeepTheirStartAndTheLastXBlockEndsAtTheWidth)
{
    for (const bool isSigned : {false, true}) {
        SCOPED_TRACE(isSigned ? "signed" : "unsigned");
        m_stack->Reset();
        m_stack->SetPaddingValue(isSigned ? -5 : 7);
        // Width 33 with no spare bytes in a line: reading a whole 32 voxels in the
        // second x block would take in the next line's first voxels.
        TestSlice* slice = Slice(33, 2, 66);
        for (std::int32_t i = 0; i < 64; ++i)
            Put(*slice, i % 32, i / 32, static_cast<std::uint16_t>(m_stack->PaddingValue()));
        Put(*slice, 32, 0, static_cast<std::uint16_t>(isSigned ? -300 : 500));
        Put(*slice, 32, 1, 600);
        ASSERT_TRUE(m_stack->InsertImage(slice, 0.0f, false, isSigned));

        const std::uint8_t* flags = nullptr;
        const std::uint16_t* values = Segmentation().BlockValues(true, flags);
        ASSERT_NE(values, nullptr);
        EXPECT_EQ(Segmentation().BlocksX(), 2);
        const std::vector<std::uint16_t> expected =
            isSigned ? std::vector<std::uint16_t>{0x7FFF, 0x8000, static_cast<std::uint16_t>(-300), 600}
                     : std::vector<std::uint16_t>{0xFFFF, 0, 500, 600};
        EXPECT_EQ(std::vector<std::uint16_t>(values, values + 4), expected);
        EXPECT_EQ(std::vector<int>(flags, flags + 2), (std::vector<int>{1, 0}));
        // Built once: a second forced call hands back the same tables.
        EXPECT_EQ(Segmentation().BlockValues(true, flags), values);
    }
}

// A plain scan of every voxel of both planes of every row, with the planes found by
// NeighborsAtZ, against the row table and the threaded block scan. Slices lie on a
// quarter-voxel grid, so that float z decides the neighbours exactly.
TEST_F(QelImageStackSegmentationAcceleratorTest, BlockValuesMatchAPlainScanOfRandomStacks)
{
    const QelRenderThreadCountPin threads(3);
    std::mt19937 random(77);
    const auto pick = [&random](int low, int high) { return std::uniform_int_distribution(low, high)(random); };
    for (int trial = 0; trial < 40; ++trial) {
        m_stack = QelImageStack::New();  // a reset stack keeps its padding
        const bool isSigned = pick(0, 1) == 1;
        const bool hasPadding = pick(0, 2) != 0;
        const int width = pick(1, 70), height = pick(1, 70);
        const int bytesPerLine = width * 2 + 2 * pick(0, 2);
        const int paddedFrom = pick(0, 1) == 1 ? pick(0, width) : width;  // columns of padding alone
        const int padding = isSigned ? pick(-300, 300) : pick(0, 600);
        if (hasPadding)
            m_stack->SetPaddingValue(padding);
        SCOPED_TRACE(::testing::Message() << "trial " << trial << ": " << width << "x" << height
                                          << (isSigned ? " signed" : " unsigned") << (hasPadding ? " padded" : ""));
        float z = static_cast<float>(pick(-20, 20)) / 4.0f;
        for (int i = pick(1, 5); i > 0; --i, z += static_cast<float>(pick(1, 60)) / 4.0f) {
            TestSlice* slice = Slice(width, height, bytesPerLine);
            // Bytes past the width hold a value no voxel has, to show when they are read.
            std::memset(slice->OriginAddress(), 0x7E, static_cast<std::size_t>(bytesPerLine) * height);
            for (int y = 0; y < height; ++y) {
                for (int x = 0; x < width; ++x) {
                    const int value = x >= paddedFrom || pick(0, 9) == 0 ? padding
                                      : isSigned                         ? pick(-300, 300)
                                                                         : pick(0, 600);
                    Put(*slice, x, y, static_cast<std::uint16_t>(value));
                }
            }
            ASSERT_TRUE(m_stack->InsertImage(slice, z, false, isSigned));
        }

        const QelIntBBox3 box = m_stack->BoundingBox();
        const int blocksX = (width + 31) / 32, blocksY = (height + 31) / 32, blocksZ = (box.Depth() + 31) / 32;
        std::vector<int> low(blocksX * blocksY * blocksZ, isSigned ? 32767 : 65535);
        std::vector<int> high(low.size(), isSigned ? -32768 : 0);
        std::vector<int> padded(low.size(), 0);
        const QelImageRecord* records = m_stack->Records();
        for (int row = 0; row < box.Depth(); ++row) {
            std::int32_t lower = -1, upper = -1;
            const QelNeighborCodes code = m_stack->NeighborsAtZ(static_cast<float>(box.Z.Min + row), lower, upper);
            if (code != BothNeighbors)
                lower = upper = code == LowerNeighborOnly ? lower : upper;
            const Row planes = RowOf(Segmentation(), row);
            EXPECT_EQ(std::get<0>(planes), records[upper].Image->OriginAddress()) << "row " << row;
            EXPECT_EQ(std::get<1>(planes), records[lower].Image->OriginAddress()) << "row " << row;
            for (const std::int32_t plane : {lower, upper}) {
                const auto& slice = static_cast<const TestSlice&>(*records[plane].Image);
                for (int y = 0; y < height; ++y) {
                    for (int x = 0; x < width; ++x) {
                        std::uint16_t raw;
                        std::memcpy(&raw, slice.PixelAddress(x, y), 2);
                        const int block = ((row / 32) * blocksY + y / 32) * blocksX + x / 32;
                        if (hasPadding && raw == static_cast<std::uint16_t>(padding)) {
                            padded[block] = 1;
                            continue;
                        }
                        const int value = isSigned ? static_cast<std::int16_t>(raw) : raw;
                        low[block] = std::min(low[block], value);
                        high[block] = std::max(high[block], value);
                    }
                }
            }
        }

        const Accelerator& accelerator = Segmentation();
        ASSERT_EQ(std::tuple(accelerator.BlocksX(), accelerator.BlocksY(), accelerator.BlocksZ()),
                  std::tuple(blocksX, blocksY, blocksZ));
        const std::uint8_t* flags = nullptr;
        const std::uint16_t* values = accelerator.BlockValues(true, flags);
        ASSERT_NE(values, nullptr);
        for (std::size_t block = 0; block < low.size(); ++block) {
            EXPECT_EQ(values[2 * block], static_cast<std::uint16_t>(low[block])) << "block " << block;
            EXPECT_EQ(values[2 * block + 1], static_cast<std::uint16_t>(high[block])) << "block " << block;
            EXPECT_EQ(flags[block], padded[block]) << "block " << block;
        }
    }
}

// Render threads find the tables stale or missing at once: one builds, the others
// wait and then read the same complete table. Meant to run under ThreadSanitizer.
TEST_F(QelImageStackSegmentationAcceleratorTest, ThreadsThatFindAStaleTableAtOnceAllReadTheRebuiltOne)
{
    float z = 0.0f;
    for (int i = 0; i < 40; ++i, z += 0.75f + static_cast<float>(i % 3))
        ASSERT_TRUE(m_stack->InsertImage(Slice(40, 40), z, false, false));
    const std::unique_ptr<Accelerator> second = Accelerator::New(*m_stack);
    const std::int32_t rows = second->VolumeBox().Depth();
    (void)RowOf(*second, 0);
    // Same box, other slices: the second accelerator's table goes stale and is
    // rebuilt in place; the stack's own has been dropped.
    for (int i = 0; i < 40; i += 3)
        ASSERT_TRUE(m_stack->ReplaceImage(Slice(40, 40), m_stack->Records()[i].Z, false, false));
    const std::unique_ptr<Accelerator> reference = Accelerator::New(*m_stack);
    std::vector<Row> expected;
    for (std::int32_t row = 0; row < rows; ++row)
        expected.push_back(RowOf(*reference, row));

    constexpr int kThreads = 6;
    std::atomic<int> waiting{kThreads};
    std::vector<std::vector<Row>> seen(kThreads);
    std::vector<const std::uint16_t*> blocks(kThreads);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            waiting.fetch_sub(1);
            while (waiting.load() > 0)
                std::this_thread::yield();
            const Accelerator& accelerator = t % 2 == 0 ? *second : Segmentation();
            for (std::int32_t row = 0; row < rows; ++row)
                seen[t].push_back(RowOf(accelerator, row));
            const std::uint8_t* flags = nullptr;
            blocks[t] = Segmentation().BlockValues(true, flags);
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    ASSERT_NE(blocks[0], nullptr);
    for (int t = 0; t < kThreads; ++t) {
        EXPECT_EQ(seen[t], expected) << "thread " << t;
        EXPECT_EQ(blocks[t], blocks[0]) << "thread " << t;  // built once
    }
}

}  // namespace
