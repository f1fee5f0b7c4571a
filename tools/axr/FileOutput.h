#pragma once

#include "ax/rendering/RasterImage.h"

#include <cstdint>
#include <filesystem>
#include <span>
#include <stdexcept>
#include <vector>

namespace Axr {

/// Why a file could not be written; the text names the file and the reason.
class FileError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// Writes `bytes` to a temporary file beside `path` and renames it over `path`, so a
/// failure leaves neither a partial file nor the temporary one. Throws FileError.
void WriteFileAtomically(const std::filesystem::path& path, std::span<const std::uint8_t> bytes);

/// A binary PGM (P5, maxval 65535) of 16-bit samples, big-endian in the file as the
/// format requires.
[[nodiscard]] std::vector<std::uint8_t> EncodePgm16(std::int32_t width, std::int32_t height,
                                                    std::span<const std::uint16_t> pixels);

/// The pixels of a canvas of 16-bit samples, row after row without padding.
[[nodiscard]] std::vector<std::uint16_t> CanvasPixels(const Ax::Rendering::RasterImage& canvas);

/// The samples as little-endian bytes, row after row.
[[nodiscard]] std::vector<std::uint8_t> EncodeRaw16(std::span<const std::uint16_t> pixels);

}  // namespace Axr
