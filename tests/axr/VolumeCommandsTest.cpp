#include "AxrTestSupport.h"

#include "ax/primitives/Matrix44.h"
#include "ax/rendering/Initializer.h"
#include "ax/rendering/MemoryRasterImage.h"
#include "ax/rendering/MprRenderer.h"

#include <gtest/gtest.h>

namespace {

using namespace AxrTest;
using Ax::Primitives::GrayscalePixelFormat;
using Ax::Primitives::Size;
using Ax::Rendering::MemoryRasterImage;
using Ax::Rendering::ProjectionMode;
using VolumeCommandsTest = ScratchTest;

// Values that vary along every axis and, for signed data, go negative, so a swapped
// byte order or a lost sign changes the picture.
constexpr std::int32_t kWidth = 24, kHeight = 16, kDepth = 8;

std::uint16_t ValueAt(bool isSigned, std::int32_t i)
{
    const std::int32_t x = i % kWidth, y = i / kWidth % kHeight, z = i / (kWidth * kHeight);
    const std::int32_t value = x * 37 + y * 101 + z * 509 + (x * y) % 7;
    return static_cast<std::uint16_t>(isSigned ? value - 2000 : value + 300);
}

std::vector<std::uint16_t> ReadLittleEndian(const std::string& bytes)
{
    std::vector<std::uint16_t> values(bytes.size() / 2);
    std::memcpy(values.data(), bytes.data(), values.size() * 2);  // the test hosts are little-endian
    return values;
}

// The library's own render of the test volume on a canvas of kWidth x kWidth: the
// volume fits at one voxel per pixel, shifted down by (kWidth - kHeight) / 2 rows.
std::vector<std::uint16_t> LibraryAxial(bool isSigned, double z, ProjectionMode mode, std::int32_t slices)
{
    Ax::Rendering::Initializer::Initialize();
    Ax::Rendering::ImageStack stack;
    for (std::int32_t k = 0; k < kDepth; ++k) {
        auto slice = std::make_shared<MemoryRasterImage>();
        slice->Resize(GrayscalePixelFormat(2, isSigned), Size(kWidth, kHeight));
        for (std::int32_t i = 0; i < kWidth * kHeight; ++i) {
            const std::uint16_t value = ValueAt(isSigned, k * kWidth * kHeight + i);
            std::memcpy(slice->GetPixelAddress(i % kWidth, i / kWidth), &value, 2);
        }
        EXPECT_TRUE(stack.InsertImage(slice, k));
    }
    Ax::Primitives::Matrix44 volumeToView;
    volumeToView(1, 3) = (kWidth - kHeight) / 2.0;
    volumeToView(2, 3) = -z;
    MemoryRasterImage canvas;
    canvas.Resize(GrayscalePixelFormat::Gray16(), Size(kWidth, kWidth));
    Ax::Rendering::MprRenderer(Ax::Rendering::InterpolationMode::TriLinear)
        .Render(stack, isSigned ? 0x8000 : 0xFFFF, volumeToView, mode, slices, 1.0f, canvas, nullptr);
    std::vector<std::uint16_t> pixels(kWidth * kWidth);
    for (std::int32_t y = 0; y < kWidth; ++y)
        std::memcpy(pixels.data() + y * kWidth, canvas.GetPixelAddress(0, y), kWidth * 2);
    return pixels;
}

// The same samples in every format the tool reads: its output must be the library's
// canvas for them, bit for bit, and the format only a way in.
TEST_F(VolumeCommandsTest, EveryFormatRendersAsTheLibraryRendersItsStack)
{
    const struct {
        bool isSigned, bigEndian;
        const char *file, *header, *options;  // header: before the samples; null for raw and NIfTI
        double z;
        ProjectionMode mode;
        std::int32_t slices;
    } cases[] = {
        {false, false, "v.raw", nullptr, "--dims 24x16x8 --type u16", kDepth / 2, ProjectionMode::Maximum, 1},
        {true, true, "v.raw", nullptr, "--dims 24x16x8 --type i16 --endian big --position 3 --mode mean --slices 3", 3,
         ProjectionMode::Average, 3},
        {true, false, "v.nrrd",
         "NRRD0004\ntype: short\ndimension: 3\nsizes: 24 16 8\nspacings: 1 1 1\nendian: little\nencoding: raw\n\n",
         "--position 6 --mode minip --slices 5", 6, ProjectionMode::Minimum, 5},
        {false, true, "v.mha",
         "NDims = 3\nDimSize = 24 16 8\nElementType = MET_USHORT\nBinaryDataByteOrderMSB = True\n"
         "ElementDataFile = LOCAL\n",
         "--position 2 --thickness 2", 2, ProjectionMode::Maximum, 3},
        {true, false, "v.nii", nullptr, "--position 5", 5, ProjectionMode::Maximum, 1},
        {true, false, "series", nullptr, "--position 4 --mode mean --slices 3", 4, ProjectionMode::Average, 3},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.options);
        Bytes samples;
        for (std::int32_t i = 0; i < kWidth * kHeight * kDepth; ++i) {
            const std::uint16_t value = ValueAt(c.isSigned, i);
            const auto high = static_cast<std::byte>(value >> 8), low = static_cast<std::byte>(value & 0xFF);
            samples.insert(samples.end(), {c.bigEndian ? high : low, c.bigEndian ? low : high});
        }
        const std::string file(c.file);
        if (file == "series") {
            // Written in reverse z order: the reader sorts by position, not by name.
            std::filesystem::create_directories(m_scratch / file);
            for (std::int32_t k = 0; k < kDepth; ++k) {
                const auto value = [k](int x, int y) { return ValueAt(true, (k * kHeight + y) * kWidth + x); };
                // Not CT: the values stay as written, signed.
                WriteDicom(m_scratch / file / ("s" + std::to_string(kDepth - k)),
                           {.modality = "MR", .width = kWidth, .height = kHeight, .pixelRepresentation = 1,
                            .position = std::array<double, 3>{0, 0, 10.0 + k}, .pixelSpacing = "1\\1", .value = value});
            }
        } else {
            WriteFile(m_scratch / file, file == "v.nii" ? Nifti({kWidth, kHeight, kDepth}, 4, 16, samples, 0, 0, {1, 1, 1})
                                        : c.header   ? Join(c.header, samples)
                                                     : samples);
        }
        const ToolRun run = RunAxr("mpr " + file + " " + c.options + " --view axial --size 24x24 --out plane.raw",
                                   m_scratch);
        ASSERT_EQ(run.status, 0) << run.err;
        const auto expected = LibraryAxial(c.isSigned, c.z, c.mode, c.slices);
        EXPECT_EQ(ReadLittleEndian(Slurp(m_scratch / "plane.raw")), expected);
        EXPECT_NE(expected[kWidth * kWidth / 2], expected.front());  // the volume is in the picture, beside margins
    }
    // The range shows whether both the byte order and the sign held.
    const ToolRun info = RunAxr("info v.raw --dims 24x16x8 --type i16 --endian big", m_scratch);
    ASSERT_EQ(info.status, 0) << info.err;
    for (const char* line : {"24 x 16 x 8", "z         0 .. 7", "values    -2000 .. 3931", "signed    yes"})
        EXPECT_TRUE(Holds(info.out, line));
}

// Slices 3 mm apart over 1 mm pixels: a coronal canvas of 1 mm pixels meets a slice
// every third row, which it would not if the tool drew voxels as cubes.
TEST_F(VolumeCommandsTest, ViewsHaveTrueProportions)
{
    Bytes samples;
    for (std::int32_t i = 0; i < 4 * 8 * 8; ++i)
        samples.insert(samples.end(), {static_cast<std::byte>(i / 64 * 100 & 0xFF), static_cast<std::byte>(i / 64 * 100 >> 8)});
    WriteFile(m_scratch / "v.nrrd", Join("NRRD0004\ntype: ushort\ndimension: 3\nsizes: 8 8 4\nspacings: 1 1 3\n"
                                         "endian: little\nencoding: raw\n\n",
                                         samples));
    const ToolRun run = RunAxr("mpr v.nrrd --view coronal --size 12x12 --out c.raw", m_scratch);
    ASSERT_EQ(run.status, 0) << run.err;
    const auto pixels = ReadLittleEndian(Slurp(m_scratch / "c.raw"));
    ASSERT_EQ(pixels.size(), 144u);
    // The 9 mm of slices fill rows 1 .. 10, head at the top; columns 2 .. 9 hold the 8 pixels.
    const std::pair<int, std::uint16_t> rows[] = {{0, 0xFFFF}, {1, 300}, {4, 200}, {7, 100}, {10, 0}, {11, 0xFFFF}};
    for (const auto& [row, value] : rows) {
        EXPECT_EQ(pixels[row * 12 + 1], 0xFFFF) << row;
        EXPECT_EQ(pixels[row * 12 + 2], value) << row;
        EXPECT_EQ(pixels[row * 12 + 5], value) << row;
    }
    EXPECT_TRUE(Holds(RunAxr("info v.nrrd", m_scratch).out, "voxel     1 x 1 mm, z unit 3 mm"));
}

TEST_F(VolumeCommandsTest, EachOutputFormatHoldsTheCanvas)
{
    ASSERT_EQ(RunAxr("mpr phantom:16 --view coronal --size 5x3 --out c.pgm", m_scratch).status, 0);
    ASSERT_EQ(RunAxr("mpr phantom:16 --view coronal --size 5x3 --out c.raw", m_scratch).status, 0);
    const std::string pgm = Slurp(m_scratch / "c.pgm"), raw = Slurp(m_scratch / "c.raw");
    ASSERT_EQ(raw.size(), 5u * 3u * 2u);
    EXPECT_NE(raw.substr(0, 2), raw.substr(14, 2)) << "the centre should differ from the air at the corner";
    std::string swapped = raw;
    for (std::size_t i = 0; i < swapped.size(); i += 2)
        std::swap(swapped[i], swapped[i + 1]);
    EXPECT_EQ(pgm, "P5\n5 3\n65535\n" + swapped);

    const ToolRun run = RunAxr("mpr phantom:32 --bits 16 --repeat 3 --out s16.png", m_scratch);
    ASSERT_EQ(run.status, 0) << run.err;
    EXPECT_TRUE(Holds(run.out, "median"));
    EXPECT_EQ(Slurp(m_scratch / "s16.png").substr(1, 3), "PNG");
    EXPECT_EQ(FileCount(), 5);  // no temporary file beside the pictures and the captured streams
}

}  // namespace
