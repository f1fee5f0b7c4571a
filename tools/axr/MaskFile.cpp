#include "MaskFile.h"

#include "FileOutput.h"
#include "VolumeInput.h"

#include "ax/system/Exception.h"
#include "ax/system/SerializationInfo.h"

#include <zlib.h>

#include <algorithm>
#include <bit>
#include <fstream>
#include <iomanip>
#include <limits>
#include <sstream>

namespace Axr {

namespace {

using Ax::Rendering::BitVolume;
using Ax::System::SerializationInfo;

constexpr const char* kMaskType = "Ax.Rendering.BitVolume";

// The persisted form's sizes.
struct FormSize {
    explicit FormSize(const SerializationInfo& form)
        : width(form.GetInt32("Width")), height(form.GetInt32("Height")), depth(form.GetInt32("Depth"))
    {
    }
    std::int32_t width, height, depth;
};

[[nodiscard]] std::vector<std::uint8_t> Gzip(const std::filesystem::path& path, std::span<const std::uint8_t> bytes)
{
    z_stream stream{};
    constexpr int kGzipWindow = 15 + 16;  // deflate with a gzip wrapper
    if (deflateInit2(&stream, Z_DEFAULT_COMPRESSION, Z_DEFLATED, kGzipWindow, 8, Z_DEFAULT_STRATEGY) != Z_OK)
        throw FileError(path.string() + ": the compressor could not start");
    std::vector<std::uint8_t> out(deflateBound(&stream, static_cast<uLong>(bytes.size())));
    stream.next_in = const_cast<Bytef*>(bytes.data());
    stream.avail_in = static_cast<uInt>(bytes.size());
    stream.next_out = out.data();
    stream.avail_out = static_cast<uInt>(out.size());
    const int result = deflate(&stream, Z_FINISH);
    out.resize(stream.total_out);
    deflateEnd(&stream);
    if (result != Z_STREAM_END)
        throw FileError(path.string() + ": compressing the voxels failed");
    return out;
}

[[nodiscard]] std::vector<std::uint8_t> EncodeNrrd(const std::filesystem::path& path, const SerializationInfo& form,
                                                   const MaskSpacing* spacing)
{
    const FormSize size(form);
    const Ax::System::BitArray& bits = form.GetBitArray("Data");
    std::vector<std::uint8_t> voxels(static_cast<std::size_t>(bits.Length()));
    for (std::size_t i = 0; i < voxels.size(); ++i)
        voxels[i] = bits.Bytes()[i >> 3] >> (i & 7) & 1u;
    std::ostringstream header;
    header << "NRRD0004\n"
           << "# a mask written by axr: 1 = set\n"
           << "type: uint8\ndimension: 3\n"
           << "sizes: " << size.width << ' ' << size.height << ' ' << size.depth << '\n'
           << "encoding: gzip\n";
    if (spacing)
        header << std::setprecision(std::numeric_limits<double>::max_digits10) << "spacings: " << spacing->column
               << ' ' << spacing->row << ' ' << spacing->slice << '\n';
    header << '\n';
    const std::string text = header.str();
    std::vector<std::uint8_t> file(text.begin(), text.end());
    const std::vector<std::uint8_t> packed = Gzip(path, voxels);
    file.insert(file.end(), packed.begin(), packed.end());
    return file;
}

}  // namespace

SerializationInfo PersistedForm(const BitVolume& mask)
{
    SerializationInfo form(kMaskType);
    mask.GetObjectData(form);
    return form;
}

std::shared_ptr<BitVolume> ReadMaskFile(const std::filesystem::path& path)
{
    std::ifstream in(path, std::ios::binary);
    if (!in)
        throw InputError(path.string() + ": cannot open the mask file");
    try {
        const SerializationInfo info = SerializationInfo::Read(in);
        if (info.FullTypeName() != kMaskType)
            throw InputError(path.string() + ": holds a '" + info.FullTypeName() + "', not a mask");
        return std::make_shared<BitVolume>(info);
    } catch (const Ax::System::SerializationException& e) {
        throw InputError(path.string() + ": " + e.what());
    }
}

void WriteMask(const std::filesystem::path& path, const SerializationInfo& form, const MaskSpacing* spacing)
{
    if (path.extension() == ".nrrd") {
        WriteFileAtomically(path, EncodeNrrd(path, form, spacing));
        return;
    }
    std::ostringstream out(std::ios::binary);
    form.Write(out);
    const std::string bytes = std::move(out).str();
    WriteFileAtomically(path, std::span(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size()));
}

MaskSummary Summarize(const SerializationInfo& form)
{
    const FormSize size(form);
    const std::vector<std::uint8_t>& bytes = form.GetBitArray("Data").Bytes();
    MaskSummary summary;
    std::fill(std::begin(summary.low), std::end(summary.low), INT32_MAX);
    for (std::size_t k = 0; k < bytes.size(); ++k) {
        if (bytes[k] == 0)
            continue;
        summary.setVoxels += std::popcount(bytes[k]);
        for (std::uint32_t bits = bytes[k]; bits != 0; bits &= bits - 1) {
            // Voxel i of the persisted form as (x, y, z).
            const std::int64_t i = static_cast<std::int64_t>(8 * k) + std::countr_zero(bits);
            const std::int64_t row = i / size.width;
            const std::int32_t at[3] = {static_cast<std::int32_t>(i % size.width),
                                        static_cast<std::int32_t>(row % size.height),
                                        static_cast<std::int32_t>(row / size.height)};
            for (int axis = 0; axis < 3; ++axis) {
                summary.low[axis] = std::min(summary.low[axis], at[axis]);
                summary.high[axis] = std::max(summary.high[axis], at[axis]);
            }
        }
    }
    if (summary.setVoxels == 0)
        std::fill(std::begin(summary.low), std::end(summary.low), 0);
    return summary;
}

}  // namespace Axr
