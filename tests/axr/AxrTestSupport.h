#pragma once

// What the tool's tests share: a scratch folder per test, running the built tool,
// and writers of small volume files in the formats it reads.

#include "VolumeInput.h"

#include "ax/rendering/ImageStack.h"
#include "ax/rendering/RasterImage.h"

#include <gdcmImageChangeTransferSyntax.h>
#include <gdcmImageReader.h>
#include <gdcmImageWriter.h>
#include <gdcmUIDGenerator.h>
#include <gdcmWriter.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>
#include <zlib.h>

#include <array>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

namespace AxrTest {

using Bytes = std::vector<std::byte>;

[[nodiscard]] inline std::string Slurp(const std::filesystem::path& path)
{
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

inline void WriteFile(const std::filesystem::path& path, const auto& bytes)
{
    std::ofstream(path, std::ios::binary)
        .write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
}

inline ::testing::AssertionResult Holds(const std::string& text, const std::string& part)
{
    if (text.find(part) != std::string::npos)
        return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << "'" << part << "' is not in:\n" << text;
}

/// The 16-bit stack value at (x, y) of image k, read with the stack's signedness.
[[nodiscard]] inline std::int32_t Voxel(const Ax::Rendering::ImageStack& stack, std::int32_t k, std::int32_t x,
                                        std::int32_t y)
{
    std::uint16_t raw;
    std::memcpy(&raw, stack[k].Image()->GetPixelAddress(x, y), sizeof raw);
    return stack.PixelFormat()->IsSigned() ? static_cast<std::int16_t>(raw) : raw;
}

[[nodiscard]] inline Axr::Volume Load(const std::filesystem::path& input)
{
    Axr::VolumeSource source;
    source.input = input.string();
    return Axr::LoadVolume("test", source);
}

struct ToolRun {
    int status = -1;
    std::string out, err;
};

/// Runs the built tool through the shell in `folder`, its streams captured in files there.
[[nodiscard]] inline ToolRun RunAxr(const std::string& arguments, const std::filesystem::path& folder)
{
    const auto outFile = folder / "stdout.txt", errFile = folder / "stderr.txt";
    const std::string command = "cd '" + folder.string() + "' && '" + AXR_EXECUTABLE + "' " + arguments + " >'" +
                                outFile.string() + "' 2>'" + errFile.string() + "'";
    const int raw = std::system(command.c_str());
    return {WIFEXITED(raw) ? WEXITSTATUS(raw) : -1, Slurp(outFile), Slurp(errFile)};
}

/// A fixture with an empty folder of its own for each test, gone afterwards.
class ScratchTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        const auto* test = ::testing::UnitTest::GetInstance()->current_test_info();
        m_scratch = std::filesystem::temp_directory_path() / ("axr-test-" + std::to_string(getpid()) + "-" +
                                                              test->test_suite_name() + "-" + test->name());
        Empty();
    }
    void TearDown() override { std::filesystem::remove_all(m_scratch); }
    void Empty() const
    {
        std::filesystem::remove_all(m_scratch);
        std::filesystem::create_directories(m_scratch);
    }
    // Counts the captured output streams too.
    [[nodiscard]] std::ptrdiff_t FileCount() const { return std::distance(std::filesystem::directory_iterator(m_scratch), {}); }

    std::filesystem::path m_scratch;
};

template <typename T>
void Put(Bytes& bytes, std::size_t offset, T value)
{
    std::memcpy(bytes.data() + offset, &value, sizeof value);
}

// A zlib stream, or a gzip one with `gzip`.
[[nodiscard]] inline Bytes Deflate(const Bytes& data, bool gzip)
{
    z_stream z{};
    EXPECT_EQ(deflateInit2(&z, Z_BEST_SPEED, Z_DEFLATED, gzip ? 31 : 15, 8, Z_DEFAULT_STRATEGY), Z_OK);
    Bytes out(deflateBound(&z, data.size()) + 32);
    z.next_in = reinterpret_cast<Bytef*>(const_cast<std::byte*>(data.data()));
    z.avail_in = static_cast<uInt>(data.size());
    z.next_out = reinterpret_cast<Bytef*>(out.data());
    z.avail_out = static_cast<uInt>(out.size());
    EXPECT_EQ(deflate(&z, Z_FINISH), Z_STREAM_END);
    out.resize(z.total_out);
    deflateEnd(&z);
    return out;
}

[[nodiscard]] inline Bytes Join(const std::string& header, const Bytes& data)
{
    Bytes bytes(reinterpret_cast<const std::byte*>(header.data()),
                reinterpret_cast<const std::byte*>(header.data() + header.size()));
    bytes.insert(bytes.end(), data.begin(), data.end());
    return bytes;
}

// A NIfTI-1 header (native byte order) before the samples, vox_offset 352.
[[nodiscard]] inline Bytes Nifti(std::array<std::int16_t, 3> size, std::int16_t datatype, std::int16_t bitpix,
                                 const Bytes& samples, float slope = 0, float intercept = 0,
                                 std::array<float, 3> voxel = {0.75f, 0.75f, 2.5f})
{
    Bytes bytes(352);
    Put<std::int32_t>(bytes, 0, 348);
    Put(bytes, 40, std::array<std::int16_t, 8>{3, size[0], size[1], size[2], 1, 1, 1, 1});
    Put(bytes, 70, std::array{datatype, bitpix});
    Put(bytes, 76, std::array{1.0f, voxel[0], voxel[1], voxel[2]});
    Put(bytes, 108, std::array{352.0f, slope, intercept});
    std::memcpy(bytes.data() + 344, "n+1", 4);
    bytes.insert(bytes.end(), samples.begin(), samples.end());
    return bytes;
}

/// One DICOM slice file. The defaults make an axial unsigned 16-bit CT slice of 4 x 3
/// pixels at the origin, without rescale and padding.
struct DicomSlice {
    std::string seriesUid = "2.25.1001", modality = "CT", photometric = "MONOCHROME2";
    std::int32_t width = 4, height = 3, samplesPerPixel = 1;
    std::int32_t bitsAllocated = 16, bitsStored = 16, pixelRepresentation = 0;
    bool hasImage = true;  // false: no Rows, Columns or pixel data, like a report
    std::optional<std::array<double, 3>> position = std::array<double, 3>{0, 0, 0};
    std::optional<std::array<double, 6>> orientation = std::array<double, 6>{1, 0, 0, 0, 1, 0};
    std::string pixelSpacing = "0.5\\0.75";  // empty for none
    std::optional<std::array<double, 2>> rescale{};  // slope, intercept
    std::optional<std::uint16_t> padding{};
    /// The sample at (x, y), written as its low bitsAllocated bits; empty for x + 10 y.
    std::function<std::int64_t(int x, int y)> value{};
};

using DicomSyntax = gdcm::TransferSyntax;

/// Writes `slice` to `path` in explicit little endian; GDCM converts that file to the
/// other encodings.
inline void WriteDicom(const std::filesystem::path& path, const DicomSlice& slice,
                       DicomSyntax::TSType encoding = DicomSyntax::ExplicitVRLittleEndian)
{
    using gdcm::VR;
    gdcm::Writer writer;
    gdcm::DataSet& data = writer.GetFile().GetDataSet();
    const auto put = [&](std::uint16_t group, std::uint16_t element, VR vr, std::string value) {
        if (value.size() % 2 != 0)
            value.push_back(vr == VR::UI ? '\0' : ' ');
        gdcm::DataElement field(gdcm::Tag(group, element));
        field.SetVR(vr);
        field.SetByteValue(value.data(), static_cast<std::uint32_t>(value.size()));
        data.Replace(field);
    };
    const auto put16 = [&](std::uint16_t element, VR vr, std::int32_t value) {
        const auto word = static_cast<std::uint16_t>(value);
        put(0x0028, element, vr, std::string(reinterpret_cast<const char*>(&word), 2));
    };
    const auto decimals = [](const auto& numbers) {
        std::ostringstream text;
        text.precision(17);
        for (std::size_t i = 0; i < numbers.size(); ++i)
            text << (i ? "\\" : "") << numbers[i];
        return text.str();
    };
    put(0x0008, 0x0016, VR::UI, "1.2.840.10008.5.1.4.1.1.2");
    put(0x0008, 0x0018, VR::UI, gdcm::UIDGenerator().Generate());
    put(0x0008, 0x0060, VR::CS, slice.modality);
    put(0x0020, 0x000D, VR::UI, "2.25.1000");
    put(0x0020, 0x000E, VR::UI, slice.seriesUid);
    if (slice.position)
        put(0x0020, 0x0032, VR::DS, decimals(*slice.position));
    if (slice.orientation)
        put(0x0020, 0x0037, VR::DS, decimals(*slice.orientation));
    if (slice.hasImage) {
        put16(0x0002, VR::US, slice.samplesPerPixel);
        put(0x0028, 0x0004, VR::CS, slice.photometric);
        put16(0x0010, VR::US, slice.height);
        put16(0x0011, VR::US, slice.width);
        if (!slice.pixelSpacing.empty())
            put(0x0028, 0x0030, VR::DS, slice.pixelSpacing);
        put16(0x0100, VR::US, slice.bitsAllocated);
        put16(0x0101, VR::US, slice.bitsStored);
        put16(0x0102, VR::US, slice.bitsStored - 1);
        put16(0x0103, VR::US, slice.pixelRepresentation);
        if (slice.padding)
            put16(0x0120, slice.pixelRepresentation ? VR::SS : VR::US, *slice.padding);
        if (slice.rescale) {
            put(0x0028, 0x1052, VR::DS, decimals(std::array{(*slice.rescale)[1]}));
            put(0x0028, 0x1053, VR::DS, decimals(std::array{(*slice.rescale)[0]}));
        }
        std::string pixels;
        for (int y = 0; y < slice.height; ++y)
            for (int x = 0; x < slice.width * slice.samplesPerPixel; ++x) {
                const auto sample = static_cast<std::uint64_t>(
                    slice.value ? slice.value(x / slice.samplesPerPixel, y) : x / slice.samplesPerPixel + 10 * y);
                for (int b = 0; b < slice.bitsAllocated / 8; ++b)  // little endian, two's complement
                    pixels.push_back(static_cast<char>(sample >> (8 * b) & 0xFF));
            }
        put(0x7FE0, 0x0010, slice.bitsAllocated == 8 ? VR::OB : VR::OW, pixels);
    }
    writer.GetFile().GetHeader().SetDataSetTransferSyntax(DicomSyntax::ExplicitVRLittleEndian);
    writer.SetFileName(path.c_str());
    ASSERT_TRUE(writer.Write()) << path;
    if (encoding == DicomSyntax::ExplicitVRLittleEndian)
        return;

    gdcm::ImageReader reader;
    reader.SetFileName(path.c_str());
    ASSERT_TRUE(reader.Read()) << path;
    gdcm::ImageChangeTransferSyntax change;
    change.SetTransferSyntax(encoding);
    change.SetInput(reader.GetImage());
    ASSERT_TRUE(change.Change()) << path;
    gdcm::ImageWriter converted;
    converted.SetFile(reader.GetFile());
    converted.SetImage(change.GetOutput());
    converted.SetFileName(path.c_str());
    ASSERT_TRUE(converted.Write()) << path;
}

}  // namespace AxrTest
