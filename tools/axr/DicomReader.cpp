#include "DicomReader.h"

#include "DicomFileCheck.h"
#include "StackBuilder.h"
#include "View.h"
#include "VolumeFile.h"

#include <gdcmDataSet.h>
#include <gdcmFile.h>
#include <gdcmImage.h>
#include <gdcmImageReader.h>
#include <gdcmReader.h>
#include <gdcmTag.h>
#include <gdcmTrace.h>
#include <gdcmTransferSyntax.h>
#include <gdcmUIDs.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <map>
#include <new>
#include <numeric>
#include <vector>

namespace Axr {

namespace {

// Runs a call into GDCM: what GDCM throws becomes an InputError, `what` followed by
// its text; our own InputErrors and a lack of memory pass through as they are.
template <typename Body>
void AsInputError(const std::string& what, Body body)
{
    try {
        body();
    } catch (const InputError&) {
        throw;
    } catch (const std::bad_alloc&) {
        throw;
    } catch (const std::exception& e) {
        throw InputError(what + ": " + e.what());
    }
}

constexpr std::size_t kMaxSlices = 16384;
// Positions written with two decimals are off by up to 0.005 mm per coordinate, so
// untilted slices can seem to shift about 0.015 mm within their plane; a gantry tilt
// of a few degrees shifts even 1 mm slices several times as far.
constexpr double kTiltTolerance = 0.02;  // mm
// Localizers and reformats in a series differ by far more; rounding of the written
// cosines by far less.
constexpr double kOrientationTolerance = 1e-3;
constexpr double kSpacingTolerance = 1e-4;  // mm

const gdcm::Tag kModality(0x0008, 0x0060);
const gdcm::Tag kSeriesDescription(0x0008, 0x103E);
const gdcm::Tag kSliceThickness(0x0018, 0x0050);
const gdcm::Tag kSpacingBetweenSlices(0x0018, 0x0088);
const gdcm::Tag kSeriesInstanceUid(0x0020, 0x000E);
const gdcm::Tag kImagePosition(0x0020, 0x0032);
const gdcm::Tag kImageOrientation(0x0020, 0x0037);
const gdcm::Tag kSamplesPerPixel(0x0028, 0x0002);
const gdcm::Tag kPhotometric(0x0028, 0x0004);
const gdcm::Tag kNumberOfFrames(0x0028, 0x0008);
const gdcm::Tag kRows(0x0028, 0x0010);
const gdcm::Tag kColumns(0x0028, 0x0011);
const gdcm::Tag kPixelSpacing(0x0028, 0x0030);
const gdcm::Tag kBitsAllocated(0x0028, 0x0100);
const gdcm::Tag kBitsStored(0x0028, 0x0101);
const gdcm::Tag kPixelRepresentation(0x0028, 0x0103);
const gdcm::Tag kPixelPaddingValue(0x0028, 0x0120);
const gdcm::Tag kRescaleIntercept(0x0028, 0x1052);
const gdcm::Tag kRescaleSlope(0x0028, 0x1053);
const gdcm::Tag kRescaleType(0x0028, 0x1054);
const gdcm::Tag kPixelData(0x7FE0, 0x0010);

// What the reader needs of one file, read without its pixel data.
struct SliceHeader {
    std::filesystem::path path;
    std::string seriesUid, modality, description, photometric, rescaleType, syntaxName;
    bool encapsulated = false;
    std::int32_t rows = 0, columns = 0, frames = 1, samplesPerPixel = 1;
    std::int32_t bitsAllocated = 0, bitsStored = 0, pixelRepresentation = 0;
    std::optional<Vec3> position;
    std::optional<std::array<double, 6>> orientation;  // row direction, then column direction
    std::optional<std::array<double, 2>> pixelSpacing;  // between rows, between columns
    std::optional<Rescale> rescale;
    std::optional<std::uint16_t> padding;  // the value's 16 bits as the file holds them
    std::optional<double> thickness;
    // Why the file's attributes cannot be used, when they cannot; an error only when
    // its series is read.
    std::string problem;
};

[[nodiscard]] std::string Number(double value)
{
    char text[32];
    std::snprintf(text, sizeof text, "%.6g", value);
    return text;
}

// "1.25" for 1250 micrometres.
[[nodiscard]] std::string Millimetres(std::int64_t microns)
{
    std::string text = std::to_string(microns / 1000);
    const std::int64_t fraction = microns % 1000;
    if (fraction == 0)
        return text;
    std::string digits = std::to_string(1000 + fraction).substr(1);
    digits.erase(digits.find_last_not_of('0') + 1);
    return text + "." + digits;
}

[[nodiscard]] std::string_view Trimmed(std::string_view text) noexcept
{
    const auto isPadding = [](char c) { return c == ' ' || c == '\0'; };
    while (!text.empty() && isPadding(text.front()))
        text.remove_prefix(1);
    while (!text.empty() && isPadding(text.back()))
        text.remove_suffix(1);
    return text;
}

[[nodiscard]] std::optional<double> DecimalValue(std::string_view text) noexcept
{
    double value = 0;
    if (!ParseNumber(Trimmed(text), value) || !std::isfinite(value))
        return std::nullopt;
    return value;
}

// The attributes of one file's data set, each read the way the reader needs it.
class Fields {
public:
    Fields(const gdcm::DataSet& dataSet, const std::string& name) noexcept : m_dataSet(dataSet), m_name(name) {}

    // Empty for a missing or empty attribute.
    [[nodiscard]] std::string Text(const gdcm::Tag& tag) const
    {
        const gdcm::ByteValue* value = Value(tag);
        return value == nullptr ? std::string()
                                : std::string(Trimmed(std::string_view(value->GetPointer(), value->GetLength())));
    }

    // GDCM hands binary values over in the machine's byte order, whatever the file's.
    [[nodiscard]] std::optional<std::uint16_t> Unsigned16(const gdcm::Tag& tag) const
    {
        const gdcm::ByteValue* value = Value(tag);
        if (value == nullptr)
            return std::nullopt;
        if (value->GetLength() < 2)
            throw InputError(m_name + ": attribute " + TagName(tag) + " holds no 16-bit value");
        std::uint16_t bits = 0;
        std::memcpy(&bits, value->GetPointer(), sizeof bits);
        return bits;
    }

    // Empty when missing; an InputError naming `what` when present but not N numbers.
    template <std::size_t N>
    [[nodiscard]] std::optional<std::array<double, N>> Numbers(const gdcm::Tag& tag, std::string_view what) const
    {
        const std::string text = Text(tag);
        if (text.empty())
            return std::nullopt;
        const auto malformed = [&] {
            return InputError(m_name + ": " + std::string(what) + " '" + text + "' is not " + std::to_string(N) +
                              (N == 1 ? " number" : " numbers"));
        };
        std::array<double, N> numbers{};
        std::size_t count = 0;
        for (std::size_t start = 0; start <= text.size(); ++start) {
            const std::size_t end = std::min(text.find('\\', start), text.size());
            const std::optional<double> number = DecimalValue(std::string_view(text).substr(start, end - start));
            if (!number || count == N)
                throw malformed();
            numbers[count++] = *number;
            start = end;
        }
        if (count != N)
            throw malformed();
        return numbers;
    }

private:
    [[nodiscard]] const gdcm::ByteValue* Value(const gdcm::Tag& tag) const
    {
        if (!m_dataSet.FindDataElement(tag))
            return nullptr;
        const gdcm::ByteValue* value = m_dataSet.GetDataElement(tag).GetByteValue();
        return value != nullptr && value->GetLength() > 0 ? value : nullptr;
    }

    [[nodiscard]] static std::string TagName(const gdcm::Tag& tag)
    {
        char text[16];
        std::snprintf(text, sizeof text, "(%04X,%04X)", tag.GetGroup(), tag.GetElement());
        return text;
    }

    const gdcm::DataSet& m_dataSet;
    const std::string& m_name;
};

[[nodiscard]] std::string SyntaxName(const gdcm::TransferSyntax& syntax)
{
    gdcm::UIDs uid;
    const char* text = syntax.GetString();
    if (text != nullptr && uid.SetFromUID(text) && uid.GetName() != nullptr)
        return uid.GetName();
    return text != nullptr ? text : "an unknown transfer syntax";
}

[[nodiscard]] std::int32_t IntegerField(const Fields& fields, const gdcm::Tag& tag, std::int32_t missing)
{
    const std::optional<std::uint16_t> value = fields.Unsigned16(tag);
    return value ? *value : missing;
}

// Everything but the size and the series, which decide whether and where the file counts.
void ReadAttributes(const Fields& fields, const gdcm::File& file, SliceHeader& header)
{
    const std::string name = header.path.string();
    header.modality = fields.Text(kModality);
    header.description = fields.Text(kSeriesDescription);
    header.photometric = fields.Text(kPhotometric);
    if (header.photometric.empty())
        header.photometric = "MONOCHROME2";
    header.rescaleType = fields.Text(kRescaleType);
    const gdcm::TransferSyntax& syntax = file.GetHeader().GetDataSetTransferSyntax();
    header.encapsulated = syntax.IsEncapsulated();
    header.syntaxName = SyntaxName(syntax);
    if (const auto frames = fields.Numbers<1>(kNumberOfFrames, "Number of Frames"))
        header.frames = static_cast<std::int32_t>(std::clamp((*frames)[0], 0.0, 1e9));
    header.samplesPerPixel = IntegerField(fields, kSamplesPerPixel, 1);
    header.bitsAllocated = IntegerField(fields, kBitsAllocated, 0);
    header.bitsStored = IntegerField(fields, kBitsStored, header.bitsAllocated);
    header.pixelRepresentation = IntegerField(fields, kPixelRepresentation, 0);
    if (const auto position = fields.Numbers<3>(kImagePosition, "Image Position (Patient)"))
        header.position = *position;
    header.orientation = fields.Numbers<6>(kImageOrientation, "Image Orientation (Patient)");
    header.pixelSpacing = fields.Numbers<2>(kPixelSpacing, "Pixel Spacing");
    if (header.pixelSpacing && ((*header.pixelSpacing)[0] <= 0 || (*header.pixelSpacing)[1] <= 0))
        throw InputError(name + ": Pixel Spacing '" + fields.Text(kPixelSpacing) + "' is not positive");
    const auto slope = fields.Numbers<1>(kRescaleSlope, "Rescale Slope");
    const auto intercept = fields.Numbers<1>(kRescaleIntercept, "Rescale Intercept");
    if (slope || intercept) {
        header.rescale = Rescale{slope ? (*slope)[0] : 1.0, intercept ? (*intercept)[0] : 0.0};
        if (header.rescale->slope == 0)
            throw InputError(name + ": Rescale Slope is 0");
    }
    header.padding = fields.Unsigned16(kPixelPaddingValue);
    if (const auto thickness = fields.Numbers<1>(kSliceThickness, "Slice Thickness"); thickness && (*thickness)[0] > 0)
        header.thickness = (*thickness)[0];
    if (const auto between = fields.Numbers<1>(kSpacingBetweenSlices, "Spacing Between Slices");
        between && (*between)[0] > 0)
        header.thickness = (*between)[0];
}

// The header of `path` when it holds an image; empty for a DICOM file without one or
// a file that is no DICOM at all (`isDicom` tells them apart).
[[nodiscard]] std::optional<SliceHeader> ReadHeader(const std::filesystem::path& path, bool& isDicom)
{
    const DicomFileCheck check = CheckDicomFile(path);
    isDicom = check.isDicom;
    if (!check.isDicom)
        return std::nullopt;
    const std::string name = path.string();
    if (!check.damage.empty())
        throw InputError(name + ": " + check.damage);
    gdcm::Reader reader;
    reader.SetFileName(name.c_str());
    AsInputError(name + ": unreadable DICOM file", [&] {
        if (!reader.ReadUpToTag(kPixelData))
            throw InputError(name + ": unreadable DICOM file");
    });

    const gdcm::File& file = reader.GetFile();
    const Fields fields(file.GetDataSet(), name);
    SliceHeader header;
    header.rows = IntegerField(fields, kRows, 0);
    header.columns = IntegerField(fields, kColumns, 0);
    if (header.rows == 0 || header.columns == 0)
        return std::nullopt;
    header.path = path;
    header.seriesUid = fields.Text(kSeriesInstanceUid);
    if (header.seriesUid.empty())
        throw InputError(name + ": image without a Series Instance UID");
    try {
        ReadAttributes(fields, file, header);
    } catch (const InputError& e) {
        header.problem = e.what();
    }
    return header;
}

[[nodiscard]] Vec3 Minus(const Vec3& a, const Vec3& b) noexcept { return {a[0] - b[0], a[1] - b[1], a[2] - b[2]}; }

template <std::size_t N>
[[nodiscard]] bool Near(const std::array<double, N>& a, const std::array<double, N>& b, double tolerance) noexcept
{
    for (std::size_t i = 0; i < N; ++i)
        if (std::abs(a[i] - b[i]) > tolerance)
            return false;
    return true;
}

[[nodiscard]] std::string FileName(const SliceHeader& slice) { return slice.path.filename().string(); }

[[nodiscard]] std::string Size(const SliceHeader& slice)
{
    return std::to_string(slice.columns) + "x" + std::to_string(slice.rows);
}

[[nodiscard]] std::string SpacingText(const SliceHeader& slice)
{
    return slice.pixelSpacing ? Number((*slice.pixelSpacing)[0]) + "\\" + Number((*slice.pixelSpacing)[1]) : "none";
}

// "rows along (1, 0, 0), columns along (0, 1, 0)"
[[nodiscard]] std::string OrientationText(const std::array<double, 6>& cosines)
{
    const auto direction = [&](std::size_t at) {
        return "(" + Number(cosines[at]) + ", " + Number(cosines[at + 1]) + ", " + Number(cosines[at + 2]) + ")";
    };
    return "rows along " + direction(0) + ", columns along " + direction(3);
}

// Refuses what the stack cannot hold or the reader cannot place: everything the
// slices must share is compared with the first slice.
void CheckSeries(const std::string& at, const std::vector<SliceHeader>& slices)
{
    if (slices.size() > kMaxSlices)
        throw InputError(at + std::to_string(slices.size()) + " slices; at most " + std::to_string(kMaxSlices) +
                         " can be read");
    const SliceHeader& first = slices.front();
    const auto mixed = [&](std::string_view what, const SliceHeader& other, const std::string& a,
                           const std::string& b) {
        throw InputError(at + "mixed " + std::string(what) + ": " + FileName(first) + " " + a + ", " +
                         FileName(other) + " " + b);
    };
    for (const SliceHeader& slice : slices) {
        if (!slice.problem.empty())
            throw InputError(slice.problem);
        const std::string name = slice.path.string();
        if (slice.samplesPerPixel != 1 || (slice.photometric != "MONOCHROME1" && slice.photometric != "MONOCHROME2"))
            throw InputError(name + ": colour image (" + std::to_string(slice.samplesPerPixel) + " samples per pixel, " +
                             slice.photometric + "); only greyscale is read");
        if (slice.bitsAllocated != 8 && slice.bitsAllocated != 16 && slice.bitsAllocated != 32)
            throw InputError(name + ": " + std::to_string(slice.bitsAllocated) +
                             " bits allocated; only 8, 16 and 32 are read");
        if (slice.frames > 1)
            throw InputError(name + ": " + std::to_string(slice.frames) +
                             " frames in one file; only single-frame slices are read");
        if (slice.rows != first.rows || slice.columns != first.columns)
            mixed("image sizes", slice, Size(first), Size(slice));
        if (slice.bitsAllocated != first.bitsAllocated)
            mixed("bits allocated", slice, std::to_string(first.bitsAllocated), std::to_string(slice.bitsAllocated));
        if (slice.bitsStored != first.bitsStored)
            mixed("bits stored", slice, std::to_string(first.bitsStored), std::to_string(slice.bitsStored));
        if (slice.pixelRepresentation != first.pixelRepresentation)
            mixed("pixel representations", slice, first.pixelRepresentation ? "signed" : "unsigned",
                  slice.pixelRepresentation ? "signed" : "unsigned");
        if (slice.padding != first.padding)
            mixed("pixel padding values", slice, first.padding ? std::to_string(*first.padding) : "none",
                  slice.padding ? std::to_string(*slice.padding) : "none");
        if (slice.pixelSpacing.has_value() != first.pixelSpacing.has_value() ||
            (slice.pixelSpacing && !Near(*slice.pixelSpacing, *first.pixelSpacing, kSpacingTolerance)))
            mixed("pixel spacings", slice, SpacingText(first), SpacingText(slice));
        if (slices.size() == 1)
            continue;
        if (!slice.position)
            throw InputError(name + ": no Image Position (Patient), which orders the slices of a series");
        if (!slice.orientation)
            throw InputError(name + ": no Image Orientation (Patient), which orders the slices of a series");
        if (!Near(*slice.orientation, *first.orientation, kOrientationTolerance))
            mixed("orientations", slice, OrientationText(*first.orientation), OrientationText(*slice.orientation));
    }
}

// Where the slices go: file indices in stack order, each one's z, and the z unit.
struct Placement {
    std::vector<std::size_t> order;
    std::vector<double> z;
    double zUnit = 1;
    std::string note;
};

[[nodiscard]] Placement Place(const std::string& at, const std::vector<SliceHeader>& slices)
{
    Placement placement;
    placement.order.resize(slices.size());
    std::iota(placement.order.begin(), placement.order.end(), std::size_t{0});
    if (slices.size() == 1) {
        placement.z = {0};
        placement.zUnit = slices.front().thickness.value_or(1);
        placement.note = "one slice";
        return placement;
    }

    const std::array<double, 6>& cosines = *slices.front().orientation;
    Vec3 normal = Cross({cosines[0], cosines[1], cosines[2]}, {cosines[3], cosines[4], cosines[5]});
    const double length = std::sqrt(Dot(normal, normal));
    if (length < 1e-3)
        throw InputError(at + "Image Orientation (Patient) has parallel row and column directions");
    for (double& component : normal)
        component /= length;
    std::vector<double> along(slices.size());
    for (std::size_t k = 0; k < slices.size(); ++k)
        along[k] = Dot(*slices[k].position, normal);
    std::stable_sort(placement.order.begin(), placement.order.end(),
                     [&](std::size_t a, std::size_t b) { return along[a] < along[b]; });

    // Offsets are rounded to the micrometre, so that an evenly spaced series with
    // rounding noise in its positions gets whole z and one common gap.
    std::vector<std::int64_t> offsets;
    std::map<std::int64_t, std::size_t> gapCounts;
    for (std::size_t k = 0; k < slices.size(); ++k) {
        const SliceHeader& slice = slices[placement.order[k]];
        offsets.push_back(std::llround((along[placement.order[k]] - along[placement.order[0]]) * 1000));
        if (k == 0)
            continue;
        const SliceHeader& previous = slices[placement.order[k - 1]];
        const std::int64_t gap = offsets[k] - offsets[k - 1];
        if (gap == 0)
            throw InputError(at + FileName(previous) + " and " + FileName(slice) + " lie at the same position");
        const Vec3 step = Minus(*slice.position, *previous.position);
        const double stepAlong = Dot(step, normal);
        const Vec3 across = Minus(step, {normal[0] * stepAlong, normal[1] * stepAlong, normal[2] * stepAlong});
        const double shift = std::sqrt(Dot(across, across));
        if (shift > kTiltTolerance)
            throw InputError(at + "tilted slices (gantry tilt?): " + FileName(slice) + " lies " + Number(shift) +
                             " mm beside " + FileName(previous) + " within the slice plane");
        ++gapCounts[gap];
    }
    // The most common gap; the smallest of equally common ones, so the choice doesn't
    // depend on file order.
    const auto common = std::max_element(gapCounts.begin(), gapCounts.end(),
                                          [](const auto& a, const auto& b) { return a.second < b.second; });
    const std::int64_t unit = common->first;
    placement.zUnit = static_cast<double>(unit) / 1000;
    for (const std::int64_t offset : offsets)
        placement.z.push_back(static_cast<double>(offset) / static_cast<double>(unit));
    placement.note = "slice spacing " + Millimetres(unit) + " mm";
    const std::size_t differing = slices.size() - 1 - common->second;
    if (differing > 0)
        placement.note += ", " + std::to_string(differing) + " of " + std::to_string(slices.size() - 1) +
                          " gaps differ (" + Millimetres(gapCounts.begin()->first) + " .. " +
                          Millimetres(gapCounts.rbegin()->first) + " mm)";
    return placement;
}

[[nodiscard]] ScalarType TypeOf(const SliceHeader& slice) noexcept
{
    const bool isSigned = slice.pixelRepresentation != 0;
    switch (slice.bitsAllocated) {
    case 8: return isSigned ? ScalarType::I8 : ScalarType::U8;
    case 16: return isSigned ? ScalarType::I16 : ScalarType::U16;
    default: return isSigned ? ScalarType::I32 : ScalarType::U32;
    }
}

// The padding value as BuildStack compares it: stored samples are masked to the
// stored bits before the comparison, so the padding value must be too, or a value
// written with its high bits set would never match.
[[nodiscard]] double StoredPadding(std::uint16_t bits, bool isSigned, std::int32_t bitsStored) noexcept
{
    const std::int64_t value = isSigned ? std::int64_t{static_cast<std::int16_t>(bits)} : std::int64_t{bits};
    return static_cast<double>(KeepStoredBits(value, bitsStored, isSigned));
}

[[nodiscard]] std::vector<std::byte> ReadPixels(const SliceHeader& slice)
{
    const std::string name = slice.path.string();
    const std::size_t expected = static_cast<std::size_t>(slice.rows) * static_cast<std::size_t>(slice.columns) *
                                 static_cast<std::size_t>(slice.bitsAllocated / 8);
    std::vector<std::byte> bytes;
    AsInputError(name + ": cannot decode its pixel data", [&] {
        gdcm::ImageReader reader;
        reader.SetFileName(name.c_str());
        if (!reader.Read())
            throw InputError(name + ": GDCM cannot read the image");
        const gdcm::Image& image = reader.GetImage();
        const gdcm::PixelFormat& format = image.GetPixelFormat();
        if (image.GetColumns() != static_cast<unsigned>(slice.columns) ||
            image.GetRows() != static_cast<unsigned>(slice.rows) ||
            format.GetBitsAllocated() != slice.bitsAllocated || format.GetSamplesPerPixel() != 1 ||
            image.GetBufferLength() != expected)
            throw InputError(name + ": the decoded image does not match its header (" + Size(slice) + ", " +
                             std::to_string(slice.bitsAllocated) + " bits allocated)");
        bytes.resize(expected);
        if (!image.GetBuffer(reinterpret_cast<char*>(bytes.data())))
            throw InputError(name + ": cannot decode its pixel data (" + slice.syntaxName + ")");
    });
    return bytes;
}

[[nodiscard]] std::string RescaleNote(const std::vector<SliceHeader>& slices)
{
    double lowSlope = 0, highSlope = 0, lowIntercept = 0, highIntercept = 0;
    bool any = false;
    for (const SliceHeader& slice : slices) {
        if (!slice.rescale)
            continue;
        const Rescale& rescale = *slice.rescale;
        lowSlope = any ? std::min(lowSlope, rescale.slope) : rescale.slope;
        highSlope = any ? std::max(highSlope, rescale.slope) : rescale.slope;
        lowIntercept = any ? std::min(lowIntercept, rescale.intercept) : rescale.intercept;
        highIntercept = any ? std::max(highIntercept, rescale.intercept) : rescale.intercept;
        any = true;
    }
    if (!any)
        return {};
    const auto range = [](double low, double high) {
        return low == high ? Number(low) : Number(low) + " .. " + Number(high);
    };
    const bool varies = lowSlope != highSlope || lowIntercept != highIntercept;
    return std::string(varies ? "rescale per slice: slope " : "rescale: slope ") + range(lowSlope, highSlope) +
           ", intercept " + range(lowIntercept, highIntercept);
}

// GDCM reports what it tolerates or fails at on the standard error stream, in lines
// meant for its own developers; the reader turns every failure into an InputError.
class QuietGdcm {
public:
    QuietGdcm() : m_warning(gdcm::Trace::GetWarningFlag()), m_error(gdcm::Trace::GetErrorFlag())
    {
        gdcm::Trace::WarningOff();
        gdcm::Trace::ErrorOff();
    }
    ~QuietGdcm()
    {
        gdcm::Trace::SetWarning(m_warning);
        gdcm::Trace::SetError(m_error);
    }
    QuietGdcm(const QuietGdcm&) = delete;
    QuietGdcm& operator=(const QuietGdcm&) = delete;

private:
    bool m_warning, m_error;
};

[[nodiscard]] std::string SeriesList(const std::map<std::string, std::vector<SliceHeader>>& series)
{
    std::string list;
    for (const auto& [uid, slices] : series)
        list += (list.empty() ? "" : ", ") + uid + " (" + std::to_string(slices.size()) +
                (slices.size() == 1 ? " slice)" : " slices)");
    return list;
}

}  // namespace

Volume ReadDicomSeries(const std::filesystem::path& folder, const std::optional<std::string>& seriesUid)
{
    const QuietGdcm quiet;
    const std::string folderName = folder.string();
    std::error_code error;
    if (!std::filesystem::is_directory(folder, error))
        throw InputError(folderName + ": not a folder");
    std::vector<std::filesystem::path> paths;
    for (std::filesystem::directory_iterator it(folder, error), end; !error && it != end; it.increment(error)) {
        std::error_code entryError;  // a dangling link is no slice, not a reason to stop
        if (it->is_regular_file(entryError))
            paths.push_back(it->path());
    }
    if (error)
        throw InputError(folderName + ": cannot list the folder: " + error.message());
    std::sort(paths.begin(), paths.end());

    std::map<std::string, std::vector<SliceHeader>> series;
    std::size_t withoutImage = 0;
    for (const std::filesystem::path& path : paths) {
        bool isDicom = false;
        std::optional<SliceHeader> header = ReadHeader(path, isDicom);
        if (header)
            series[header->seriesUid].push_back(std::move(*header));
        else if (isDicom)
            ++withoutImage;
    }
    if (series.empty())
        throw InputError(folderName + ": no DICOM image in the folder");

    auto chosen = series.begin();
    if (seriesUid) {
        chosen = series.find(*seriesUid);
        if (chosen == series.end())
            throw InputError(folderName + ": no series " + *seriesUid + "; the folder holds " + SeriesList(series));
    } else {
        for (auto it = series.begin(); it != series.end(); ++it)
            if (it->second.size() > chosen->second.size())
                chosen = it;
    }
    const std::string& uid = chosen->first;
    const std::vector<SliceHeader>& slices = chosen->second;
    const std::string at = folderName + ": series " + uid + ": ";
    CheckSeries(at, slices);
    const Placement placement = Place(at, slices);

    const SliceHeader& first = slices.front();
    SampleLayout layout;
    layout.width = first.columns;
    layout.height = first.rows;
    layout.type = TypeOf(first);
    layout.bitsStored = first.bitsStored < first.bitsAllocated ? first.bitsStored : 0;
    if (first.padding)
        layout.paddingStored = StoredPadding(*first.padding, first.pixelRepresentation != 0, first.bitsStored);
    layout.hounsfield = first.modality == "CT" || first.rescaleType == "HU";

    std::vector<std::vector<std::byte>> pixels;
    std::vector<SliceSamples> samples;
    pixels.reserve(slices.size());
    samples.reserve(slices.size());
    for (std::size_t k = 0; k < slices.size(); ++k) {
        const SliceHeader& slice = slices[placement.order[k]];
        pixels.push_back(ReadPixels(slice));
        samples.push_back({pixels.back(), slice.rescale.value_or(Rescale{}), placement.z[k]});
    }

    Volume volume;
    volume.stack = BuildStack(folderName, layout, samples, &volume.conversion);
    volume.format = "DICOM";
    if (first.pixelSpacing) {
        volume.rowSpacing = (*first.pixelSpacing)[0];
        volume.columnSpacing = (*first.pixelSpacing)[1];
    }
    volume.zUnit = placement.zUnit;

    std::vector<std::string>& notes = volume.notes;
    notes.push_back("series " + uid + (first.description.empty() ? "" : " (" + first.description + ")"));
    if (!first.modality.empty())
        notes.push_back("modality " + first.modality);
    notes.push_back(placement.note);
    if (!first.pixelSpacing)
        notes.push_back("no pixel spacing; 1 mm taken");
    if (first.orientation)
        notes.push_back(OrientationText(*first.orientation));
    if (std::string rescale = RescaleNote(slices); !rescale.empty())
        notes.push_back(std::move(rescale));
    if (std::any_of(slices.begin(), slices.end(), [](const SliceHeader& s) { return s.photometric == "MONOCHROME1"; }))
        notes.push_back("MONOCHROME1: low values are meant to show bright; values kept as stored");
    if (first.encapsulated)
        notes.push_back("decoded from " + first.syntaxName);
    for (const auto& [otherUid, otherSlices] : series)
        if (otherUid != uid)
            notes.push_back("also in the folder: series " + otherUid + ", " + std::to_string(otherSlices.size()) +
                            (otherSlices.size() == 1 ? " slice" : " slices"));
    if (withoutImage > 0)
        notes.push_back("skipped " + std::to_string(withoutImage) + " DICOM " +
                        (withoutImage == 1 ? "file" : "files") + " without an image");
    return volume;
}

}  // namespace Axr
