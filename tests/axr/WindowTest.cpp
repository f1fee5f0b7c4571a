#include "Window.h"

#include <gtest/gtest.h>

#include <vector>

namespace {

using Axr::ApplyWindow;
using Axr::Window;

constexpr std::uint16_t kUndefined = 0xFFFF;

TEST(WindowTest, EdgesAreBlackAndWhiteAndTheRampRoundsToNearest)
{
    const Window soft = Window::SoftTissue(), bone = Window::Bone();
    const struct {
        Window window;
        int hu, grey;  // stored values are HU + 1024
    } cases[] = {
        {soft, -1024, 0}, {soft, -161, 0}, {soft, -160, 0}, {soft, 240, 255}, {soft, 0xFFFE - 1024, 255},
        {soft, -159, 1},    // 1/400 * 255 = 0.64 rounds up
        {soft, 40, 128},    // the centre: 127.5 rounds up
        {soft, 239, 254},   // 399/400 * 255 = 254.4
        {bone, -450, 0}, {bone, 300, 128}, {bone, 1050, 255},
    };
    for (const auto& c : cases)
        EXPECT_EQ(ApplyWindow(c.window, static_cast<std::uint16_t>(c.hu + 1024), kUndefined), c.grey) << c.hu;
    // Undefined pixels are black even where the window would make them white.
    EXPECT_EQ(ApplyWindow(soft, kUndefined, kUndefined), 0);
    EXPECT_EQ(ApplyWindow(soft, 2024, 2024), 0);
    EXPECT_EQ(ApplyWindow(soft, kUndefined, 0), 255);
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
