#pragma once

#include "base/QelIntRange.h"
#include "base/QelMatrix34.h"
#include "graphics/QelRenderSpec.h"
#include "image/QelMemoryRasterImage.h"
#include "image/QelRgbColorSpec.h"
#include "image_stack/QelImageStack.h"
#include "threaded/QelImageStackRenderer.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <functional>
#include <memory>
#include <optional>
#include <random>
#include <vector>

using VoxelFunction = std::function<std::uint16_t(std::int32_t x, std::int32_t y, std::int32_t slice)>;

struct StackShape {
    std::int32_t width = 4;
    std::int32_t height = 4;
    std::vector<float> zs;
    bool isSigned = false;
    std::optional<std::int32_t> padding;
    std::vector<std::int32_t> extraColumns;  // per slice, so that slices differ in pitch
};

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

/// The stack of `shape`, owning its slices, with the 16-bit pattern `voxel` gives.
inline std::unique_ptr<QelImageStack> MakeStack(const StackShape& shape, const VoxelFunction& voxel)
{
    std::unique_ptr<QelImageStack> stack = QelImageStack::New();
    for (std::size_t k = 0; k < shape.zs.size(); ++k) {
        std::unique_ptr<QelMemoryRasterImage> image = QelMemoryRasterImage::New(nullptr);
        const std::int32_t extra = k < shape.extraColumns.size() ? shape.extraColumns[k] : 0;
        const QelIntRange columns(0, shape.width - 1), rows(0, shape.height - 1);
        EXPECT_TRUE(image->Resize(2, columns, rows, columns, rows, QelIntRange(0, shape.width - 1 + extra), rows));
        for (std::int32_t y = 0; y < shape.height; ++y)
            for (std::int32_t x = 0; x < shape.width; ++x)
                WritePixel(*image, x, y, voxel(x, y, static_cast<std::int32_t>(k)));
        EXPECT_TRUE(stack->InsertImage(image.release(), shape.zs[k], true, shape.isSigned));
    }
    if (shape.padding)
        stack->SetPaddingValue(*shape.padding);
    return stack;
}

inline std::unique_ptr<QelImageStack> MakeStack(std::int32_t width, std::int32_t height, const std::vector<float>& zs,
                                                const VoxelFunction& voxel)
{
    return MakeStack({width, height, zs, false, std::nullopt, {}}, voxel);
}

/// An image over `columns` x `rows`, every pixel `fill`; 0xBEEF shows what a draw left alone.
inline std::unique_ptr<QelMemoryRasterImage> MakeImage(std::int32_t bytesPerPixel, const QelIntRange& columns,
                                                       const QelIntRange& rows, std::uint32_t fill = 0xBEEF)
{
    std::unique_ptr<QelMemoryRasterImage> image = QelMemoryRasterImage::New(nullptr);
    EXPECT_TRUE(image->Resize(bytesPerPixel, columns, rows));
    image->Clear(true, fill);
    return image;
}

inline std::vector<std::uint8_t> ImageBytes(const QelRasterImage& image)
{
    std::vector<std::uint8_t> bytes;
    const std::size_t row = std::size_t(image.Width()) * std::size_t(image.BytesPerPixel());
    for (std::int32_t y = image.YRange().Min; y <= image.YRange().Max && row > 0; ++y) {
        const std::uint8_t* at = image.PixelAddress(image.XRange().Min, y);
        bytes.insert(bytes.end(), at, at + row);
    }
    return bytes;
}

inline std::vector<std::uint16_t> Pixels(const QelRasterImage& canvas)
{
    const std::vector<std::uint8_t> bytes = ImageBytes(canvas);
    std::vector<std::uint16_t> pixels(bytes.size() / 2);
    std::memcpy(pixels.data(), bytes.data(), pixels.size() * 2);
    return pixels;
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

/// Canvas pixel (x, y) on voxel (x, y) of the plane z = `z`.
inline QelMatrix34 AxialView(float z)
{
    return ViewThrough({0.0f, 0.0f, z}, 0.0f, 0.0f, {1.0f, 0.0f, 0.0f}, {0.0f, 1.0f, 0.0f}, {0.0f, 0.0f, 1.0f});
}

class Dice {
public:
    explicit Dice(unsigned seed) : m_rng(seed) {}
    std::int32_t Int(std::int32_t low, std::int32_t high)
    {
        return std::uniform_int_distribution<std::int32_t>(low, high)(m_rng);
    }
    float Real(float low, float high) { return std::uniform_real_distribution<float>(low, high)(m_rng); }
    bool Chance(double p) { return std::bernoulli_distribution(p)(m_rng); }
    std::uint32_t Bits() { return m_rng(); }
    template <class T>
    T Pick(std::initializer_list<T> values)
    {
        return *(values.begin() + Int(0, static_cast<std::int32_t>(values.size()) - 1));
    }
    /// A frame turned at random: a unit normal, and across and down of length `size`.
    void Oblique(float size, QelVector3& across, QelVector3& down, QelVector3& normal)
    {
        const auto unit = [](const QelVector3& v) { return v * (1.0f / std::sqrt(v.Dot(v))); };
        normal = unit({Real(-1, 1), Real(-1, 1), Real(-1, 1)});
        const QelVector3 other{Real(-1, 1), Real(-1, 1), Real(-1, 1)};
        across = unit(other - normal * normal.Dot(other)) * size;
        down = unit(normal.Cross(across)) * size;
    }

private:
    std::mt19937 m_rng;
};

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
inline bool RenderInSteps(QelImageStackSteppableRenderer& renderer, QelImageStack* stack, QelRenderSpec* spec)
{
    bool running = renderer.StartDraw(stack, spec);
    while (running && !renderer.IsDone())
        running = renderer.Step();
    return running;
}
