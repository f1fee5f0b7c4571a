#pragma once

#include "ax/rendering/BitVolume.h"
#include "ax/system/SerializationInfo.h"

#include <cstdint>
#include <filesystem>
#include <memory>
#include <vector>

namespace Axr {

/// The extension of the tool's mask files: a BitVolume's persisted form in the
/// library's key/value file encoding.
inline constexpr const char* kMaskExtension = ".axm";

/// Reads a mask file. Throws InputError naming the file for a missing file, a damaged
/// one or one that holds something other than a mask.
[[nodiscard]] std::shared_ptr<Ax::Rendering::BitVolume> ReadMaskFile(const std::filesystem::path& path);

/// Voxel sizes in millimetres, written into exports when known.
struct MaskSpacing {
    double column = 1, row = 1, slice = 1;
};

/// The mask's persisted form, typed as a mask. Writing and summarizing both read it,
/// so a command makes it once.
[[nodiscard]] Ax::System::SerializationInfo PersistedForm(const Ax::Rendering::BitVolume& mask);

/// Writes a mask's persisted form to `path` atomically: a .nrrd path gets a gzip
/// NRRD of 8-bit 0/1 voxels (for other tools), any other path the mask file form.
/// Throws FileError.
void WriteMask(const std::filesystem::path& path, const Ax::System::SerializationInfo& form,
               const MaskSpacing* spacing = nullptr);

/// What `axr mask info` reports: the set voxels and the box around them.
struct MaskSummary {
    std::int64_t setVoxels = 0;
    std::int32_t low[3] = {0, 0, 0}, high[3] = {-1, -1, -1};  // high below low when none is set
};
[[nodiscard]] MaskSummary Summarize(const Ax::System::SerializationInfo& form);
[[nodiscard]] inline MaskSummary Summarize(const Ax::Rendering::BitVolume& mask)
{
    return Summarize(PersistedForm(mask));
}

}  // namespace Axr
