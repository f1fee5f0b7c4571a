#include "PngWriter.h"

#include <png.h>

#include "AxrTestSupport.h"
#include "support/MessageOf.h"

namespace {

using AxrTest::Slurp;
using Axr::WriteGreyPng;

// Decoded by libpng's simplified reader, independent of the writer's code. Without a
// gamma chunk it takes 8-bit grey as it is and 16-bit samples as linear, unchanged.
template <typename Sample>
std::vector<Sample> Decode(const std::filesystem::path& path)
{
    png_image image{};
    image.version = PNG_IMAGE_VERSION;
    std::vector<Sample> samples;
    if (png_image_begin_read_from_file(&image, path.c_str())) {
        image.format = sizeof(Sample) == 2 ? PNG_FORMAT_LINEAR_Y : PNG_FORMAT_GRAY;
        samples.resize(PNG_IMAGE_SIZE(image) / sizeof(Sample));
        EXPECT_TRUE(png_image_finish_read(&image, nullptr, samples.data(), 0, nullptr)) << image.message;
    }
    return samples;
}

using PngWriterTest = AxrTest::ScratchTest;

TEST_F(PngWriterTest, EightAndSixteenBitGreyComeBackUnchangedAndReplaceAnOlderFileWhole)
{
    // Odd sizes catch row-length mistakes; the values cover both bytes of 16 bits.
    constexpr std::int32_t w = 7, h = 5;
    std::vector<std::uint8_t> grey8(w * h);
    std::vector<std::uint16_t> grey16(w * h);
    for (std::size_t i = 0; i < grey8.size(); ++i) {
        grey8[i] = static_cast<std::uint8_t>(i * 37);
        grey16[i] = static_cast<std::uint16_t>(i * 1877 + (i == 0 ? 0xFFFF : 0));
    }
    WriteGreyPng(m_scratch / "eight.png", 64, 64, std::span<const std::uint8_t>(std::vector<std::uint8_t>(64 * 64, 9)));
    WriteGreyPng(m_scratch / "eight.png", w, h, std::span<const std::uint8_t>(grey8));
    WriteGreyPng(m_scratch / "sixteen.png", w, h, std::span<const std::uint16_t>(grey16));

    // The header comes first: width and height, big-endian, then bit depth and colour type (grey).
    EXPECT_EQ(Slurp(m_scratch / "eight.png").substr(16, 10), std::string("\0\0\0\7\0\0\0\5\x08\0", 10));
    EXPECT_EQ(Slurp(m_scratch / "sixteen.png").substr(16, 10), std::string("\0\0\0\7\0\0\0\5\x10\0", 10));
    EXPECT_EQ(Decode<std::uint8_t>(m_scratch / "eight.png"), grey8);
    EXPECT_EQ(Decode<std::uint16_t>(m_scratch / "sixteen.png"), grey16);
    EXPECT_EQ(FileCount(), 2);  // no temporary file left beside them
}

TEST_F(PngWriterTest, FailuresNameTheFileAndLeaveNothingBehind)
{
    const std::vector<std::uint8_t> pixels(4, 1);
    const auto messageOf = [&](const std::filesystem::path& path, std::int32_t w, std::int32_t h) {
        return MessageOf<Axr::PngError>([&] { WriteGreyPng(path, w, h, std::span<const std::uint8_t>(pixels)); });
    };
    const std::tuple<std::filesystem::path, std::int32_t, std::int32_t, const char*> cases[] = {
        {m_scratch / "no-such-folder" / "a.png", 2, 2, "No such file or directory"},
        {m_scratch / "b.png", 3, 2, "4 pixels given for 3 x 2"}, {m_scratch / "c.png", 0, 4, "empty picture (0 x 4)"}};
    for (const auto& [path, w, h, reason] : cases)
        EXPECT_EQ(messageOf(path, w, h), "cannot write " + path.string() + ": " + reason);
    // A folder in the way of the rename: the temporary file must go too.
    std::filesystem::create_directories(m_scratch / "d.png" / "occupied");
    EXPECT_TRUE(messageOf(m_scratch / "d.png", 2, 2).starts_with("cannot write " + (m_scratch / "d.png").string()));
    EXPECT_EQ(FileCount(), 1);
}

}  // namespace
