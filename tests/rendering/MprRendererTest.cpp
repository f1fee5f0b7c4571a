#include "ax/rendering/MprRenderer.h"

#include "ax/rendering/ImageStack.h"
#include "ax/rendering/Initializer.h"
#include "ax/rendering/MemoryRasterImage.h"
#include "ax/rendering/RenderingException.h"
#include "ax/system/Exception.h"

#include "support/MessageOf.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <memory>
#include <vector>

namespace {

using Ax::Primitives::GrayscalePixelFormat;
using Ax::Primitives::Matrix44;
using Ax::Primitives::Size;
using Ax::Rendering::IAborter;
using Ax::Rendering::ImageStack;
using Ax::Rendering::InterpolationMode;
using Ax::Rendering::MemoryRasterImage;
using Ax::Rendering::MprRenderer;
using Ax::Rendering::ProjectionMode;
using Ax::Rendering::RenderingException;
using Ax::Rendering::StatusCode;
using Ax::System::ArgumentException;
using Ax::System::ArgumentOutOfRangeException;

constexpr std::uint16_t kUnused = 0xFACE;

std::uint16_t Pixel(const MemoryRasterImage& image, std::int32_t x, std::int32_t y)
{
    std::uint16_t value;
    std::memcpy(&value, image.GetPixelAddress(x, y), sizeof value);
    return value;
}

// Volume to view for the plane z = `z` seen straight on: canvas pixel (x, y) is voxel (x, y).
Matrix44 AxialAt(double z)
{
    Matrix44 matrix;
    matrix(2, 3) = -z;
    return matrix;
}

// Aborts at its n-th poll.
class AbortingAt final : public IAborter {
public:
    explicit AbortingAt(int poll) : m_poll(poll) {}
    bool HasAborted() override { return ++m_polls >= m_poll; }

private:
    int m_poll;
    int m_polls = 0;
};

class MprRendererTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() { Ax::Rendering::Initializer::Initialize(); }

    // `slices` images of 12 x 12 at z 0, 1, ...: voxel 1000 k + 10 y + x.
    static std::unique_ptr<ImageStack> Stack(int slices)
    {
        auto stack = std::make_unique<ImageStack>();
        for (int k = 0; k < slices; ++k) {
            auto image = std::make_shared<MemoryRasterImage>();
            image->Resize(GrayscalePixelFormat::Gray16(), Size(12, 12));
            for (std::int32_t y = 0; y < 12; ++y)
                for (std::int32_t x = 0; x < 12; ++x) {
                    const auto value = static_cast<std::uint16_t>(1000 * k + 10 * y + x);
                    std::memcpy(image->GetPixelAddress(x, y), &value, sizeof value);
                }
            EXPECT_TRUE(stack->InsertImage(image, k));
        }
        return stack;
    }

    static std::unique_ptr<MemoryRasterImage> Canvas(std::int32_t width, std::int32_t height)
    {
        auto canvas = std::make_unique<MemoryRasterImage>();
        canvas->Resize(GrayscalePixelFormat::Gray16(), Size(width, height));
        canvas->Clear(0xBEEF);
        return canvas;
    }
};

TEST_F(MprRendererTest, OnlyTheTrilinearModeHasARenderer)
{
    EXPECT_EQ(MessageOf<ArgumentException>([] { MprRenderer renderer(InterpolationMode::BiLinear); }),
              "Unsupported interpolation mode: BiLinear");
    EXPECT_EQ(MessageOf<ArgumentException>([] { MprRenderer renderer(InterpolationMode::BiCubic); }),
              "Unsupported interpolation mode: BiCubic");
    EXPECT_EQ(MessageOf<ArgumentException>([] { MprRenderer renderer(InterpolationMode::TriCubic); }),
              "Unsupported interpolation mode: TriCubic");
    EXPECT_EQ(MessageOf<ArgumentException>([] { MprRenderer renderer(static_cast<InterpolationMode>(9)); }),
              "Unsupported interpolation mode: 9");
    EXPECT_NO_THROW(MprRenderer renderer(InterpolationMode::TriLinear));
}

TEST_F(MprRendererTest, APlaneOnASliceShowsThatSliceAndAMipSlabItsHighestNeighbour)
{
    auto stack = Stack(4);
    auto canvas = Canvas(12, 12);
    MprRenderer renderer(InterpolationMode::TriLinear);
    ASSERT_EQ(renderer.Render(*stack, kUnused, AxialAt(2.0), ProjectionMode::Maximum, 1, 1.0f, *canvas, nullptr),
              StatusCode::Finished);
    EXPECT_EQ(Pixel(*canvas, 0, 0), 2000);
    EXPECT_EQ(Pixel(*canvas, 10, 7), 2070 + 10);
    EXPECT_EQ(Pixel(*canvas, 11, 7), kUnused);  // the last column has no right neighbour
    EXPECT_EQ(Pixel(*canvas, 4, 11), kUnused);

    ASSERT_EQ(renderer.Render(*stack, kUnused, AxialAt(1.5), ProjectionMode::Maximum, 3, 0.5f, *canvas, nullptr),
              StatusCode::Finished);
    EXPECT_EQ(Pixel(*canvas, 3, 4), 2043);
    ASSERT_EQ(renderer.Render(*stack, kUnused, AxialAt(1.5), ProjectionMode::Average, 3, 0.5f, *canvas, nullptr),
              StatusCode::Finished);
    EXPECT_EQ(Pixel(*canvas, 3, 4), 1543);
}

TEST_F(MprRendererTest, SlicingAndSpacingAreChecked)
{
    auto stack = Stack(3);
    auto canvas = Canvas(8, 8);
    MprRenderer renderer(InterpolationMode::TriLinear);
    auto render = [&](std::int32_t count, float spacing) {
        return renderer.Render(*stack, kUnused, AxialAt(1.0), ProjectionMode::Minimum, count, spacing, *canvas,
                               nullptr);
    };
    const std::string invalid = "Internal rendering failed : Slab slicing/spacing invalid";
    EXPECT_EQ(MessageOf<RenderingException>([&] { render(1, -1.0f); }), invalid);
    EXPECT_EQ(MessageOf<RenderingException>([&] { render(0, 1.0f); }), invalid);
    EXPECT_EQ(MessageOf<RenderingException>([&] { render(2, std::numeric_limits<float>::quiet_NaN()); }), invalid);
    EXPECT_EQ(render(2, 0.0f), StatusCode::Finished);
    EXPECT_EQ(Pixel(*canvas, 2, 3), 1032);

    try {
        renderer.Render(*stack, kUnused, AxialAt(1.0), static_cast<ProjectionMode>(5), 1, 1.0f, *canvas, nullptr);
        ADD_FAILURE() << "nothing was thrown";
    } catch (const ArgumentOutOfRangeException& e) {
        EXPECT_STREQ(e.what(), "Unsupported projection mode: 5");
        EXPECT_EQ(e.ParamName(), "slabMode");
    }
}

TEST_F(MprRendererTest, AStackOfOneImageGivesTheUnusedValueAndSucceeds)
{
    auto stack = Stack(1);
    auto canvas = Canvas(5, 3);
    MprRenderer renderer(InterpolationMode::TriLinear);
    EXPECT_EQ(renderer.Render(*stack, kUnused, AxialAt(0.0), ProjectionMode::Maximum, 1, 1.0f, *canvas, nullptr),
              StatusCode::Finished);
    for (std::int32_t y = 0; y < 3; ++y)
        for (std::int32_t x = 0; x < 5; ++x)
            EXPECT_EQ(Pixel(*canvas, x, y), kUnused);
}

TEST_F(MprRendererTest, ACanvasWithoutPixelsFinishesAtOnce)
{
    auto stack = Stack(2);
    MemoryRasterImage canvas;
    MprRenderer renderer(InterpolationMode::TriLinear);
    EXPECT_EQ(renderer.Render(*stack, kUnused, AxialAt(0.5), ProjectionMode::Maximum, 1, 1.0f, canvas, nullptr),
              StatusCode::Finished);
}

TEST_F(MprRendererTest, AnAbortAfterTheFirstStepLeavesTheLaterBandsAsTheyWere)
{
    // 300 rows are 19 bands; the first step draws 16 of them.
    auto stack = Stack(2);
    auto canvas = Canvas(12, 300);
    MprRenderer renderer(InterpolationMode::TriLinear);
    AbortingAt secondPoll(2);
    EXPECT_EQ(renderer.Render(*stack, kUnused, AxialAt(0.0), ProjectionMode::Maximum, 1, 1.0f, *canvas, &secondPoll),
              StatusCode::Aborted);
    EXPECT_EQ(Pixel(*canvas, 3, 2), 23);
    EXPECT_EQ(Pixel(*canvas, 3, 255), kUnused);
    EXPECT_EQ(Pixel(*canvas, 3, 256), 0xBEEF);
    EXPECT_EQ(Pixel(*canvas, 11, 299), 0xBEEF);

    // The renderer is ready for the next render.
    EXPECT_EQ(renderer.Render(*stack, kUnused, AxialAt(0.0), ProjectionMode::Maximum, 1, 1.0f, *canvas, nullptr),
              StatusCode::Finished);
    EXPECT_EQ(Pixel(*canvas, 3, 299), kUnused);
}

}  // namespace
