#include "image_stack/QelImageStackSegmentationAccelerator.h"

#include "image_stack/QelImageStack.h"
#include "image_stack/TestSlices.h"
#include "threaded/QelSystemInfo.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <memory>
#include <random>
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

class QelImageStackSegmentationAcceleratorTest : public StackTest {
protected:
    const Accelerator& Segmentation() const { return *m_stack->SegmentationAccelerator(); }
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
        EXPECT_EQ(RowOf(accelerator, -5), RowOf(accelerator, 0));  // rows are clamped to the box
        EXPECT_EQ(RowOf(accelerator, last + 9), RowOf(accelerator, last));
        EXPECT_EQ(accelerator.NearestPlane(last + 9), slices[c.nearest.back()]);
    }
}

// The stack's own accelerator is emptied by a change; one made apart hears of none
// and goes by the serial number alone.
TEST_F(QelImageStackSegmentationAcceleratorTest, AChangeEmptiesTheTablesAndTheNextReadSeesTheNewStack)
{
    const std::vector<const std::uint8_t*> s = Fill({0.0f, 2.0f});
    const Accelerator& own = Segmentation();
    const std::unique_ptr<Accelerator> second = Accelerator::New(*m_stack);
    const std::uint8_t* flags = nullptr;
    EXPECT_EQ(RowOf(own, 1), Row(s[1], s[0], 32768));
    EXPECT_EQ(RowOf(*second, 1), Row(s[1], s[0], 32768));
    EXPECT_NE(own.BlockValues(true, flags), nullptr);

    TestSlice* replacement = Slice();
    ASSERT_TRUE(m_stack->ReplaceImage(replacement, 2.0f, false, false));
    const std::uint8_t* r = replacement->OriginAddress();
    EXPECT_FALSE(own.HasRowTable());
    EXPECT_EQ(own.BlockValues(false, flags), nullptr);
    EXPECT_EQ(flags, nullptr);
    EXPECT_EQ(RowOf(own, 2), Row(r, r, 0));
    EXPECT_EQ(RowOf(*second, 1), Row(r, s[0], 32768));
    EXPECT_EQ(second->NearestPlane(2), r);
}

// A plain scan of every voxel of both planes of every row, with the planes found by
// NeighborsAtZ, against the row table and the threaded block scan. Slices lie on a
// quarter-voxel grid, so that float z decides the neighbours exactly. Blocks of padding
// alone keep their start values; lines without spare bytes show a read past the width.
TEST_F(QelImageStackSegmentationAcceleratorTest, BlockValuesMatchAPlainScanOfRandomStacks)
{
    const QelRenderThreadCountPin threads(3);
    std::mt19937 random(77);
    const auto pick = [&random](int low, int high) { return std::uniform_int_distribution(low, high)(random); };
    for (int trial = 0; trial < 40; ++trial) {
        m_stack = QelImageStack::New();  // a reset stack keeps its padding
        const bool isSigned = pick(0, 1) == 1, hasPadding = pick(0, 2) != 0;
        const int width = pick(1, 70), height = pick(1, 70), bytesPerLine = width * 2 + 2 * pick(0, 2);
        const int paddedFrom = pick(0, 1) == 1 ? pick(0, width) : width;  // columns of padding alone
        const int padding = isSigned ? pick(-300, 300) : pick(0, 600);
        if (hasPadding)
            m_stack->SetPaddingValue(padding);
        SCOPED_TRACE(::testing::Message() << "trial " << trial << ": " << width << "x" << height);
        float z = static_cast<float>(pick(-20, 20)) / 4.0f;
        for (int i = pick(1, 5); i > 0; --i, z += static_cast<float>(pick(1, 60)) / 4.0f) {
            TestSlice* slice = Slice(width, height, 2, bytesPerLine);
            // Bytes past the width hold a value no voxel has, to show when they are read.
            std::memset(slice->OriginAddress(), 0x7E, static_cast<std::size_t>(bytesPerLine) * height);
            for (int n = 0; n < width * height; ++n) {
                const bool pad = n % width >= paddedFrom || pick(0, 9) == 0;
                const auto value = std::uint16_t(pad ? padding : pick(0, 600) - (isSigned ? 300 : 0));
                std::memcpy(slice->PixelAddress(n % width, n / width), &value, sizeof value);
            }
            ASSERT_TRUE(m_stack->InsertImage(slice, z, false, isSigned));
        }

        const QelIntBBox3 box = m_stack->BoundingBox();
        const int blocksX = (width + 31) / 32, blocksY = (height + 31) / 32, blocksZ = (box.Depth() + 31) / 32;
        std::vector<int> low(blocksX * blocksY * blocksZ, isSigned ? 32767 : 65535);
        std::vector<int> high(low.size(), isSigned ? -32768 : 0), padded(low.size(), 0);
        const QelImageRecord* records = m_stack->Records();
        for (int row = 0; row < box.Depth(); ++row) {
            std::int32_t lower = -1, upper = -1;
            const QelNeighborCodes code = m_stack->NeighborsAtZ(static_cast<float>(box.Z.Min + row), lower, upper);
            if (code != BothNeighbors)
                lower = upper = code == LowerNeighborOnly ? lower : upper;
            const Row planes = RowOf(Segmentation(), row);
            EXPECT_EQ(planes, Row(records[upper].Image->OriginAddress(), records[lower].Image->OriginAddress(),
                                  std::get<2>(planes))) << "row " << row;
            for (const std::int32_t plane : {lower, upper}) {
                const auto& slice = static_cast<const TestSlice&>(*records[plane].Image);
                for (int n = 0; n < width * height; ++n) {
                    const int x = n % width, y = n / width;
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

        const Accelerator& accelerator = Segmentation();
        ASSERT_EQ(std::tuple(accelerator.BlocksX(), accelerator.BlocksY(), accelerator.BlocksZ()),
                  std::tuple(blocksX, blocksY, blocksZ));
        const std::uint8_t* flags = nullptr;
        const std::uint16_t* values = accelerator.BlockValues(true, flags);
        ASSERT_NE(values, nullptr);
        std::vector<std::uint16_t> expected;
        for (std::size_t block = 0; block < low.size(); ++block)
            expected.insert(expected.end(), {std::uint16_t(low[block]), std::uint16_t(high[block])});
        EXPECT_EQ(std::vector<std::uint16_t>(values, values + expected.size()), expected);
        EXPECT_EQ(std::vector<int>(flags, flags + padded.size()), padded);
        EXPECT_EQ(accelerator.BlockValues(true, flags), values);  // built once
    }
}

}  // namespace
