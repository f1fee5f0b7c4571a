#include "PngWriter.h"

#include <png.h>

#include "AxrTestSupport.h"

#include <csetjmp>
#include <cstdio>

namespace {

using Axr::WriteGreyPng;

struct ReadBack {
    png_uint_32 width = 0, height = 0;
    int bitDepth = 0, colourType = -1;
    std::vector<std::uint16_t> samples;  // 16-bit samples, or 8-bit ones widened
};

// Decoded by libpng itself, without transformations, independent of the writer's code.
ReadBack ReadGreyPng(const std::filesystem::path& path)
{
    ReadBack out;
    std::FILE* file = std::fopen(path.c_str(), "rb");
    if (file == nullptr)
        return out;
    png_structp png = png_create_read_struct(PNG_LIBPNG_VER_STRING, nullptr, nullptr, nullptr);
    png_infop info = png_create_info_struct(png);
    std::vector<png_byte> bytes;
    if (setjmp(png_jmpbuf(png)) == 0) {
        png_init_io(png, file);
        png_read_info(png, info);
        out.width = png_get_image_width(png, info);
        out.height = png_get_image_height(png, info);
        out.bitDepth = png_get_bit_depth(png, info);
        out.colourType = png_get_color_type(png, info);
        const std::size_t rowBytes = png_get_rowbytes(png, info);
        bytes.resize(rowBytes * out.height);
        std::vector<png_bytep> rows(out.height);
        for (png_uint_32 y = 0; y < out.height; ++y)
            rows[y] = bytes.data() + y * rowBytes;
        png_read_image(png, rows.data());
        for (std::size_t i = 0; i < bytes.size(); i += static_cast<std::size_t>(out.bitDepth / 8))
            out.samples.push_back(out.bitDepth == 16 ? static_cast<std::uint16_t>(bytes[i] << 8 | bytes[i + 1]) : bytes[i]);
    }
    png_destroy_read_struct(&png, &info, nullptr);
    std::fclose(file);
    return out;
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

    const ReadBack eight = ReadGreyPng(m_scratch / "eight.png"), sixteen = ReadGreyPng(m_scratch / "sixteen.png");
    EXPECT_EQ(std::tuple(eight.width, eight.height, eight.bitDepth, eight.colourType),
              std::tuple(png_uint_32{w}, png_uint_32{h}, 8, PNG_COLOR_TYPE_GRAY));
    EXPECT_EQ(sixteen.bitDepth, 16);
    EXPECT_EQ(eight.samples, std::vector<std::uint16_t>(grey8.begin(), grey8.end()));
    EXPECT_EQ(sixteen.samples, grey16);
    EXPECT_EQ(FileCount(), 2);  // no temporary file left beside them
}

TEST_F(PngWriterTest, FailuresNameTheFileAndLeaveNothingBehind)
{
    const std::vector<std::uint8_t> pixels(4, 1);
    const auto messageOf = [&](const std::filesystem::path& path, std::int32_t w, std::int32_t h) -> std::string {
        try {
            WriteGreyPng(path, w, h, std::span<const std::uint8_t>(pixels));
        } catch (const Axr::PngError& error) {
            return error.what();
        }
        return "no error";
    };
    const auto missing = m_scratch / "no-such-folder" / "a.png";
    EXPECT_EQ(messageOf(missing, 2, 2), "cannot write " + missing.string() + ": No such file or directory");
    EXPECT_EQ(messageOf(m_scratch / "b.png", 3, 2), "cannot write " + (m_scratch / "b.png").string() +
                                                       ": 4 pixels given for 3 x 2");
    EXPECT_EQ(messageOf(m_scratch / "c.png", 0, 4), "cannot write " + (m_scratch / "c.png").string() +
                                                       ": empty picture (0 x 4)");
    // A folder in the way of the rename: the temporary file must go too.
    std::filesystem::create_directories(m_scratch / "d.png" / "occupied");
    EXPECT_NE(messageOf(m_scratch / "d.png", 2, 2), "no error");
    EXPECT_EQ(FileCount(), 1);
}

}  // namespace
