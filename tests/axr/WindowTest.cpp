#include "Window.h"

#include <gtest/gtest.h>

#include <vector>

namespace {

using Axr::ApplyWindow;
using Axr::Window;

constexpr std::uint16_t kUndefined = 0xFFFF;

// Stored values are HU + 1024.
constexpr std::uint16_t Stored(int hu) { return static_cast<std::uint16_t>(hu + 1024); }

TEST(WindowTest, EdgesOfTheSoftTissueWindowAreBlackAndWhite)
{
    const Window soft = Window::SoftTissue();  // -160 .. 240 HU
    EXPECT_EQ(ApplyWindow(soft, Stored(-160), kUndefined), 0);
    EXPECT_EQ(ApplyWindow(soft, Stored(-161), kUndefined), 0);
    EXPECT_EQ(ApplyWindow(soft, 0, kUndefined), 0);
    EXPECT_EQ(ApplyWindow(soft, Stored(240), kUndefined), 255);
    EXPECT_EQ(ApplyWindow(soft, Stored(239), kUndefined), 254);  // 399/400 * 255 = 254.4
    EXPECT_EQ(ApplyWindow(soft, Stored(-159), kUndefined), 1);   // 1/400 * 255 = 0.64 rounds up
    EXPECT_EQ(ApplyWindow(soft, Stored(40), kUndefined), 128);   // the centre: 127.5 rounds up
    EXPECT_EQ(ApplyWindow(soft, 0xFFFE, kUndefined), 255);
}

TEST(WindowTest, BoneWindowSpansItsWidth)
{
    const Window bone = Window::Bone();  // -450 .. 1050 HU
    EXPECT_EQ(ApplyWindow(bone, Stored(-450), kUndefined), 0);
    EXPECT_EQ(ApplyWindow(bone, Stored(1050), kUndefined), 255);
    EXPECT_EQ(ApplyWindow(bone, Stored(300), kUndefined), 128);
}

TEST(WindowTest, UndefinedPixelsAreBlackEvenWhereTheWindowWouldBeWhite)
{
    EXPECT_EQ(ApplyWindow(Window::SoftTissue(), kUndefined, kUndefined), 0);
    EXPECT_EQ(ApplyWindow(Window::SoftTissue(), Stored(1000), Stored(1000)), 0);
    EXPECT_EQ(ApplyWindow(Window::SoftTissue(), kUndefined, 0), 255);
}

TEST(WindowTest, PictureVersionMatchesThePixelVersion)
{
    std::vector<std::uint16_t> stored;
    for (std::uint32_t v = 0; v < 65536; v += 7)
        stored.push_back(static_cast<std::uint16_t>(v));
    stored.push_back(kUndefined);
    const Window window{123, 77};
    const auto grey = ApplyWindow(window, stored, kUndefined);
    ASSERT_EQ(grey.size(), stored.size());
    for (std::size_t i = 0; i < stored.size(); ++i)
        ASSERT_EQ(grey[i], ApplyWindow(window, stored[i], kUndefined)) << "stored " << stored[i];
}

}  // namespace
