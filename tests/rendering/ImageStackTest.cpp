#include "ax/rendering/ImageStack.h"

#include "ax/rendering/Initializer.h"
#include "ax/rendering/MemoryRasterImage.h"
#include "ax/system/Exception.h"
#include "image_stack/QelImageStack.h"

#include "support/MessageOf.h"

#include <gtest/gtest.h>

#include <algorithm>

namespace {

using Ax::Primitives::GrayscalePixelFormat;
using Ax::Primitives::Size;
using Ax::Primitives::Vector3;
using Ax::Rendering::ImageStack;
using Ax::Rendering::ImageStackRecord;
using Ax::Rendering::RasterImage;
using Ax::System::ArgumentOutOfRangeException;
using Images = std::vector<std::shared_ptr<RasterImage>>;

std::shared_ptr<RasterImage> Image()
{
    auto image = std::make_shared<Ax::Rendering::MemoryRasterImage>();
    image->Resize(GrayscalePixelFormat::Gray16(), Size(4, 3));
    return image;
}

std::vector<double> ZOf(const ImageStack& stack)
{
    std::vector<double> z;
    for (const ImageStackRecord& record : stack)
        z.push_back(record.ZCoord());
    return z;
}

class ImageStackTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() { Ax::Rendering::Initializer::Initialize(); }

    // Images at the given z, in insertion order.
    Images Fill(std::initializer_list<double> zValues)
    {
        Images images;
        for (double z : zValues) {
            images.push_back(Image());
            EXPECT_TRUE(m_stack.InsertImage(images.back(), z)) << z;
        }
        return images;
    }

    ImageStack m_stack;
};

TEST_F(ImageStackTest, TheRecordsFollowTheNativeOrderAndRefusedImagesLeaveThemAsTheyWere)
{
    EXPECT_EQ(MessageOf<Ax::System::InvalidOperationException>([&] { (void)m_stack.PaddingValue(); }),
              "Padding has not been set");

    const auto images = Fill({2.0, 0.1, 1.0});
    EXPECT_EQ(ZOf(m_stack), (std::vector<double>{0.1, 1.0, 2.0}));
    for (std::int32_t i = 0; i < 3; ++i)
        EXPECT_EQ(m_stack[i].Image(), images[(i + 1) % 3]) << i;
    EXPECT_EQ(MessageOf<ArgumentOutOfRangeException>([&] { (void)m_stack[3]; }),
              "Index was out of range. Must be non-negative and less than the size of the collection.");

    // The list keeps the caller's double, the native stack a float: a double that
    // narrows to the same float is the same slice.
    EXPECT_FALSE(m_stack.InsertImage(Image(), static_cast<double>(0.1f)) || m_stack.ReplaceImage(Image(), 3.0));
    EXPECT_EQ(ZOf(m_stack), (std::vector<double>{0.1, 1.0, 2.0}));
    try {
        m_stack.InsertImage(nullptr, 5.0);
        ADD_FAILURE() << "nothing thrown";
    } catch (const Ax::System::ArgumentNullException& e) {
        EXPECT_EQ(e.ParamName(), "image");
    }
}

TEST_F(ImageStackTest, ImagesLiveWhileHeldAndRemovingTheLastResetsTheStack)
{
    std::weak_ptr<RasterImage> replaced = Fill({3.0})[0];
    ASSERT_TRUE(m_stack.ReplaceImage(Image(), 3.0));
    EXPECT_TRUE(replaced.expired());

    auto kept = Image();
    ASSERT_TRUE(m_stack.InsertImage(kept, 4.0));
    EXPECT_TRUE(m_stack.RemoveImage(4.0));
    EXPECT_EQ(kept.use_count(), 1);
    EXPECT_FALSE(m_stack.RemoveImage(4.0) || m_stack.RemoveImage(std::int32_t{5}));

    ASSERT_TRUE(m_stack.RemoveImage(std::int32_t{0}));
    EXPECT_EQ(m_stack.MaximumPoint().Z, 0.0);  // not the z of the slice removed
}

// GetImageAtZPosition: the nearer neighbour within the tolerance, the lower one
// halfway, and outside the stack the one neighbour there is.
TEST_F(ImageStackTest, PointsBoundsAndLookupsByZ)
{
    EXPECT_FALSE(m_stack.GetImageAtZPosition(0.0, 100.0).has_value());
    const auto images = Fill({0.0, 1.0, 3.0});
    const auto indexOf = [&](const std::optional<ImageStackRecord>& record) {
        return record ? static_cast<int>(std::find(images.begin(), images.end(), record->Image()) - images.begin()) : -1;
    };
    const std::tuple<double, double, int> nearest[] = {{1.0, 0.0, 1}, {1.001, 0.0, -1}, {1.3, 0.5, 1},
        {2.7, 0.5, 2}, {2.0, 0.9, -1}, {2.0, 1.0, 1}, {-0.25, 0.25, 0}, {3.5, 0.5, 2}, {3.5, 0.4, -1}};
    for (const auto& [z, tolerance, index] : nearest)
        EXPECT_EQ(indexOf(m_stack.GetImageAtZPosition(z, tolerance)), index) << z << " +- " << tolerance;
    for (const auto& [z, below, above] : {std::tuple{0.5, 0, 1}, {-1.0, -1, 0}, {3.0, 2, -1}}) {
        std::optional<ImageStackRecord> lower, higher;
        m_stack.GetImagesAroundZPosition(z, lower, higher);
        EXPECT_EQ(std::pair(indexOf(lower), indexOf(higher)), std::pair(below, above)) << z;
    }
    // The native stack gives sizes in x and y and a z range: here the last voxel and the box.
    EXPECT_EQ(m_stack.MaximumPoint(), Vector3(3.0, 2.0, 3.0));
    EXPECT_EQ(m_stack.Bounds(), Ax::Primitives::Bounds3(0.0, 0.0, 0.0, 4.0, 3.0, 4.0));
}

TEST_F(ImageStackTest, ReBasingMovesEveryImageAndKeepsSpacingImagesAndPadding)
{
    const auto images = Fill({10.0, 10.5, 12.0});
    const std::int32_t serial = m_stack.UnmanagedImageStack()->SerialNumber();
    m_stack.SetPaddingValue(-1024);
    m_stack.ReBaseImageZPositions(-1.0);
    EXPECT_EQ(ZOf(m_stack), (std::vector<double>{-1.0, -0.5, 1.0}));
    EXPECT_EQ(m_stack[1].Image(), images[1]);
    EXPECT_EQ(m_stack.UnmanagedImageStack()->Records()[2].Z, 1.0f);
    EXPECT_NE(m_stack.UnmanagedImageStack()->SerialNumber(), serial);
    EXPECT_EQ(m_stack.PaddingValue(), -1024);

    // One that would leave the z range changes nothing.
    QelImageStack* before = m_stack.UnmanagedImageStack();
    EXPECT_EQ(MessageOf<ArgumentOutOfRangeException>([&] { m_stack.ReBaseImageZPositions(999998.75); }),
              "Invalid Z coordinate 1000000.75");
    EXPECT_EQ(m_stack.UnmanagedImageStack(), before);
    EXPECT_EQ(ZOf(m_stack), (std::vector<double>{-1.0, -0.5, 1.0}));
}

}  // namespace
