#pragma once

// Stacks, canvases and views for the reformat tests.

#include "base/QelIntRange.h"
#include "base/QelMatrix34.h"
#include "graphics/QelRenderSpec.h"
#include "image/QelMemoryRasterImage.h"
#include "image/QelRgbColorSpec.h"
#include "image_stack/QelImageStack.h"
#include "threaded/QelImageStackRenderer.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <functional>
#include <memory>
#include <optional>
#include <vector>

using VoxelFunction = std::function<std::uint16_t(std::int32_t x, std::int32_t y, std::int32_t slice)>;

/// A stack of `width` x `height` slices at `zs`, owning its images, with voxels
/// from `voxel` (their 16-bit pattern, for signed stacks too).
inline std::unique_ptr<QelImageStack> MakeStack(std::int32_t width, std::int32_t height, const std::vector<float>& zs,
                                                bool isSigned, const VoxelFunction& voxel,
                                                std::optional<std::int32_t> padding = std::nullopt)
{
    std::unique_ptr<QelImageStack> stack = QelImageStack::New();
    for (std::size_t k = 0; k < zs.size(); ++k) {
        std::unique_ptr<QelMemoryRasterImage> image = QelMemoryRasterImage::New(nullptr);
        EXPECT_TRUE(image->Resize(2, {0, width - 1}, {0, height - 1}));
        for (std::int32_t y = 0; y < height; ++y) {
            for (std::int32_t x = 0; x < width; ++x) {
                const std::uint16_t value = voxel(x, y, static_cast<std::int32_t>(k));
                std::memcpy(image->PixelAddress(x, y), &value, sizeof value);
            }
        }
        EXPECT_TRUE(stack->InsertImage(image.release(), zs[k], true, isSigned));
    }
    if (padding)
        stack->SetPaddingValue(*padding);
    return stack;
}

/// A 16-bit canvas over `columns` x `rows`, every pixel `fill`.
inline std::unique_ptr<QelMemoryRasterImage> MakeCanvas(const QelIntRange& columns, const QelIntRange& rows,
                                                        std::uint16_t fill = 0xBEEF)
{
    std::unique_ptr<QelMemoryRasterImage> canvas = QelMemoryRasterImage::New(nullptr);
    EXPECT_TRUE(canvas->Resize(2, columns, rows));
    canvas->Clear(true, fill);
    return canvas;
}

/// The canvas's pixels, row after row.
inline std::vector<std::uint16_t> Pixels(const QelRasterImage& canvas)
{
    std::vector<std::uint16_t> pixels;
    for (std::int32_t y = canvas.YRange().Min; y <= canvas.YRange().Max && canvas.Height() > 0; ++y) {
        for (std::int32_t x = canvas.XRange().Min; x <= canvas.XRange().Max; ++x) {
            std::uint16_t value;
            std::memcpy(&value, canvas.PixelAddress(x, y), sizeof value);
            pixels.push_back(value);
        }
    }
    return pixels;
}

inline std::uint16_t PixelAt(const QelRasterImage& canvas, std::int32_t x, std::int32_t y)
{
    std::uint16_t value;
    std::memcpy(&value, canvas.PixelAddress(x, y), sizeof value);
    return value;
}

/// The view that puts canvas pixel (cx, cy) on volume point `centre`, with canvas x
/// and y stepping `across` and `down` in the volume and canvas z along `normal`.
inline QelMatrix34 ViewThrough(const QelVector3& centre, float cx, float cy, const QelVector3& across,
                               const QelVector3& down, const QelVector3& normal)
{
    const QelVector3 origin = centre - across * cx - down * cy;
    QelMatrix34 canvasToVolume;
    for (int row = 0; row < 3; ++row) {
        canvasToVolume.SetElem(row, 0, across[row]);
        canvasToVolume.SetElem(row, 1, down[row]);
        canvasToVolume.SetElem(row, 2, normal[row]);
        canvasToVolume.SetElem(row, 3, origin[row]);
    }
    return canvasToVolume.Inverse();
}

/// Canvas pixel (x, y) on voxel (x, y) of the plane z = `z`: the axial view.
inline QelMatrix34 AxialView(float z)
{
    return ViewThrough({0.0f, 0.0f, z}, 0.0f, 0.0f, {1.0f, 0.0f, 0.0f}, {0.0f, 1.0f, 0.0f}, {0.0f, 0.0f, 1.0f});
}

/// A record for a slab render into `canvas`.
inline void FillSpec(QelRenderSpec& spec, QelRasterImage* canvas, const QelMatrix34& view,
                     QelSlabMode::QelSlabModeEnum mode, std::int32_t samples, float spacing, std::uint16_t undefined)
{
    spec.SetCanvas(canvas);
    spec.SetSlabCenterTransform(view);
    spec.SetTransform(view);
    spec.SetSlabMode(mode);
    spec.SetSampleSliceNumber(samples);
    spec.SetCurrSliceSpacing(spacing);
    spec.SetUndefinedPixelVal(QelPixelVariant::SixteenBitGrey(undefined));
}

/// Drives `renderer` as the public layer does: StartDraw, then Step until done.
/// False when a call failed.
inline bool RenderInSteps(QelImageStackSteppableRenderer& renderer, QelImageStack* stack, QelRenderSpec* spec)
{
    bool running = renderer.StartDraw(stack, spec);
    while (running && !renderer.IsDone())
        running = renderer.Step();
    return running;
}
