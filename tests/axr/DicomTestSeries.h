#pragma once

// Writes small DICOM slices through GDCM, for the tests of the series reader and of
// the command line.

#include <gdcmDataSet.h>
#include <gdcmFile.h>
#include <gdcmImageChangeTransferSyntax.h>
#include <gdcmImageReader.h>
#include <gdcmImageWriter.h>
#include <gdcmUIDGenerator.h>
#include <gdcmWriter.h>
#include <gtest/gtest.h>

#include <array>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

namespace AxrTest {

inline const std::string kSeriesA = "2.25.1001";
inline const std::string kSeriesB = "2.25.1002";

/// One slice file. The defaults make an axial unsigned 16-bit CT slice of 4 x 3
/// pixels at the origin in series A, without rescale and padding.
struct DicomSlice {
    std::string seriesUid = kSeriesA;
    std::string modality = "CT";
    std::string photometric = "MONOCHROME2";
    std::int32_t width = 4, height = 3, samplesPerPixel = 1;
    std::int32_t bitsAllocated = 16, bitsStored = 16, pixelRepresentation = 0;
    bool hasImage = true;  // false: no Rows, Columns or pixel data, like a report
    std::optional<std::array<double, 3>> position = std::array<double, 3>{0, 0, 0};
    std::optional<std::array<double, 6>> orientation = std::array<double, 6>{1, 0, 0, 0, 1, 0};
    std::string pixelSpacing = "0.5\\0.75";  // empty for none
    std::optional<std::array<double, 2>> rescale;  // slope, intercept
    std::optional<std::uint16_t> padding;
    /// The sample at (x, y), written as its low bitsAllocated bits; empty for x + 10 y.
    std::function<std::int64_t(int x, int y)> value;
};

enum class DicomEncoding { ExplicitLittle, ImplicitLittle, ExplicitBig, Rle, JpegLsLossless };

namespace Detail {

inline std::string DecimalList(const auto& numbers)
{
    std::ostringstream text;
    text.precision(17);
    for (std::size_t i = 0; i < numbers.size(); ++i)
        text << (i ? "\\" : "") << numbers[i];
    return text.str();
}

inline void Put(gdcm::DataSet& dataSet, std::uint16_t group, std::uint16_t element, gdcm::VR vr, std::string value)
{
    if (value.size() % 2 != 0)
        value.push_back(vr == gdcm::VR::UI ? '\0' : ' ');
    gdcm::DataElement field(gdcm::Tag(group, element));
    field.SetVR(vr);
    field.SetByteValue(value.data(), static_cast<std::uint32_t>(value.size()));
    dataSet.Replace(field);
}

inline void Put16(gdcm::DataSet& dataSet, std::uint16_t group, std::uint16_t element, gdcm::VR vr, std::uint16_t value)
{
    Put(dataSet, group, element, vr, std::string(reinterpret_cast<const char*>(&value), 2));
}

}  // namespace Detail

/// Writes `slice` to `path`, uncompressed in explicit little endian unless told
/// otherwise; the other encodings are converted by GDCM from that file.
inline void WriteDicom(const std::filesystem::path& path, const DicomSlice& slice,
                       DicomEncoding encoding = DicomEncoding::ExplicitLittle)
{
    using Detail::Put;
    using Detail::Put16;
    using gdcm::VR;
    gdcm::Writer writer;
    gdcm::DataSet& data = writer.GetFile().GetDataSet();
    const char* sopClass = slice.modality == "CT"   ? "1.2.840.10008.5.1.4.1.1.2"
                           : slice.modality == "MR" ? "1.2.840.10008.5.1.4.1.1.4"
                                                    : "1.2.840.10008.5.1.4.1.1.7";
    gdcm::UIDGenerator uids;
    Put(data, 0x0008, 0x0016, VR::UI, sopClass);
    Put(data, 0x0008, 0x0018, VR::UI, uids.Generate());
    Put(data, 0x0008, 0x0060, VR::CS, slice.modality);
    Put(data, 0x0020, 0x000D, VR::UI, "2.25.1000");
    Put(data, 0x0020, 0x000E, VR::UI, slice.seriesUid);
    if (slice.position)
        Put(data, 0x0020, 0x0032, VR::DS, Detail::DecimalList(*slice.position));
    if (slice.orientation)
        Put(data, 0x0020, 0x0037, VR::DS, Detail::DecimalList(*slice.orientation));
    if (slice.hasImage) {
        Put16(data, 0x0028, 0x0002, VR::US, static_cast<std::uint16_t>(slice.samplesPerPixel));
        Put(data, 0x0028, 0x0004, VR::CS, slice.photometric);
        Put16(data, 0x0028, 0x0010, VR::US, static_cast<std::uint16_t>(slice.height));
        Put16(data, 0x0028, 0x0011, VR::US, static_cast<std::uint16_t>(slice.width));
        if (!slice.pixelSpacing.empty())
            Put(data, 0x0028, 0x0030, VR::DS, slice.pixelSpacing);
        Put16(data, 0x0028, 0x0100, VR::US, static_cast<std::uint16_t>(slice.bitsAllocated));
        Put16(data, 0x0028, 0x0101, VR::US, static_cast<std::uint16_t>(slice.bitsStored));
        Put16(data, 0x0028, 0x0102, VR::US, static_cast<std::uint16_t>(slice.bitsStored - 1));
        Put16(data, 0x0028, 0x0103, VR::US, static_cast<std::uint16_t>(slice.pixelRepresentation));
        if (slice.padding)
            Put16(data, 0x0028, 0x0120, slice.pixelRepresentation ? VR::SS : VR::US, *slice.padding);
        if (slice.rescale) {
            Put(data, 0x0028, 0x1052, VR::DS, Detail::DecimalList(std::array{(*slice.rescale)[1]}));
            Put(data, 0x0028, 0x1053, VR::DS, Detail::DecimalList(std::array{(*slice.rescale)[0]}));
        }
        const int size = slice.bitsAllocated / 8;
        std::string pixels;
        for (int y = 0; y < slice.height; ++y)
            for (int x = 0; x < slice.width; ++x)
                for (int s = 0; s < slice.samplesPerPixel; ++s) {
                    const auto sample = static_cast<std::uint64_t>(slice.value ? slice.value(x, y) : x + 10 * y);
                    for (int b = 0; b < size; ++b)  // little endian, two's complement
                        pixels.push_back(static_cast<char>(sample >> (8 * b) & 0xFF));
                }
        Put(data, 0x7FE0, 0x0010, size == 1 ? VR::OB : VR::OW, pixels);
    }
    writer.GetFile().GetHeader().SetDataSetTransferSyntax(gdcm::TransferSyntax::ExplicitVRLittleEndian);
    writer.SetFileName(path.c_str());
    ASSERT_TRUE(writer.Write()) << path;
    if (encoding == DicomEncoding::ExplicitLittle)
        return;

    gdcm::ImageReader reader;
    reader.SetFileName(path.c_str());
    ASSERT_TRUE(reader.Read()) << path;
    gdcm::ImageChangeTransferSyntax change;
    change.SetTransferSyntax(encoding == DicomEncoding::ImplicitLittle ? gdcm::TransferSyntax::ImplicitVRLittleEndian
                             : encoding == DicomEncoding::ExplicitBig  ? gdcm::TransferSyntax::ExplicitVRBigEndian
                             : encoding == DicomEncoding::Rle          ? gdcm::TransferSyntax::RLELossless
                                                                       : gdcm::TransferSyntax::JPEGLSLossless);
    change.SetInput(reader.GetImage());
    ASSERT_TRUE(change.Change()) << path;
    gdcm::ImageWriter converted;
    converted.SetFile(reader.GetFile());
    converted.SetImage(change.GetOutput());
    converted.SetFileName(path.c_str());
    ASSERT_TRUE(converted.Write()) << path;
}

}  // namespace AxrTest
