#pragma once

#include "VolumeInput.h"

#include <filesystem>

namespace Axr {

/// A NRRD volume: a .nrrd file with its data attached, or a .nhdr header with a
/// detached data file. Two- or three-dimensional, integer or float samples, raw or
/// gzip encoding. Voxel sizes come from "spacings" or the lengths of "space
/// directions"; the directions themselves are not applied, so views are in the
/// file's axes. Throws InputError naming the file and the field at fault.
[[nodiscard]] Volume ReadNrrd(const std::filesystem::path& path);

}  // namespace Axr
