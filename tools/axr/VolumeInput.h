#pragma once

#include "ax/rendering/ImageStack.h"

#include <bit>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>

namespace Axr {

/// An input that names something unreadable or inconsistent: a missing file, a size
/// that doesn't match the layout. The text is one line naming the file and the
/// field; commands exit 2 for it, like a usage error.
class InputError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

enum class SampleType { U16, I16 };

/// How a headerless raw file is laid out: width x height pixels per slice, depth
/// slices one after the other, rows top to bottom.
struct RawLayout {
    std::int32_t width = 0, height = 0, depth = 0;
    SampleType type = SampleType::U16;
    std::endian byteOrder = std::endian::little;
};

/// The input argument with its raw-layout options, gathered while a command parses
/// its arguments.
struct VolumeSource {
    std::string input;  // "phantom", "phantom:N" or a file path
    std::optional<std::string> dims, type, endian;
};

/// Consumes --dims, --type or --endian with its value at arguments[i] into `source`;
/// false when arguments[i] is none of them. Throws UsageError for a missing value.
bool ParseVolumeOption(std::string_view context, std::span<const std::string> arguments, std::size_t& i,
                       VolumeSource& source);

/// True for "phantom" and "phantom:<anything>".
[[nodiscard]] bool IsPhantomInput(std::string_view input) noexcept;

/// The checked raw layout of `source`; throws UsageError for a missing or malformed
/// option. Only for file inputs.
[[nodiscard]] RawLayout ParseRawLayout(std::string_view context, const VolumeSource& source);

/// "128x128x64 u16", as errors quote a layout.
[[nodiscard]] std::string Describe(const RawLayout& layout);

/// Reads `path` laid out as `layout` into a new stack, slice k at z = k, signed data
/// in signed slices. Throws InputError when the file can't be read or its size
/// differs from the layout's.
[[nodiscard]] std::unique_ptr<Ax::Rendering::ImageStack> ReadRawVolume(const std::filesystem::path& path,
                                                                       const RawLayout& layout);

/// The volume `source` names: the built-in phantom (default 256 per axis) or a raw
/// file. Throws UsageError for wrong options, InputError for an unreadable file.
/// Initializes the library.
[[nodiscard]] std::unique_ptr<Ax::Rendering::ImageStack> LoadVolume(std::string_view context,
                                                                    const VolumeSource& source);

}  // namespace Axr
