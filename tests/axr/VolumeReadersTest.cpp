#include "AxrTestSupport.h"
#include "support/MessageOf.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <bit>

namespace {

using namespace AxrTest;

constexpr std::int32_t kW = 6, kH = 5, kD = 4;

// Values that differ along every axis and go negative, so a swapped axis, byte order
// or sign shows.
std::int32_t ValueAt(std::int32_t x, std::int32_t y, std::int32_t z) { return x * 7 + y * 61 + z * 401 - 300; }

template <typename T>
Bytes Samples(std::endian order = std::endian::native, std::int32_t offset = 0)
{
    Bytes bytes;
    for (std::int32_t i = 0; i < kW * kH * kD; ++i) {
        const T value = static_cast<T>(ValueAt(i % kW, i / kW % kH, i / (kW * kH)) + offset);
        std::byte raw[sizeof(T)];
        std::memcpy(raw, &value, sizeof value);
        if (order != std::endian::native)
            std::reverse(std::begin(raw), std::end(raw));
        bytes.insert(bytes.end(), std::begin(raw), std::end(raw));
    }
    return bytes;
}

// The same NIfTI file with every header field and 16-bit sample in the other byte order.
Bytes Swapped(Bytes nifti)
{
    const auto flip = [&](std::size_t at, std::size_t size) {
        std::reverse(nifti.begin() + static_cast<std::ptrdiff_t>(at), nifti.begin() + static_cast<std::ptrdiff_t>(at + size));
    };
    flip(0, 4);
    for (std::size_t at = 40; at < 76; at += 2)
        flip(at, 2);
    for (std::size_t at = 76; at < 120; at += 4)
        flip(at, 4);
    for (std::size_t at = 352; at + 2 <= nifti.size(); at += 2)
        flip(at, 2);
    return nifti;
}

const std::string kNrrdI16 = "NRRD0004\n# a comment\ntype: short\ndimension: 3\nsizes: 6 5 4\n"
                             "space directions: (0.5,0,0) (0,0.5,0) (0,0,2)\nendian: little\nencoding: raw\n\n";
const std::string kMhaI16 = "ObjectType = Image\nNDims = 3\nDimSize = 6 5 4\nElementType = MET_SHORT\n"
                            "ElementSpacing = 0.5 0.5 2\nBinaryDataByteOrderMSB = False\nElementDataFile = LOCAL\n";

using VolumeReadersTest = ScratchTest;

TEST_F(VolumeReadersTest, EveryFormatGivesItsSamplesVoxelForVoxelWithItsVoxelSize)
{
    const auto big = std::endian::big;
    const std::string nrrdU16 = "NRRD0005\ntype: uint16\ndimension: 3\nsizes: 6 5 4\nspacings: 0.8 0.8 3\n"
                                "endian: big\nencoding: gzip\n\n";
    const std::string mhaU16 = "NDims = 3\nDimSize = 6 5 4\nElementType = MET_USHORT\nElementSpacing = 1 1 1.5\n"
                               "BinaryDataByteOrderMSB = True\nCompressedData = True\nElementDataFile = LOCAL\n";
    WriteFile(m_scratch / "data.raw", Samples<std::int16_t>(big));
    // Name, file, stack value - ValueAt (0 for the signed files only), column spacing, z unit.
    const std::tuple<const char*, Bytes, std::int32_t, double, double> cases[] = {
        {"a.nrrd", Join(kNrrdI16, Samples<std::int16_t>()), 0, 0.5, 2},
        {"b.nrrd", Join(nrrdU16, Deflate(Samples<std::uint16_t>(big, 300), true)), 300, 0.8, 3},
        {"c.mha", Join(kMhaI16, Samples<std::int16_t>()), 0, 0.5, 2},
        {"d.mha", Join(mhaU16, Deflate(Samples<std::uint16_t>(big, 300), false)), 300, 1, 1.5},
        // Stored + 1000, rescaled by - 1000: the values themselves again.
        {"f.nii", Swapped(Nifti({kW, kH, kD}, 4, 16, Samples<std::int16_t>(std::endian::native, 1000), 1, -1000)), 0,
         0.75, 2.5},
        {"g.nii.gz", Deflate(Nifti({kW, kH, kD}, 16, 32, Samples<float>()), true), 0, 0.75, 2.5},
        {"h.nii", Nifti({kW, kH, kD}, 768, 32, Samples<std::uint32_t>(std::endian::native, 300)), 300, 0.75, 2.5},
        // Detached samples, found beside the header.
        {"i.nhdr", Join("NRRD0004\ntype: int16\ndimension: 3\nsizes: 6 5 4\nendian: big\nencoding: raw\n"
                        "data file: data.raw\n", {}), 0, 1, 1},
        {"j.mhd", Join("NDims = 3\nDimSize = 6 5 4\nElementType = MET_SHORT\nElementByteOrderMSB = True\n"
                       "ElementDataFile = data.raw\n", {}), 0, 1, 1},
    };
    for (const auto& [name, file, offset, columnSpacing, zUnit] : cases) {
        SCOPED_TRACE(name);
        WriteFile(m_scratch / name, file);
        const Axr::Volume volume = Load(m_scratch / name);
        const auto& stack = *volume.stack;
        ASSERT_EQ(stack.NumberOfImages(), kD);
        ASSERT_EQ(stack.ImageDimensions(), Ax::Primitives::Size(kW, kH));
        EXPECT_EQ(stack.PixelFormat()->IsSigned(), offset == 0);
        EXPECT_DOUBLE_EQ(volume.columnSpacing, columnSpacing);
        EXPECT_DOUBLE_EQ(volume.zUnit, zUnit);
        for (std::int32_t z = 0; z < kD; ++z) {
            EXPECT_EQ(stack[z].ZCoord(), z);
            for (std::int32_t i = 0; i < kW * kH; ++i)
                ASSERT_EQ(Voxel(stack, z, i % kW, i / kW), ValueAt(i % kW, i / kW, z) + offset) << i << ", " << z;
        }
    }
}

TEST_F(VolumeReadersTest, DamagedFilesGiveOneLineNamingTheFieldAndNeverAllocateWhatTheyClaim)
{
    const Bytes samples = Samples<std::int16_t>(), truncated(samples.begin(), samples.end() - 7);
    const auto withHeader = [&](std::string header, const std::string& from, const std::string& to) {
        return Join(header.replace(header.find(from), from.size(), to), samples);
    };
    const Bytes nifti = Nifti({kW, kH, kD}, 4, 16, samples);
    Bytes niftiBadType = nifti, nifti4d = nifti;
    Put<std::int16_t>(niftiBadType, 70, 128);  // RGB
    Put<std::int16_t>(nifti4d, 40, 4);
    Put<std::int16_t>(nifti4d, 48, 3);
    const Bytes gzipped = Deflate(nifti, true), deflated = Deflate(samples, true);
    const std::string nrrdGzip = "NRRD0004\ntype: short\ndimension: 3\nsizes: 6 5 4\nendian: little\nencoding: gzip\n\n";
    const std::tuple<const char*, Bytes, const char*> cases[] = {
        {"t.nrrd", Join(kNrrdI16, truncated), "233 bytes of samples, expected 240 for 6x5x4 i16"},
        {"m.nrrd", Join("PNG\n", samples), "not a NRRD file"},
        {"s.nrrd", withHeader(kNrrdI16, "sizes: 6 5 4", "sizes: 6 5"), "\"sizes: 6 5\": wants one size per dimension"},
        {"y.nrrd", withHeader(kNrrdI16, "short", "long long"), "\"type: long long\": not a sample type"},
        {"e.nrrd", withHeader(kNrrdI16, "raw", "bzip2"), "\"encoding: bzip2\": the tool reads raw and gzip"},
        {"n.nrrd", withHeader(kNrrdI16, "endian: little\n", ""), "the header has no \"endian\" field"},
        // A gzip header claiming a 65536 x 65536 x 16384 volume from a few bytes.
        {"z.nrrd", Join(std::string(nrrdGzip).replace(nrrdGzip.find("6 5 4"), 5, "65536 65536 16384"), deflated),
         "compressed bytes can't hold"},
        {"g.nrrd", Join(nrrdGzip, Bytes(deflated.begin(), deflated.end() - 20)), "cut short"},
        {"t.mha", Join(kMhaI16, truncated), "233 bytes of samples, expected 240"},
        {"d.mha", withHeader(kMhaI16, "DimSize = 6 5 4", "DimSize = 6 0 4"), "\"DimSize = 6 0 4\": each size"},
        {"c.mha", withHeader(kMhaI16, "ObjectType = Image\n", "ElementNumberOfChannels = 3\n"),
         "the tool reads one channel"},
        {"l.mha", withHeader(kMhaI16, "ElementDataFile = LOCAL\n", ""), "no ElementDataFile line ends the header"},
        {"x.mhd", withHeader(kMhaI16, "LOCAL", "missing.raw"), "missing.raw: cannot read"},
        {"t.nii", Bytes(nifti.begin(), nifti.end() - 1), "239 bytes of samples, expected 240"},
        {"h.nii", Bytes(nifti.begin(), nifti.begin() + 200), "too short for a NIfTI-1 header"},
        {"r.nii", niftiBadType, "datatype 128 is not a sample type"},
        {"4.nii", nifti4d, "dim[4] is 3; the tool reads one volume"},
        {"t.nii.gz", Bytes(gzipped.begin(), gzipped.end() - 30), "cut short"},
        {"v.raw", samples, "a raw file needs --dims WxHxD and --type"},
    };
    for (const auto& [name, bytes, expected] : cases) {
        SCOPED_TRACE(name);
        WriteFile(m_scratch / name, bytes);
        const std::string message = MessageOf<std::exception>([&] { (void)Load(m_scratch / name); });
        EXPECT_TRUE(Holds(message, expected));
        EXPECT_EQ(message.find('\n'), std::string::npos) << message;
    }
}

}  // namespace
