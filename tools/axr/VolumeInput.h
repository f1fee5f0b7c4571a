#pragma once

#include "CommandLine.h"
#include "StackBuilder.h"

#include "ax/rendering/ImageStack.h"

#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <ostream>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace Axr {

/// An input that names something unreadable or inconsistent: a missing file, a size
/// that doesn't match the layout. The text is one line naming the file and the
/// field; commands exit 2 for it, like a usage error.
class InputError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// A volume read for the tool: the stack and what the file said of its geometry.
/// Stack x and y are pixel columns and rows; stack z is in units of `zUnit`
/// millimetres, a nominal slice spacing the reader chose, so that uneven spacing
/// stays exact and z stays small.
struct Volume {
    std::unique_ptr<Ax::Rendering::ImageStack> stack;
    double columnSpacing = 1;  // mm from one pixel to the next across a row
    double rowSpacing = 1;     // mm from one row to the next
    double zUnit = 1;          // mm per stack z unit
    std::string format;        // "phantom", "raw", "NRRD", "MetaImage", "NIfTI", "DICOM"
    StackConversion conversion;
    std::vector<std::string> notes;  // what the reader chose or noticed, one line each
};

/// The input argument with its raw-layout options, gathered while a command parses
/// its arguments.
struct VolumeSource {
    std::string input;  // "phantom", "phantom:N", a DICOM folder or a file path
    std::optional<std::string> dims, type, endian, series;
};

/// Consumes --dims, --type, --endian or --series with its value at arguments[i] into `source`;
/// false when arguments[i] is none of them. Throws UsageError for a missing value.
bool ParseVolumeOption(std::string_view context, std::span<const std::string> arguments, std::size_t& i,
                       VolumeSource& source);

/// True for "phantom" and "phantom:<anything>".
[[nodiscard]] bool IsPhantomInput(std::string_view input) noexcept;

/// The volume `source` names: the built-in phantom (default 256 per axis), a DICOM
/// series folder, a NRRD, MetaImage or NIfTI file by its extension, or a raw file
/// described by --dims and --type. Throws UsageError for wrong options, InputError
/// for an unreadable file. Initializes the library.
[[nodiscard]] Volume LoadVolume(std::string_view context, const VolumeSource& source);

/// Runs a command's body and turns what it throws into one line on `err` and an exit
/// status: an InputError is the user's to fix, like a wrong option (2); anything
/// else is a failure of the work (1). A UsageError goes on to the command line.
template <typename Body>
int GuardInput(std::string_view context, std::ostream& err, Body body)
{
    try {
        return body();
    } catch (const UsageError&) {
        throw;
    } catch (const InputError& e) {
        err << context << ": " << e.what() << '\n';
        return kExitUsage;
    } catch (const std::exception& e) {
        err << context << ": " << e.what() << '\n';
        return kExitFailure;
    }
}

}  // namespace Axr
