#pragma once

#include "FileOutput.h"

#include <cstdint>
#include <filesystem>
#include <span>

namespace Axr {

/// Why a PNG could not be written; the text names the file and the reason.
using PngError = FileError;

/// Writes a grey PNG of `width` x `height` from tightly packed rows, 8 bits deep or
/// 16 (host order in memory). The picture goes to a temporary file beside `path`
/// that is renamed over it at the end, so a failure leaves no partial file and no
/// temporary one. Throws PngError; `pixels` must hold width * height values.
void WriteGreyPng(const std::filesystem::path& path, std::int32_t width, std::int32_t height,
                  std::span<const std::uint8_t> pixels);
void WriteGreyPng(const std::filesystem::path& path, std::int32_t width, std::int32_t height,
                  std::span<const std::uint16_t> pixels);

}  // namespace Axr
