#pragma once

#include "VolumeInput.h"

#include <filesystem>

namespace Axr {

/// A single-file NIfTI-1 volume (.nii, or .nii.gz compressed), either byte order.
/// Up to three dimensions (a fourth of size 1 is allowed), integer or float samples,
/// scl_slope and scl_inter applied. Voxel sizes come from pixdim; the qform and sform
/// are not applied, so views are in the file's axes. Throws InputError naming the file
/// and the field at fault.
[[nodiscard]] Volume ReadNifti(const std::filesystem::path& path);

}  // namespace Axr
