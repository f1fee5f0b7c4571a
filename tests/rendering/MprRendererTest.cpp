#include "ax/rendering/MprRenderer.h"

#include "ax/rendering/Aborter.h"
#include "ax/rendering/ImageStack.h"
#include "ax/rendering/Initializer.h"
#include "ax/rendering/MemoryRasterImage.h"
#include "ax/rendering/RenderingException.h"
#include "ax/system/Exception.h"

#include "support/MessageOf.h"

#include <gtest/gtest.h>

#include <limits>

namespace {

using Ax::Primitives::GrayscalePixelFormat;
using Ax::Primitives::Size;
using Ax::Rendering::InterpolationMode;
using Ax::Rendering::MemoryRasterImage;
using Ax::Rendering::MprRenderer;
using Ax::Rendering::ProjectionMode;
using Ax::Rendering::RenderingException;
using Ax::Rendering::StatusCode;

constexpr std::uint16_t kUnused = 0xFACE;

// What the native renderer draws is tested where it lives; this is what the wrapper hands on.
class MprRendererTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() { Ax::Rendering::Initializer::Initialize(); }

    // Four images of 12 x 12 at z 0, 1, ...: voxel 1000 k + 10 y + x.
    void SetUp() override
    {
        for (int k = 0; k < 4; ++k) {
            auto image = std::make_shared<MemoryRasterImage>();
            image->Resize(GrayscalePixelFormat::Gray16(), Size(12, 12));
            for (std::int32_t i = 0; i < 144; ++i)
                *reinterpret_cast<std::uint16_t*>(image->GetPixelAddress(i % 12, i / 12)) =
                    static_cast<std::uint16_t>(1000 * k + 10 * (i / 12) + i % 12);
            ASSERT_TRUE(m_stack.InsertImage(image, k));
        }
        m_canvas.Resize(GrayscalePixelFormat::Gray16(), Size(12, 12));
        m_canvas.Clear(0xBEEF);
    }

    // The plane z = `z` seen straight on: canvas pixel (x, y) is voxel (x, y).
    StatusCode Render(double z, ProjectionMode mode = ProjectionMode::Maximum, std::int32_t count = 1,
                      float spacing = 1.0f, Ax::Rendering::IAborter* aborter = nullptr)
    {
        Ax::Primitives::Matrix44 volumeToView;
        volumeToView(2, 3) = -z;
        return m_renderer.Render(m_stack, kUnused, volumeToView, mode, count, spacing, m_canvas, aborter);
    }

    std::uint16_t Pixel(std::int32_t x, std::int32_t y) const
    {
        return *reinterpret_cast<const std::uint16_t*>(m_canvas.GetPixelAddress(x, y));
    }

    Ax::Rendering::ImageStack m_stack;
    MemoryRasterImage m_canvas;
    MprRenderer m_renderer{InterpolationMode::TriLinear};
};

TEST_F(MprRendererTest, BadArgumentsAreRefusedWithTheirTextsAndAnAbortIsReported)
{
    EXPECT_EQ(MessageOf<Ax::System::ArgumentException>([] { MprRenderer renderer(static_cast<InterpolationMode>(9)); }),
              "Unsupported interpolation mode: 9");
    for (const auto& [count, spacing] : {std::pair(1, -1.0f), {0, 1.0f}, {2, std::numeric_limits<float>::quiet_NaN()}})
        EXPECT_EQ(MessageOf<RenderingException>([&] { Render(1.0, ProjectionMode::Minimum, count, spacing); }),
                  "Internal rendering failed : Slab slicing/spacing invalid")
            << count << " slices " << spacing << " apart";
    EXPECT_THROW(Render(1.0, static_cast<ProjectionMode>(5)), Ax::System::ArgumentOutOfRangeException);
    Ax::Rendering::Aborter aborter;
    aborter.Abort();
    EXPECT_EQ(Render(0.0, ProjectionMode::Maximum, 1, 1.0f, &aborter), StatusCode::Aborted);
}

TEST_F(MprRendererTest, APlaneOnASliceShowsThatSliceAndASlabItsNeighbours)
{
    ASSERT_EQ(Render(2.0), StatusCode::Finished);
    EXPECT_EQ(Pixel(10, 7), 2070 + 10);
    EXPECT_EQ(Pixel(11, 7), kUnused);  // the last column has no right neighbour
    // With no spacing every sample lies on the plane.
    for (const auto& [mode, count, spacing, pixel] : {std::tuple{ProjectionMode::Maximum, 3, 0.5f, 2043},
             {ProjectionMode::Average, 3, 0.5f, 1543}, {ProjectionMode::Minimum, 3, 0.5f, 1043},
             {ProjectionMode::Maximum, 2, 0.0f, 1543}}) {
        ASSERT_EQ(Render(1.5, mode, count, spacing), StatusCode::Finished);
        EXPECT_EQ(Pixel(3, 4), pixel) << ToString(mode) << " of " << count;
    }
}

}  // namespace
