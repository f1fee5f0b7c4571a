#pragma once

#include "VolumeInput.h"

#include <filesystem>

namespace Axr {

/// A MetaImage volume: a .mha file with its data attached (ElementDataFile = LOCAL)
/// or a .mhd header naming one data file. Two or three dimensions, one channel,
/// integer or float samples, raw or compressed. Voxel sizes come from ElementSpacing;
/// TransformMatrix is not applied, so views are in the file's axes. Throws InputError
/// naming the file and the key at fault.
[[nodiscard]] Volume ReadMetaImage(const std::filesystem::path& path);

}  // namespace Axr
