#pragma once

#include "VolumeInput.h"

#include <filesystem>
#include <optional>
#include <string>

namespace Axr {

/// Reads one DICOM series from the files directly in `folder` (subfolders are not
/// searched) into a volume. Files that are not DICOM are skipped silently, and so are
/// DICOM files without an image (a DICOMDIR, a report), counted in a note. With several
/// series and no `seriesUid`, the one with the most slices is read (the lowest UID on a
/// tie) and a note names each of the others with its slice count.
///
/// Slices are ordered along their normal, the cross product of the row and column
/// directions, never by file name or instance number. Stack z is each slice's real
/// offset from the first, to the micrometre, in units of `Volume::zUnit`: the most
/// common gap. A single slice may lack position and orientation and lies at z 0.
///
/// Stored values are masked to Bits Stored, sign-extended when signed, and rescaled
/// per slice; CT data (or a Rescale Type of HU) is Hounsfield data. The Pixel Padding
/// Value marks voxels without data. MONOCHROME1 values are kept as stored, with a note.
///
/// Throws InputError, one line naming the folder or the file, for: a folder without
/// a DICOM image; a `seriesUid` not in the folder (the message lists those there);
/// a series that is tilted (slices shift within their plane from one to the next), has
/// two slices at one position, mixes image sizes, orientations, pixel spacings, bits
/// allocated or stored, pixel representations or padding values, lacks a position or
/// orientation on any of several slices, holds more than 16384 slices or multi-frame
/// files, or has colour, or samples other than 8, 16 or 32 bits. A DICOM file cut
/// short or damaged anywhere in the folder, or a slice whose image cannot be decoded,
/// is an error naming the file, not skipped: a missing slice would pass for uneven
/// spacing.
[[nodiscard]] Volume ReadDicomSeries(const std::filesystem::path& folder, const std::optional<std::string>& seriesUid);

}  // namespace Axr
