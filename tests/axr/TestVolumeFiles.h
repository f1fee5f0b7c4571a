#pragma once

// Writers of small volume files in the formats the tool reads, for its tests.

#include <gtest/gtest.h>
#include <zlib.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

namespace AxrTest {

using Bytes = std::vector<std::byte>;

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

// A NIfTI-1 header (native byte order) before the samples, vox_offset 352, voxels of
// 0.75 x 0.75 x 2.5 unless given.
[[nodiscard]] inline Bytes Nifti(std::array<std::int16_t, 3> size, std::int16_t datatype, std::int16_t bitpix,
                                 const Bytes& samples, float slope = 0, float intercept = 0,
                                 std::array<float, 3> voxel = {0.75f, 0.75f, 2.5f})
{
    Bytes bytes(352);
    Put<std::int32_t>(bytes, 0, 348);
    const std::int16_t dims[] = {3, size[0], size[1], size[2], 1, 1, 1, 1};
    for (int i = 0; i < 8; ++i)
        Put(bytes, 40 + 2 * static_cast<std::size_t>(i), dims[i]);
    Put(bytes, 70, datatype);
    Put(bytes, 72, bitpix);
    const float pixdim[] = {1, voxel[0], voxel[1], voxel[2]};
    for (int i = 0; i < 4; ++i)
        Put(bytes, 76 + 4 * static_cast<std::size_t>(i), pixdim[i]);
    Put(bytes, 108, 352.0f);
    Put(bytes, 112, slope);
    Put(bytes, 116, intercept);
    std::memcpy(bytes.data() + 344, "n+1", 4);
    bytes.insert(bytes.end(), samples.begin(), samples.end());
    return bytes;
}

}  // namespace AxrTest
