#pragma once

#include <filesystem>
#include <string>

namespace Axr {

/// Whether a file is DICOM and whole, judged before GDCM reads it: GDCM as the
/// system ships it stops the process on an assertion when a file is cut short in
/// many places, and where it doesn't, it fills a cut-off image silently.
struct DicomFileCheck {
    bool isDicom = false;
    /// Empty when every element lies wholly within the file; else what is wrong, one
    /// line. Only files marked as DICOM (the "DICM" after the preamble) count as
    /// damaged; an unmarked file that doesn't walk is no DICOM file.
    std::string damage;
};

/// Walks the elements of `path` (meta information, data set, sequences and image
/// fragments) without reading their values, except the transfer syntax. Deflated data
/// sets cannot be walked and count as damaged. Throws nothing for a bad file.
[[nodiscard]] DicomFileCheck CheckDicomFile(const std::filesystem::path& path);

}  // namespace Axr
