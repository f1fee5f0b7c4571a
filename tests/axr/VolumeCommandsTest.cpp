#include "AxrTestSupport.h"
#include "DicomTestSeries.h"
#include "TestVolumeFiles.h"

#include "ax/primitives/Matrix44.h"
#include "ax/rendering/ImageStack.h"
#include "ax/rendering/Initializer.h"
#include "ax/rendering/MemoryRasterImage.h"
#include "ax/rendering/MprRenderer.h"

#include <gtest/gtest.h>

#include <sys/wait.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

namespace {

using Ax::Primitives::GrayscalePixelFormat;
using Ax::Primitives::Matrix44;
using Ax::Primitives::Size;
using Ax::Rendering::ImageStack;
using Ax::Rendering::MemoryRasterImage;
using Ax::Rendering::MprRenderer;
using Ax::Rendering::ProjectionMode;

using AxrTest::RunAxr;
using AxrTest::Slurp;
using AxrTest::ToolRun;

// A small volume whose values vary along every axis and, for signed data, go
// negative, so a swapped byte order or a lost sign changes the picture.
constexpr std::int32_t kWidth = 24, kHeight = 16, kDepth = 8;

std::vector<std::uint16_t> TestVolume(bool isSigned)
{
    std::vector<std::uint16_t> values;
    for (std::int32_t z = 0; z < kDepth; ++z)
        for (std::int32_t y = 0; y < kHeight; ++y)
            for (std::int32_t x = 0; x < kWidth; ++x) {
                const std::int32_t value = x * 37 + y * 101 + z * 509 + (x * y) % 7;
                values.push_back(static_cast<std::uint16_t>(isSigned ? value - 2000 : value + 300));
            }
    return values;
}

void WriteRaw(const std::filesystem::path& path, const std::vector<std::uint16_t>& values, bool bigEndian)
{
    std::ofstream out(path, std::ios::binary);
    for (const std::uint16_t value : values) {
        const char high = static_cast<char>(value >> 8), low = static_cast<char>(value & 0xFF);
        out.put(bigEndian ? high : low).put(bigEndian ? low : high);
    }
}

std::vector<std::uint16_t> ReadLittleEndian(const std::string& bytes)
{
    std::vector<std::uint16_t> values(bytes.size() / 2);
    for (std::size_t i = 0; i < values.size(); ++i)
        values[i] = static_cast<std::uint16_t>(static_cast<std::uint8_t>(bytes[2 * i]) |
                                               static_cast<std::uint8_t>(bytes[2 * i + 1]) << 8);
    return values;
}

// The library's own render of the test volume on a canvas of kWidth x kWidth: the
// volume fits at one voxel per pixel, so the axial plane at slice `z` is the volume
// shifted down by the (kWidth - kHeight) / 2 rows of margin.
std::vector<std::uint16_t> LibraryAxial(const std::vector<std::uint16_t>& values, bool isSigned, double z,
                                        ProjectionMode mode, std::int32_t slices, std::uint16_t undefined)
{
    Ax::Rendering::Initializer::Initialize();
    ImageStack stack;
    for (std::int32_t k = 0; k < kDepth; ++k) {
        auto slice = std::make_shared<MemoryRasterImage>();
        slice->Resize(GrayscalePixelFormat(2, isSigned), Size(kWidth, kHeight));
        for (std::int32_t y = 0; y < kHeight; ++y)
            std::memcpy(slice->GetPixelAddress(0, y), values.data() + (k * kHeight + y) * kWidth, kWidth * 2);
        EXPECT_TRUE(stack.InsertImage(slice, k));
    }
    Matrix44 volumeToView;
    volumeToView(1, 3) = (kWidth - kHeight) / 2.0;
    volumeToView(2, 3) = -z;
    MemoryRasterImage canvas;
    canvas.Resize(GrayscalePixelFormat::Gray16(), Size(kWidth, kWidth));
    MprRenderer renderer(Ax::Rendering::InterpolationMode::TriLinear);
    renderer.Render(stack, undefined, volumeToView, mode, slices, 1.0f, canvas, nullptr);
    std::vector<std::uint16_t> pixels(kWidth * kWidth);
    for (std::int32_t y = 0; y < kWidth; ++y)
        std::memcpy(pixels.data() + y * kWidth, canvas.GetPixelAddress(0, y), kWidth * 2);
    return pixels;
}

class VolumeCommandsTest : public AxrTest::ScratchTest {
protected:
    // Files in the scratch folder other than the captured output streams.
    [[nodiscard]] std::vector<std::string> OtherFiles(const std::vector<std::string>& expected) const
    {
        std::vector<std::string> names;
        for (const auto& entry : std::filesystem::directory_iterator(m_scratch)) {
            const std::string name = entry.path().filename().string();
            if (name != "stdout.txt" && name != "stderr.txt" &&
                std::find(expected.begin(), expected.end(), name) == expected.end())
                names.push_back(name);
        }
        return names;
    }
};

void ExpectOneLine(const ToolRun& run)
{
    ASSERT_FALSE(run.err.empty());
    EXPECT_EQ(run.err.find('\n'), run.err.size() - 1) << run.err;
}

// The same samples in every format the tool reads: its output must be the library's
// canvas for them, bit for bit, and the format only a way in.
TEST_F(VolumeCommandsTest, EveryFormatRendersAsTheLibraryRendersItsStack)
{
    struct Case {
        bool isSigned, bigEndian;
        const char* file;
        const char* header;  // before the samples; null for raw and NIfTI
        const char* options;
        double z;
        ProjectionMode mode;
        std::int32_t slices;
    };
    const Case cases[] = {
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
    for (const Case& c : cases) {
        SCOPED_TRACE(c.options);
        const auto values = TestVolume(c.isSigned);
        AxrTest::Bytes samples(values.size() * 2);
        for (std::size_t i = 0; i < values.size(); ++i) {
            samples[2 * i + (c.bigEndian ? 1 : 0)] = static_cast<std::byte>(values[i] & 0xFF);
            samples[2 * i + (c.bigEndian ? 0 : 1)] = static_cast<std::byte>(values[i] >> 8);
        }
        const std::string file(c.file);
        if (file == "series") {
            // Written in reverse z order: the reader sorts by position, not by name.
            std::filesystem::create_directories(m_scratch / file);
            for (std::int32_t k = 0; k < kDepth; ++k) {
                AxrTest::DicomSlice slice;
                slice.modality = "MR";  // not CT: values stay as written, signed
                slice.width = kWidth;
                slice.height = kHeight;
                slice.pixelRepresentation = 1;
                slice.pixelSpacing = "1\\1";
                slice.position = std::array<double, 3>{0, 0, 10.0 + k};
                slice.value = [&, k](int x, int y) {
                    return static_cast<std::int16_t>(values[static_cast<std::size_t>((k * kHeight + y) * kWidth + x)]);
                };
                AxrTest::WriteDicom(m_scratch / file / ("s" + std::to_string(kDepth - k)), slice,
                                    AxrTest::DicomEncoding::ExplicitLittle);
            }
        } else {
            AxrTest::WriteFile<std::byte>(m_scratch / file,
                       file == "v.nii" ? AxrTest::Nifti({kWidth, kHeight, kDepth}, 4, 16, samples, 0, 0, {1, 1, 1})
                       : c.header != nullptr ? AxrTest::Join(c.header, samples)
                                             : samples);
        }
        const ToolRun run = RunAxr("mpr " + file + " " + c.options + " --view axial --size 24x24 --out plane.raw",
                                   m_scratch);
        ASSERT_EQ(run.status, 0) << run.err;
        const auto expected =
            LibraryAxial(values, c.isSigned, c.z, c.mode, c.slices, c.isSigned ? 0x8000 : 0xFFFF);
        EXPECT_EQ(ReadLittleEndian(Slurp(m_scratch / "plane.raw")), expected);
        // The margin rows lie outside the volume and carry the undefined mark.
        EXPECT_EQ(expected.front(), c.isSigned ? 0x8000 : 0xFFFF);
        EXPECT_NE(expected[kWidth * kWidth / 2], expected.front());
    }
}

// Slices 3 mm apart over 1 mm pixels: a coronal canvas of 1 mm pixels meets a slice
// every third row, which it would not if the tool drew voxels as cubes.
TEST_F(VolumeCommandsTest, ViewsHaveTrueProportions)
{
    AxrTest::Bytes samples;
    for (std::int32_t z = 0; z < 4; ++z)
        for (std::int32_t i = 0; i < 8 * 8; ++i) {
            samples.push_back(static_cast<std::byte>(z * 100 & 0xFF));
            samples.push_back(static_cast<std::byte>(z * 100 >> 8));
        }
    AxrTest::WriteFile<std::byte>(m_scratch / "v.nrrd",
               AxrTest::Join("NRRD0004\ntype: ushort\ndimension: 3\nsizes: 8 8 4\nspacings: 1 1 3\n"
                             "endian: little\nencoding: raw\n\n",
                             samples));
    const ToolRun run = RunAxr("mpr v.nrrd --view coronal --size 12x12 --out c.raw", m_scratch);
    ASSERT_EQ(run.status, 0) << run.err;
    const auto pixels = ReadLittleEndian(Slurp(m_scratch / "c.raw"));
    ASSERT_EQ(pixels.size(), 144u);
    // The 9 mm of slices fill rows 1 .. 10, head at the top; columns 2 .. 9 hold the 8 pixels.
    const auto at = [&](int row, int column) { return pixels[static_cast<std::size_t>(row * 12 + column)]; };
    const std::pair<int, std::uint16_t> rows[] = {{0, 0xFFFF}, {1, 300}, {4, 200}, {7, 100}, {10, 0}, {11, 0xFFFF}};
    for (const auto& [row, value] : rows) {
        SCOPED_TRACE(row);
        EXPECT_EQ(at(row, 5), value);
        EXPECT_EQ(at(row, 1), 0xFFFF);
        EXPECT_EQ(at(row, 2), value);
    }
    const ToolRun info = RunAxr("info v.nrrd", m_scratch);
    EXPECT_NE(info.out.find("voxel     1 x 1 mm, z unit 3 mm"), std::string::npos) << info.out;
}

TEST_F(VolumeCommandsTest, PgmIsTheRawCanvasBigEndianBehindItsHeader)
{
    ASSERT_EQ(RunAxr("mpr phantom:16 --view coronal --size 5x3 --out c.pgm", m_scratch).status, 0);
    ASSERT_EQ(RunAxr("mpr phantom:16 --view coronal --size 5x3 --out c.raw", m_scratch).status, 0);
    const std::string pgm = Slurp(m_scratch / "c.pgm"), raw = Slurp(m_scratch / "c.raw");
    const std::string header = "P5\n5 3\n65535\n";
    ASSERT_EQ(raw.size(), 5u * 3u * 2u);
    ASSERT_EQ(pgm.size(), header.size() + raw.size());
    EXPECT_EQ(pgm.substr(0, header.size()), header);
    std::string swapped = raw;
    for (std::size_t i = 0; i < swapped.size(); i += 2)
        std::swap(swapped[i], swapped[i + 1]);
    EXPECT_EQ(pgm.substr(header.size()), swapped);
    EXPECT_NE(raw.substr(0, 2), raw.substr(14, 2)) << "the centre should differ from the air at the corner";
    EXPECT_TRUE(OtherFiles({"c.pgm", "c.raw"}).empty());
}

TEST_F(VolumeCommandsTest, TruncatedRawExitsTwoAndWritesNothing)
{
    WriteRaw(m_scratch / "short.raw", std::vector<std::uint16_t>(50, 7), false);
    for (const char* out : {"out.png", "out.pgm", "out.raw"}) {
        const ToolRun run = RunAxr("mpr short.raw --dims 8x8x1 --type u16 --out " + std::string(out), m_scratch);
        EXPECT_EQ(run.status, 2);
        ExpectOneLine(run);
        EXPECT_NE(run.err.find("short.raw: 100 bytes of samples, expected 128 for 8x8x1 u16"), std::string::npos) << run.err;
        EXPECT_TRUE(OtherFiles({"short.raw"}).empty());
    }
}

TEST_F(VolumeCommandsTest, BadOptionsExitTwoWithOneLineAndNoFile)
{
    for (const char* arguments :
         {"--view top", "--mode avg", "--size 0x5", "--size 5", "--size 5x", "--size x5", "--window 40",
          "--window 40/0", "--position 16", "--slices 0", "--spacing -1", "--bits 12", "--dims 4x4x4",
          "--out out.jpg", "--thickness 5 --slices 3", "--normal 0,0,1 --view axial", "--up 0,0,1",
          "--matrix 1,0,0,0,0,1,0,0,0,0,1", "--matrix 1,0,0,0,0,1,0,0,1,0,0,0", "--normal 0,0,0",
          "--normal 0,0,1 --up 0,0,-2", "--threads 0", "--threads 100000", "--out"}) {
        SCOPED_TRACE(arguments);
        const ToolRun run = RunAxr("mpr phantom:16 --out out.png " + std::string(arguments), m_scratch);
        EXPECT_EQ(run.status, 2);
        EXPECT_EQ(run.out, "");
        ExpectOneLine(run);
        EXPECT_TRUE(OtherFiles({}).empty());
    }
    for (const char* arguments : {"mpr phantom:16", "mpr --out out.png", "mpr volume.raw --out o.png",
                                  "mpr volume.raw --dims 2x2 --type u16 --out o.png", "info missing.raw --dims 2x2x2 --type u16",
                                  "info phantom:8", "info"}) {
        SCOPED_TRACE(arguments);
        const ToolRun run = RunAxr(arguments, m_scratch);
        EXPECT_EQ(run.status, 2);
        ExpectOneLine(run);
    }
}

TEST_F(VolumeCommandsTest, InfoReportsDimensionsRangeAndSignedness)
{
    const ToolRun phantom = RunAxr("info phantom:32", m_scratch);
    ASSERT_EQ(phantom.status, 0) << phantom.err;
    EXPECT_NE(phantom.out.find("32 x 32 x 32"), std::string::npos) << phantom.out;
    EXPECT_NE(phantom.out.find("padding   none"), std::string::npos) << phantom.out;

    // Big-endian signed data: the range shows whether both the order and the sign held.
    const auto values = TestVolume(true);
    WriteRaw(m_scratch / "volume.raw", values, true);
    const ToolRun raw = RunAxr("info volume.raw --dims 24x16x8 --type i16 --endian big", m_scratch);
    ASSERT_EQ(raw.status, 0) << raw.err;
    const std::int32_t highest = 23 * 37 + 15 * 101 + 7 * 509 + (23 * 15) % 7 - 2000;
    EXPECT_NE(raw.out.find("24 x 16 x 8"), std::string::npos) << raw.out;
    EXPECT_NE(raw.out.find("z         0 .. 7"), std::string::npos) << raw.out;
    EXPECT_NE(raw.out.find("values    -2000 .. " + std::to_string(highest)), std::string::npos) << raw.out;
    EXPECT_NE(raw.out.find("signed    yes"), std::string::npos) << raw.out;
}

TEST_F(VolumeCommandsTest, RepeatPrintsTimesAndPngsAreWritten)
{
    const ToolRun run = RunAxr("mpr phantom:32 --view sagittal --size 64x48 --repeat 3 --out s.png", m_scratch);
    ASSERT_EQ(run.status, 0) << run.err;
    EXPECT_NE(run.out.find("median"), std::string::npos) << run.out;
    EXPECT_NE(run.out.find("lowest"), std::string::npos) << run.out;
    ASSERT_EQ(RunAxr("mpr phantom:32 --bits 16 --out s16.png", m_scratch).status, 0);
    EXPECT_TRUE(OtherFiles({"s.png", "s16.png"}).empty());
    EXPECT_EQ(Slurp(m_scratch / "s.png").substr(1, 3), "PNG");
    EXPECT_EQ(RunAxr("mpr --help", m_scratch).out.find("Examples:") != std::string::npos, true);
    EXPECT_NE(RunAxr("info --help", m_scratch).out.find("Examples:"), std::string::npos);
}

}  // namespace
