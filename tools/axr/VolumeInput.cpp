#include "VolumeInput.h"

#include "CommandLine.h"
#include "DicomReader.h"
#include "MetaImageReader.h"
#include "NiftiReader.h"
#include "NrrdReader.h"
#include "Phantom.h"
#include "VolumeFile.h"

#include "ax/rendering/Initializer.h"

namespace Axr {

namespace {

constexpr std::string_view kKnownInputs =
    "not a DICOM folder, .nrrd, .nhdr, .mha, .mhd, .nii or .nii.gz; a raw file needs --dims WxHxD and --type";

[[nodiscard]] std::string Prefix(std::string_view context) { return std::string(context) + ": "; }

[[nodiscard]] bool ParseDimension(std::string_view text, std::int32_t max, std::int32_t& value)
{
    return ParseNumber(text, value) && value >= 1 && value <= max;
}

// The layout of a headerless raw file, from --dims, --type and --endian; 1 mm voxels,
// since the file can't say otherwise.
[[nodiscard]] SampleFile ParseRawLayout(std::string_view context, const VolumeSource& source)
{
    const std::string at = Prefix(context) + source.input + ": ";
    if (!source.dims || !source.type)
        throw UsageError(at + std::string(kKnownInputs));
    SampleFile file;
    const std::string& dims = *source.dims;
    const auto x1 = dims.find('x');
    const auto x2 = x1 == std::string::npos ? x1 : dims.find('x', x1 + 1);
    const std::string_view text(dims);
    if (x2 == std::string::npos || !ParseDimension(text.substr(0, x1), kMaxSide, file.size[0]) ||
        !ParseDimension(text.substr(x1 + 1, x2 - x1 - 1), kMaxSide, file.size[1]) ||
        !ParseDimension(text.substr(x2 + 1), kMaxSlices, file.size[2]))
        throw UsageError(at + "--dims wants WxHxD, each at least 1 (depth at most " + std::to_string(kMaxSlices) +
                         "), not '" + dims + "'");
    const auto type = ScalarTypeNamed(*source.type);
    if (!type)
        throw UsageError(at + "--type wants u8, i8, u16, i16, u32, i32, f32 or f64, not '" + *source.type + "'");
    file.type = *type;
    if (source.endian) {
        if (*source.endian != "little" && *source.endian != "big")
            throw UsageError(at + "--endian wants little or big, not '" + *source.endian + "'");
        file.byteOrder = *source.endian == "big" ? std::endian::big : std::endian::little;
    }
    return file;
}

[[nodiscard]] bool HasExtension(const std::filesystem::path& path, std::initializer_list<std::string_view> endings)
{
    const std::string name = path.filename().string();
    for (std::string_view ending : endings)
        if (name.size() > ending.size() && name.ends_with(ending))
            return true;
    return false;
}

}  // namespace

bool ParseVolumeOption(std::string_view context, std::span<const std::string> arguments, std::size_t& i,
                       VolumeSource& source)
{
    const std::string& option = arguments[i];
    std::optional<std::string>* target = option == "--dims"     ? &source.dims
                                         : option == "--type"   ? &source.type
                                         : option == "--endian" ? &source.endian
                                         : option == "--series" ? &source.series
                                                                : nullptr;
    if (target == nullptr)
        return false;
    if (i + 1 >= arguments.size())
        throw UsageError(Prefix(context) + option + " needs a value");
    *target = arguments[++i];
    return true;
}

bool IsPhantomInput(std::string_view input) noexcept
{
    return input == "phantom" || input.starts_with("phantom:");
}

Volume LoadVolume(std::string_view context, const VolumeSource& source)
{
    Ax::Rendering::Initializer::Initialize();
    const bool rawOptions = source.dims || source.type || source.endian;
    if (IsPhantomInput(source.input)) {
        if (rawOptions || source.series)
            throw UsageError(Prefix(context) + "--dims, --type, --endian and --series are for files, not the phantom");
        PhantomOptions options;
        if (source.input != "phantom")
            options.size = ParseIntOption(context, "phantom:N", std::string_view(source.input).substr(8), 16, 1024);
        Volume volume;
        volume.stack = MakePhantom(options);
        volume.format = "phantom";
        volume.columnSpacing = volume.rowSpacing = volume.zUnit = PhantomVoxelMillimetres(options.size);
        volume.conversion.offset = 1024;
        return volume;
    }
    const std::filesystem::path path(source.input);
    std::error_code error;
    const bool folder = std::filesystem::is_directory(path, error);
    if (folder && !rawOptions)
        return ReadDicomSeries(path, source.series);
    if (source.series)
        throw UsageError(Prefix(context) + "--series is for DICOM folders");
    if (rawOptions && !folder) {
        const SampleFile file = ParseRawLayout(context, source);
        const auto bytes = ReadWholeFile(path);
        Volume volume = VolumeFromSamples(source.input, "raw", file, LoadSamples(source.input, file, bytes, false));
        volume.notes.assign(1, "a raw file says nothing of its voxel size: 1 mm assumed");
        return volume;
    }
    if (rawOptions)
        throw UsageError(Prefix(context) + "--dims, --type and --endian are for raw files");
    if (HasExtension(path, {".nrrd", ".nhdr"}))
        return ReadNrrd(path);
    if (HasExtension(path, {".mha", ".mhd"}))
        return ReadMetaImage(path);
    if (HasExtension(path, {".nii", ".nii.gz"}))
        return ReadNifti(path);
    if (!std::filesystem::exists(path, error))
        throw InputError(source.input + ": no such file or folder");
    throw UsageError(Prefix(context) + source.input + ": " + std::string(kKnownInputs));
}

}  // namespace Axr
