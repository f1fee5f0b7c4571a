#include "DicomReader.h"

#include "axr/AxrTestSupport.h"
#include "support/MessageOf.h"

#include "ax/rendering/Initializer.h"

#include <gtest/gtest.h>

#include <cmath>

namespace {

using namespace AxrTest;
using Axr::InputError;
using Axr::Volume;

std::string Notes(const Volume& volume)
{
    std::string all;
    for (const std::string& note : volume.notes)
        all += note + "\n";
    return all;
}

void ExpectImage(const Volume& volume, std::int32_t k, const std::function<double(int x, int y)>& expected)
{
    for (int y = 0; y < volume.stack->ImageDimensions().Height; ++y)
        for (int x = 0; x < volume.stack->ImageDimensions().Width; ++x)
            ASSERT_EQ(Voxel(*volume.stack, k, x, y), std::lround(expected(x, y))) << k << ": " << x << ',' << y;
}

class DicomReaderTest : public ScratchTest {
protected:
    static void SetUpTestSuite() { Ax::Rendering::Initializer::Initialize(); }

    // Slices named a, b, c, ... 1.25 mm apart along z, each as `edit` leaves it.
    void WriteSeries(int count, const std::function<void(int k, DicomSlice&)>& edit,
                     DicomSyntax::TSType encoding = DicomSyntax::ExplicitVRLittleEndian) const
    {
        Empty();
        for (int k = 0; k < count; ++k) {
            DicomSlice slice{.position = std::array{0.0, 0.0, 1.25 * k}};
            edit(k, slice);
            WriteDicom(m_scratch / std::string(1, static_cast<char>('a' + k)), slice, encoding);
        }
    }
    std::string Refusal(const std::optional<std::string>& uid = std::nullopt) const
    {
        return MessageOf<InputError>([&] { (void)Axr::ReadDicomSeries(m_scratch, uid); });
    }
};

// File names, their numbers and the spatial order all disagree; two positions carry
// rounding noise, one gap is double, and every slice has its own rescale. The normal
// points down in patient z and mixes all three axes, so ordering by any one
// coordinate, or by the reversed cross product, gives another stack.
TEST_F(DicomReaderTest, ObliqueSlicesGoAlongTheirNormalWithUnevenGapsKeptAndEachSliceRescaledItsOwnWay)
{
    const struct { const char* name; double along, slope, intercept; } files[] = {
        {"img10.dcm", 15.0, 1, -1024}, {"img2.dcm", 10.0, 2, -1000}, {"img3.dcm", 12.5000003, 0.5, -1024},
        {"img1.dcm", 11.2499996, 1, -1030}, {"img11.dcm", 16.25, 1, -1024}};
    const std::array<double, 3> normal{0.64, -0.48, -0.6};
    for (int i = 0; i < 5; ++i) {
        const double t = files[i].along;
        WriteDicom(m_scratch / files[i].name,
                   {.position = std::array{-100 + t * normal[0], 50 + t * normal[1], 20 + t * normal[2]},
                    .orientation = std::array{0.6, 0.8, 0.0, 0.48, -0.36, 0.8},
                    .rescale = std::array{files[i].slope, files[i].intercept},
                    .value = [i](int x, int y) { return 2 * (x + 10 * y) + 100 * i; }});
    }
    const Volume volume = Axr::ReadDicomSeries(m_scratch, {});
    ASSERT_EQ(volume.stack->NumberOfImages(), 5);
    EXPECT_DOUBLE_EQ(volume.zUnit, 1.25);
    EXPECT_DOUBLE_EQ(volume.rowSpacing, 0.5);
    EXPECT_DOUBLE_EQ(volume.columnSpacing, 0.75);
    EXPECT_EQ(volume.conversion.offset, 1024);
    EXPECT_TRUE(Holds(Notes(volume), "slice spacing 1.25 mm, 1 of 4 gaps differ (1.25 .. 2.5 mm)"));
    EXPECT_TRUE(Holds(Notes(volume), "rescale per slice: slope 0.5 .. 2, intercept -1030 .. -1000"));
    const int spatial[] = {1, 3, 2, 0, 4};
    const double z[] = {0, 1, 2, 4, 5};
    for (int k = 0; k < 5; ++k) {
        const auto& file = files[spatial[k]];
        EXPECT_EQ((*volume.stack)[k].ZCoord(), z[k]);
        ExpectImage(volume, k, [&](int x, int y) {
            return (2 * (x + 10 * y) + 100 * spatial[k]) * file.slope + file.intercept + 1024;
        });
    }
}

// Two slices per format, the value at (x, y, k) first + step * (x + 10 y + 20 k), written
// with garbage above the stored bits; pixel (1, 0) holds the padding value, if any.
TEST_F(DicomReaderTest, SamplesAreMaskedToTheStoredBitsSignExtendedRescaledAndPadded)
{
    const struct {
        const char* name;
        std::int32_t bitsAllocated, bitsStored, pixelRepresentation;
        const char* modality;
        std::int64_t first, step;
        std::optional<std::array<double, 2>> rescale;  // slope, intercept
        std::optional<std::int16_t> padding;           // as written, 16 bits
        std::int32_t offset, stackPadding;
    } formats[] = {
        {"u8", 8, 8, 0, "MR", 200, 1, {}, {}, 0, 0},
        {"i8 with padding", 8, 8, 1, "MR", -100, 3, {}, -128, 0, -128},
        {"i16 in 12 bits with padding", 16, 12, 1, "MR", -2048, 90, {}, -2000, 0, -2000},
        // The padding value 0xFFFF has bits above the stored ones, as the samples do.
        {"u16 in 12 bits as HU with padding", 16, 12, 0, "CT", 0, 90, std::array{1.0, -1024.0}, -1, 1024, 4095},
        {"u16 beyond the signed range", 16, 16, 0, "MR", 60000, 120, {}, {}, 0, 0},
        {"i32 scaled down", 32, 32, 1, "MR", -300000, 12000, std::array{0.1, 0.0}, {}, 0, 0},
    };
    for (const auto& format : formats) {
        SCOPED_TRACE(format.name);
        const auto isPadding = [&](int x, int y) { return format.padding && x == 1 && y == 0; };
        const auto valueAt = [&](int x, int y, int k) { return format.first + format.step * (x + 10 * y + 20 * k); };
        WriteSeries(2, [&](int k, DicomSlice& slice) {
            slice.modality = format.modality;
            slice.bitsAllocated = format.bitsAllocated;
            slice.bitsStored = format.bitsStored;
            slice.pixelRepresentation = format.pixelRepresentation;
            slice.rescale = format.rescale;
            if (format.padding)
                slice.padding = static_cast<std::uint16_t>(*format.padding);
            const std::int64_t garbage = format.bitsStored < format.bitsAllocated ? 0xA << format.bitsStored : 0;
            slice.value = [&, k, garbage](int x, int y) {
                const std::int64_t value = isPadding(x, y) ? *format.padding : valueAt(x, y, k);
                return (value & ((std::int64_t{1} << format.bitsStored) - 1)) | garbage;
            };
        });
        const Volume volume = Axr::ReadDicomSeries(m_scratch, {});
        ASSERT_EQ(volume.stack->NumberOfImages(), 2);
        EXPECT_EQ(volume.conversion.offset, format.offset);
        ASSERT_EQ(volume.stack->HasPadding(), format.padding.has_value());
        if (format.padding) {
            EXPECT_EQ(volume.stack->PaddingValue(), format.stackPadding);
        }
        const auto [slope, intercept] = format.rescale.value_or(std::array{1.0, 0.0});
        for (int k = 0; k < 2; ++k)
            ExpectImage(volume, k, [&](int x, int y) {
                return isPadding(x, y) ? format.stackPadding
                                       : static_cast<double>(valueAt(x, y, k)) * slope + intercept + format.offset;
            });
    }
}

TEST_F(DicomReaderTest, EveryEncodingGivesTheSameSignedVoxels)
{
    const std::pair<DicomSyntax::TSType, const char*> encodings[] = {
        {DicomSyntax::ExplicitVRLittleEndian, ""}, {DicomSyntax::ImplicitVRLittleEndian, ""},
        {DicomSyntax::ExplicitVRBigEndian, ""}, {DicomSyntax::RLELossless, "decoded from RLE"},
        {DicomSyntax::JPEGLSLossless, "decoded from JPEG-LS"},
    };
    for (const auto& [encoding, note] : encodings) {
        SCOPED_TRACE(DicomSyntax::GetTSString(encoding));
        WriteSeries(3, [](int k, DicomSlice& slice) {
            slice.pixelRepresentation = 1;
            slice.position = std::array{0.0, 0.0, -2.5 * k};  // stack order runs against the file order
            slice.value = [k](int x, int y) { return 301 * x - 157 * y - 300 * (2 - k); };
        }, encoding);
        const Volume volume = Axr::ReadDicomSeries(m_scratch, {});
        ASSERT_EQ(volume.stack->NumberOfImages(), 3);
        EXPECT_TRUE(Holds(Notes(volume), note));
        for (int k = 0; k < 3; ++k)
            ExpectImage(volume, k, [k](int x, int y) { return 301 * x - 157 * y - 300 * k + 1024; });
    }
}

TEST_F(DicomReaderTest, TheLargestSeriesIsChosenUnlessOneIsNamedAndOtherFilesAreSkipped)
{
    WriteDicom(m_scratch / "report", {.hasImage = false});
    EXPECT_EQ(Refusal(), m_scratch.string() + ": no DICOM image in the folder");
    WriteSeries(5, [](int k, DicomSlice& slice) { slice.seriesUid = k < 3 ? "2.25.1001" : "2.25.1002"; });
    WriteDicom(m_scratch / "report", {.hasImage = false});
    WriteDicom(m_scratch / "broken", {.seriesUid = "1.2.3.9", .pixelSpacing = "0.5\\x"});  // spoils only its own series
    WriteFile(m_scratch / "notes.txt", std::string("not an image\n"));
    WriteFile(m_scratch / "empty", std::string());
    WriteFile(m_scratch / "looks.raw", std::string("\x08\x00\x05\x00", 4) + std::string(300, '\x7F'));

    const Volume largest = Axr::ReadDicomSeries(m_scratch, {});
    EXPECT_EQ(largest.stack->NumberOfImages(), 3);
    EXPECT_TRUE(Holds(Notes(largest), "series 2.25.1001"));
    EXPECT_TRUE(Holds(Notes(largest), "also in the folder: series 2.25.1002, 2 slices"));
    EXPECT_TRUE(Holds(Notes(largest), "skipped 1 DICOM file without an image"));
    const Volume named = Axr::ReadDicomSeries(m_scratch, "2.25.1002");
    EXPECT_EQ(named.stack->NumberOfImages(), 2);
    EXPECT_TRUE(Holds(Notes(named), "also in the folder: series 2.25.1001, 3 slices"));
    EXPECT_EQ(Refusal("1.2.3"), m_scratch.string() + ": no series 1.2.3; the folder holds 1.2.3.9 (1 slice), "
                                                     "2.25.1001 (3 slices), 2.25.1002 (2 slices)");
    EXPECT_EQ(Refusal("1.2.3.9"), (m_scratch / "broken").string() + ": Pixel Spacing '0.5\\x' is not 2 numbers");

    // A single slice needs no geometry; MONOCHROME1 is kept with a note.
    Empty();
    WriteDicom(m_scratch / "a", {.modality = "OT", .photometric = "MONOCHROME1", .position = {}, .orientation = {},
                                 .pixelSpacing = ""});
    const Volume single = Axr::ReadDicomSeries(m_scratch, {});
    ASSERT_EQ(single.stack->NumberOfImages(), 1);
    ExpectImage(single, 0, [](int x, int y) { return x + 10 * y; });
    EXPECT_TRUE(Holds(Notes(single), "MONOCHROME1"));
    EXPECT_TRUE(Holds(Notes(single), "no pixel spacing"));
}

// Axial slices a, b and c, 1.25 mm apart, beside a text file; each case spoils b or
// cuts c. In the expected text "@" stands for the folder.
TEST_F(DicomReaderTest, InconsistentOrDamagedSeriesAreRefusedNamingTheCulprit)
{
    const struct {
        std::function<void(DicomSlice&)> changeB;
        std::intmax_t cut;  // how much of c to keep, counted from its end when negative; 0: all
        std::string expected;
    } cases[] = {
        {[](DicomSlice& s) { s.position = std::array{0.0, 0.4, 1.25}; }, {},
         ": tilted slices (gantry tilt?): b lies 0.4 mm beside a within the slice plane"},
        {[](DicomSlice& s) { s.width = 5; }, {}, ": mixed image sizes: a 4x3, b 5x3"},
        {[](DicomSlice& s) { s.orientation = std::array<double, 6>{1, 0, 0, 0, 0, -1}; }, {},
         ": mixed orientations: a rows along (1, 0, 0), columns along (0, 1, 0), b rows along (1, 0, 0), columns "
         "along (0, 0, -1)"},
        {[](DicomSlice& s) { s.pixelRepresentation = 1; }, {}, ": mixed pixel representations: a unsigned, b signed"},
        {[](DicomSlice& s) { s.bitsAllocated = s.bitsStored = 8; }, {}, ": mixed bits allocated: a 16, b 8"},
        {[](DicomSlice& s) { s.position = std::array{0.0, 0.0, 2.5}; }, {}, ": b and c lie at the same position"},
        {[](DicomSlice& s) { s.position.reset(); }, {}, "@/b: no Image Position (Patient)"},
        {[](DicomSlice& s) { s.samplesPerPixel = 3, s.photometric = "RGB", s.bitsAllocated = s.bitsStored = 8; }, {},
         "@/b: colour image (3 samples per pixel, RGB)"},
        {[](DicomSlice& s) { s.bitsAllocated = s.bitsStored = 64; }, {}, "@/b: 64 bits allocated"},
        {{}, 136, "@/c: cut short: the file ends at byte 136, inside an element header"},
        {{}, -5, "@/c: element (7FE0,0010) at byte "},
    };
    for (const auto& test : cases) {
        SCOPED_TRACE(test.expected);
        WriteSeries(3, [&](int k, DicomSlice& s) {
            if (k == 1 && test.changeB)
                test.changeB(s);
        });
        WriteFile(m_scratch / "readme.txt", std::string("slices follow\n"));
        if (test.cut != 0)
            std::filesystem::resize_file(m_scratch / "c",
                                         test.cut + (test.cut < 0 ? std::filesystem::file_size(m_scratch / "c") : 0));
        std::string expected = test.expected;
        if (expected.starts_with('@'))
            expected.replace(0, 1, m_scratch.string());
        const std::string message = Refusal();
        EXPECT_TRUE(Holds(message, expected));
        EXPECT_TRUE(message.starts_with(m_scratch.string())) << message;
    }
}

// GDCM stops the process on an assertion for many of these cuts, so each must be
// caught before GDCM sees the file. A cut at an element boundary before the image
// leaves a file that is whole but has no image, which is skipped.
TEST_F(DicomReaderTest, AFileCutAtAnyLengthIsRefusedNamingItOrSkipped)
{
    for (const DicomSyntax::TSType encoding : {DicomSyntax::ExplicitVRLittleEndian, DicomSyntax::RLELossless}) {
        WriteSeries(2, [](int, DicomSlice&) {}, encoding);
        const std::string bytes = Slurp(m_scratch / "b");
        for (std::size_t length = 0; length < bytes.size(); ++length) {
            SCOPED_TRACE("cut at " + std::to_string(length));
            WriteFile(m_scratch / "b", bytes.substr(0, length));
            try {
                const Volume volume = Axr::ReadDicomSeries(m_scratch, {});
                ASSERT_EQ(volume.stack->NumberOfImages(), 1);
                ASSERT_TRUE(length < 132 || Holds(Notes(volume), "skipped 1 DICOM file without an image"));
            } catch (const InputError& e) {
                ASSERT_TRUE(std::string(e.what()).starts_with((m_scratch / "b").string() + ": ")) << e.what();
            }
        }
    }
}

}  // namespace
