#pragma once

// Small stacks and accumulator images for the slab accumulator tests.

#include "base/QelIntRange.h"
#include "image/QelMemoryRasterImage.h"
#include "image_stack/QelImageStack.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <functional>
#include <memory>
#include <optional>
#include <vector>

using SlabVoxels = std::function<std::uint16_t(std::int32_t x, std::int32_t y, std::int32_t slice)>;

struct SlabStackShape {
    std::int32_t width = 4;
    std::int32_t height = 4;
    std::vector<float> zs;
    bool isSigned = false;
    std::optional<std::int32_t> padding;
    // Extra pixels at the end of each line of slice k, so that slices differ in pitch.
    std::vector<std::int32_t> extraColumns;
};

/// The stack of `shape`, owning its slices, with the 16-bit pattern `voxel` gives.
inline std::unique_ptr<QelImageStack> MakeSlabStack(const SlabStackShape& shape, const SlabVoxels& voxel)
{
    std::unique_ptr<QelImageStack> stack = QelImageStack::New();
    for (std::size_t k = 0; k < shape.zs.size(); ++k) {
        std::unique_ptr<QelMemoryRasterImage> image = QelMemoryRasterImage::New(nullptr);
        const std::int32_t extra = k < shape.extraColumns.size() ? shape.extraColumns[k] : 0;
        const QelIntRange columns(0, shape.width - 1);
        const QelIntRange rows(0, shape.height - 1);
        EXPECT_TRUE(image->Resize(2, columns, rows, columns, rows, QelIntRange(0, shape.width - 1 + extra), rows));
        for (std::int32_t y = 0; y < shape.height; ++y) {
            for (std::int32_t x = 0; x < shape.width; ++x) {
                const std::uint16_t value = voxel(x, y, static_cast<std::int32_t>(k));
                std::memcpy(image->PixelAddress(x, y), &value, sizeof value);
            }
        }
        EXPECT_TRUE(stack->InsertImage(image.release(), shape.zs[k], true, shape.isSigned));
    }
    if (shape.padding)
        stack->SetPaddingValue(*shape.padding);
    return stack;
}

/// An image of `width` x `height` pixels of `bytesPerPixel`, every byte `fill`.
inline std::unique_ptr<QelMemoryRasterImage> MakeSlabImage(std::int32_t bytesPerPixel, std::int32_t width,
                                                           std::int32_t height, std::uint8_t fill = 0)
{
    std::unique_ptr<QelMemoryRasterImage> image = QelMemoryRasterImage::New(nullptr);
    EXPECT_TRUE(image->Resize(bytesPerPixel, QelIntRange(0, width - 1), QelIntRange(0, height - 1)));
    for (std::int32_t y = 0; y < height; ++y)
        std::memset(image->PixelAddress(0, y), fill, std::size_t(width) * std::size_t(bytesPerPixel));
    return image;
}

template <typename T>
T ReadPixel(const QelRasterImage& image, std::int32_t x, std::int32_t y)
{
    T value;
    std::memcpy(&value, image.PixelAddress(x, y), sizeof value);
    return value;
}

template <typename T>
void WritePixel(QelRasterImage& image, std::int32_t x, std::int32_t y, T value)
{
    std::memcpy(image.PixelAddress(x, y), &value, sizeof value);
}

/// All bytes of the image's visible pixels, row after row.
inline std::vector<std::uint8_t> ImageBytes(const QelRasterImage& image)
{
    std::vector<std::uint8_t> bytes;
    const std::size_t row = std::size_t(image.Width()) * std::size_t(image.BytesPerPixel());
    for (std::int32_t y = image.YRange().Min; y <= image.YRange().Max; ++y) {
        const std::uint8_t* at = image.PixelAddress(image.XRange().Min, y);
        bytes.insert(bytes.end(), at, at + row);
    }
    return bytes;
}
