#pragma once

#include "StackBuilder.h"
#include "VolumeInput.h"

#include <array>
#include <bit>
#include <charconv>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

// What the readers of single-file volume formats share: whole-file reading, bounded
// decompression, header text splitting and the last step from samples to a Volume.
namespace Axr {

/// The file's bytes. Throws InputError naming the file when it can't be read.
[[nodiscard]] std::vector<std::byte> ReadWholeFile(const std::filesystem::path& path);

/// Decompresses a zlib or gzip stream (told apart by its header) in pieces, never
/// holding more than the caller asks for, so a hostile stream can't make it allocate
/// without bound.
class Inflater {
public:
    /// `name` is what errors quote.
    Inflater(std::span<const std::byte> compressed, std::string name);
    ~Inflater();
    Inflater(const Inflater&) = delete;
    Inflater& operator=(const Inflater&) = delete;

    /// Exactly `out.size()` more bytes. Throws InputError when the stream is damaged or
    /// ends sooner.
    void Read(std::span<std::byte> out);

private:
    struct Stream;
    std::unique_ptr<Stream> m_stream;
    std::string m_name;
};

/// Everything a header format says about the samples.
struct SampleFile {
    std::array<std::int32_t, 3> size{};      // width, height, depth
    std::array<double, 3> spacing{1, 1, 1};  // mm along each axis
    ScalarType type = ScalarType::U16;
    std::endian byteOrder = std::endian::little;
    Rescale rescale;
    std::vector<std::string> notes;
};

/// Largest width or height, and the most slices, that the tool reads.
inline constexpr std::int32_t kMaxSide = 65536;
inline constexpr std::int32_t kMaxSlices = 16384;

/// Checks the size against the limits and returns the bytes of all samples. Throws
/// InputError naming `name`.
[[nodiscard]] std::size_t SampleBytes(std::string_view name, const SampleFile& file);

/// Throws InputError naming `name` when `compressedBytes` of deflate data can't
/// hold `claimed` bytes, before anything is allocated for them.
void CheckCompressedClaim(std::string_view name, std::size_t compressedBytes, std::size_t claimed);

/// The sample bytes that `data` holds for `file`: after `byteSkip` bytes (or the last
/// bytes with a skip of -1) when raw; decompressed when `compressed`. Throws
/// InputError naming `name` when there are too few or too many, or the compressed
/// stream claims more than it could hold.
[[nodiscard]] std::vector<std::byte> LoadSamples(std::string_view name, const SampleFile& file,
                                                 std::span<const std::byte> data, bool compressed,
                                                 std::int64_t byteSkip = 0);

/// The samples, slice after slice in the file's byte order (their count is
/// SampleBytes), as a Volume of `format` with the file's spacing: stack z counts
/// slices, one z unit is the slice spacing.
[[nodiscard]] Volume VolumeFromSamples(std::string_view name, std::string format, const SampleFile& file,
                                       std::vector<std::byte> samples);

/// True when `line` holds printable text only: a header line, not samples.
[[nodiscard]] bool IsText(std::string_view line) noexcept;

/// `text` without white space at either end.
[[nodiscard]] std::string_view Trim(std::string_view text) noexcept;

/// The white-space separated words of `text`.
[[nodiscard]] std::vector<std::string_view> Words(std::string_view text);

/// The number in `text` (all of it, a leading + allowed); false when it is none.
template <typename T>
[[nodiscard]] bool ParseNumber(std::string_view text, T& value) noexcept
{
    if (text.starts_with('+'))
        text.remove_prefix(1);
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    return !text.empty() && error == std::errc{} && end == text.data() + text.size();
}

}  // namespace Axr
