#pragma once

#include "bittree/BitTreeTestSupport.h"
#include "image_stack/QelImageStack.h"
#include "image_stack/QelImageStackSegmentationAccelerator.h"
#include "image_stack/TestSlices.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <memory>
#include <vector>

/// The threshold rule written out on plain integers, one voxel from its two source
/// samples: unsigned samples keep their value and the threshold is compared on that
/// scale; the blend is floored like a true division. Thresholds outside the pixel
/// range are clamped, or reach nothing when above it.
inline bool ExpectedBit(std::uint16_t first, std::uint16_t second, bool twoPlanes, std::int32_t weight,
                        bool isSigned, bool hasPadding, std::uint16_t padding, std::int64_t threshold)
{
    const auto value = [isSigned](std::uint16_t raw) {
        return isSigned ? std::int64_t{static_cast<std::int16_t>(raw)} : std::int64_t{raw};
    };
    if (hasPadding && (second == padding || (twoPlanes && first == padding)))
        return false;
    if (!twoPlanes)
        return value(second) >= threshold;
    const std::int64_t bias = isSigned ? 0 : 32768;
    const std::int64_t sum = (value(first) - bias) * weight + (value(second) - bias) * (16384 - weight);
    const std::int64_t floored = sum >= 0 ? sum / 16384 : -((-sum + 16383) / 16384);
    return floored + bias >= threshold;
}

/// A stack over slices the test owns, one slice per z given, in that (rising) order.
class TestVolume {
public:
    TestVolume(std::int32_t width, std::int32_t height, const std::vector<float>& zValues, bool isSigned,
               std::int32_t bytesPerPixel = 2)
        : m_isSigned(isSigned)
    {
        for (float z : zValues) {
            m_slices.push_back(std::make_unique<TestSlice>(width, height, bytesPerPixel));
            EXPECT_TRUE(m_stack->InsertImage(m_slices.back().get(), z, false, isSigned)) << z;
        }
    }

    [[nodiscard]] QelImageStack& Stack() const { return *m_stack; }
    [[nodiscard]] const QelImageStackSegmentationAccelerator& Accelerator() const
    {
        return *m_stack->SegmentationAccelerator();
    }
    [[nodiscard]] std::int32_t SliceCount() const { return static_cast<std::int32_t>(m_slices.size()); }
    void Set(std::int32_t slice, std::int32_t x, std::int32_t y, std::uint16_t value)
    {
        std::memcpy(m_slices[static_cast<std::size_t>(slice)]->PixelAddress(x, y), &value, sizeof value);
    }
    void Fill(std::uint16_t value)
    {
        for (std::int32_t k = 0; k < SliceCount(); ++k)
            for (std::int32_t y = 0; y < m_stack->Height(); ++y)
                for (std::int32_t x = 0; x < m_stack->Width(); ++x)
                    Set(k, x, y, value);
    }

    /// Slices `first` to `last` of the volume box, by the rule, from the accelerator's rows.
    [[nodiscard]] DenseMask Reference(std::int64_t threshold, std::int32_t first, std::int32_t last) const
    {
        const QelIntBBox3 box = Accelerator().VolumeBox();
        DenseMask dense(static_cast<std::uint32_t>(box.Width()), static_cast<std::uint32_t>(box.Height()),
                        static_cast<std::uint32_t>(box.Depth()));
        const bool hasPadding = m_stack->HasPadding();
        const auto padding = static_cast<std::uint16_t>(m_stack->PaddingValue());
        const std::int64_t low = m_isSigned ? -32768 : 0;
        if (threshold > (m_isSigned ? 32767 : 65535))
            return dense;
        threshold = std::max(threshold, low);
        for (std::int32_t z = std::max(first, 0); z <= std::min(last, box.Depth() - 1); ++z) {
            const std::uint8_t* above = nullptr;
            const std::uint8_t* below = nullptr;
            const std::uint16_t fraction = Accelerator().RowPlanes(z, above, below);
            for (std::int32_t y = 0; y < box.Height(); ++y)
                for (std::int32_t x = 0; x < box.Width(); ++x) {
                    const std::ptrdiff_t at = std::ptrdiff_t{y} * m_stack->BytesPerLine() + 2 * x;
                    std::uint16_t a, b;
                    std::memcpy(&a, above + at, 2);
                    std::memcpy(&b, below + at, 2);
                    dense.Set(x, y, z, ExpectedBit(a, b, fraction != 0, fraction >> 2, m_isSigned, hasPadding,
                                                   padding, threshold));
                }
        }
        return dense;
    }

private:
    bool m_isSigned;
    std::vector<std::unique_ptr<TestSlice>> m_slices;  // declared first: outlives the stack
    std::unique_ptr<QelImageStack> m_stack = QelImageStack::New();
};
