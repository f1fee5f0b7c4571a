#include "VolumeFile.h"

#include <zlib.h>

#include <algorithm>

#include <cerrno>
#include <cmath>
#include <cstring>
#include <fstream>
#include <limits>
#include <sstream>

namespace Axr {

std::vector<std::byte> ReadWholeFile(const std::filesystem::path& path)
{
    const std::string name = path.string();
    std::error_code error;
    const std::uintmax_t size = std::filesystem::file_size(path, error);
    if (error)
        throw InputError(name + ": cannot read: " + error.message());
    std::ifstream in(path, std::ios::binary);
    if (!in)
        throw InputError(name + ": cannot open: " + std::strerror(errno));
    std::vector<std::byte> bytes(static_cast<std::size_t>(size));
    if (!in.read(reinterpret_cast<char*>(bytes.data()), static_cast<std::streamsize>(bytes.size())))
        throw InputError(name + ": read failed");
    return bytes;
}

struct Inflater::Stream {
    z_stream z{};
};

Inflater::Inflater(std::span<const std::byte> compressed, std::string name)
    : m_stream(std::make_unique<Stream>()), m_name(std::move(name))
{
    z_stream& z = m_stream->z;
    // zlib reads its input through a non-const pointer but never writes it.
    z.next_in = reinterpret_cast<Bytef*>(const_cast<std::byte*>(compressed.data()));
    z.avail_in = static_cast<uInt>(std::min<std::size_t>(compressed.size(), std::numeric_limits<uInt>::max()));
    // 15 + 32: the largest window, and a zlib or a gzip header, whichever comes.
    if (inflateInit2(&z, 15 + 32) != Z_OK)
        throw InputError(m_name + ": cannot start decompression");
}

Inflater::~Inflater() { inflateEnd(&m_stream->z); }

void Inflater::Read(std::span<std::byte> out)
{
    z_stream& z = m_stream->z;
    std::size_t done = 0;
    while (done < out.size()) {
        const std::size_t piece = std::min<std::size_t>(out.size() - done, 1u << 30);
        z.next_out = reinterpret_cast<Bytef*>(out.data() + done);
        z.avail_out = static_cast<uInt>(piece);
        const int status = inflate(&z, Z_NO_FLUSH);
        done += piece - z.avail_out;
        if (status == Z_STREAM_END && done < out.size())
            throw InputError(m_name + ": the compressed data ends " + std::to_string(out.size() - done) +
                             " bytes early");
        if (status != Z_OK && status != Z_STREAM_END)
            throw InputError(m_name + ": damaged compressed data" + (z.msg != nullptr ? std::string(" (") + z.msg + ")" : ""));
        if (status == Z_OK && z.avail_in == 0 && z.avail_out != 0)
            throw InputError(m_name + ": the compressed data is cut short");
    }
}

std::size_t SampleBytes(std::string_view name, const SampleFile& file)
{
    const auto [width, height, depth] = file.size;
    if (width < 1 || height < 1 || width > kMaxSide || height > kMaxSide)
        throw InputError(std::string(name) + ": slices of " + std::to_string(width) + " x " + std::to_string(height) +
                         " pixels (each side must be 1 to " + std::to_string(kMaxSide) + ")");
    if (depth < 1 || depth > kMaxSlices)
        throw InputError(std::string(name) + ": " + std::to_string(depth) + " slices (1 to " +
                         std::to_string(kMaxSlices) + " can be read)");
    return static_cast<std::size_t>(width) * static_cast<std::size_t>(height) * static_cast<std::size_t>(depth) *
           SizeOf(file.type);
}

void CheckCompressedClaim(std::string_view name, std::size_t compressedBytes, std::size_t claimed)
{
    // Deflate never packs more than 1032 bytes into one, so a header that claims more
    // than that is wrong, and no buffer is made for it.
    constexpr std::size_t kMostRatio = 1032;
    if (claimed / kMostRatio > compressedBytes)
        throw InputError(std::string(name) + ": " + std::to_string(compressedBytes) + " compressed bytes can't hold the " +
                         std::to_string(claimed) + " bytes the header describes");
}

std::vector<std::byte> LoadSamples(std::string_view name, const SampleFile& file, std::span<const std::byte> data,
                                   bool compressed, std::int64_t byteSkip)
{
    const std::size_t expected = SampleBytes(name, file);
    const std::string at(name);
    if (compressed) {
        CheckCompressedClaim(name, data.size(), expected);
        std::vector<std::byte> samples(expected);
        Inflater(data, at).Read(samples);
        return samples;
    }
    if (byteSkip < -1 || (byteSkip > 0 && static_cast<std::uint64_t>(byteSkip) > data.size()))
        throw InputError(at + ": a byte skip of " + std::to_string(byteSkip) + " in a file of " +
                         std::to_string(data.size()) + " bytes");
    const std::size_t available = byteSkip == -1 ? data.size() : data.size() - static_cast<std::size_t>(byteSkip);
    if (available < expected || (byteSkip != -1 && available > expected))
        throw InputError(at + ": " + std::to_string(available) + " bytes of samples, expected " +
                         std::to_string(expected) + " for " + std::to_string(file.size[0]) + "x" +
                         std::to_string(file.size[1]) + "x" + std::to_string(file.size[2]) + " " +
                         std::string(NameOf(file.type)));
    const std::size_t start = byteSkip == -1 ? data.size() - expected : static_cast<std::size_t>(byteSkip);
    return {data.begin() + static_cast<std::ptrdiff_t>(start),
            data.begin() + static_cast<std::ptrdiff_t>(start + expected)};
}

Volume VolumeFromSamples(std::string_view name, std::string format, const SampleFile& file,
                         std::vector<std::byte> samples)
{
    if (file.byteOrder != std::endian::native)
        SwapSampleBytes(samples, SizeOf(file.type));
    const auto [width, height, depth] = file.size;
    const std::size_t sliceBytes =
        static_cast<std::size_t>(width) * static_cast<std::size_t>(height) * SizeOf(file.type);
    std::vector<SliceSamples> slices;
    slices.reserve(static_cast<std::size_t>(depth));
    for (std::int32_t k = 0; k < depth; ++k)
        slices.push_back({std::span<const std::byte>(samples).subspan(static_cast<std::size_t>(k) * sliceBytes, sliceBytes),
                          file.rescale, static_cast<double>(k)});
    SampleLayout layout;
    layout.width = width;
    layout.height = height;
    layout.type = file.type;

    Volume volume;
    volume.stack = BuildStack(name, layout, slices, &volume.conversion);
    volume.format = std::move(format);
    volume.notes = file.notes;
    const auto usable = [](double spacing) { return std::isfinite(spacing) && spacing > 0; };
    std::array<double, 3> spacing = file.spacing;
    if (!usable(spacing[0]) || !usable(spacing[1]) || !usable(spacing[2])) {
        volume.notes.push_back("no usable voxel size in the file: 1 mm assumed");
        spacing = {1, 1, 1};
    }
    volume.columnSpacing = spacing[0];
    volume.rowSpacing = spacing[1];
    volume.zUnit = spacing[2];
    return volume;
}

bool IsText(std::string_view line) noexcept
{
    return std::all_of(line.begin(), line.end(), [](char c) { return c == '\t' || (c >= ' ' && c <= '~'); });
}

std::string_view Trim(std::string_view text) noexcept
{
    constexpr std::string_view kSpace = " \t\r\n\f\v";
    const auto first = text.find_first_not_of(kSpace);
    if (first == std::string_view::npos)
        return {};
    return text.substr(first, text.find_last_not_of(kSpace) - first + 1);
}

std::vector<std::string_view> Words(std::string_view text)
{
    std::vector<std::string_view> words;
    constexpr std::string_view kSpace = " \t\r\n\f\v";
    std::size_t at = text.find_first_not_of(kSpace);
    while (at != std::string_view::npos) {
        const std::size_t end = std::min(text.find_first_of(kSpace, at), text.size());
        words.push_back(text.substr(at, end - at));
        at = text.find_first_not_of(kSpace, end);
    }
    return words;
}

}  // namespace Axr
