#include "MaskCommands.h"

#include "CommandLine.h"
#include "MaskFile.h"
#include "Progress.h"
#include "VolumeInput.h"

#include "ax/rendering/BitVolume.h"
#include "ax/rendering/ImageStack.h"

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <iomanip>
#include <optional>
#include <vector>

namespace Axr {

namespace {

using Ax::Rendering::BitVolume;

constexpr std::string_view kMask = "axr mask";
constexpr std::int32_t kLargestDilation = 4;

constexpr const char* kMaskHelp =
    "Usage: axr mask <operation> ... --out FILE\n"
    "\n"
    "Makes and combines binary masks, one bit per voxel. Masks are stored as .axm\n"
    "files (the library's persisted form of a mask); an --out FILE ending in .nrrd\n"
    "exports 8-bit 0/1 voxels, gzip-compressed, for other tools instead.\n"
    "\n"
    "Operations:\n"
    "  threshold INPUT (--min V | --hu H) [--depth N]\n"
    "                    the voxels of a volume at or above a value that aren't padding:\n"
    "                    --min in the stored values 'axr info' shows, --hu in Hounsfield\n"
    "                    units (unsigned data read as HU + 1024, signed as HU); --depth\n"
    "                    examines only the N lowest slices\n"
    "  union A B         voxels set in A or B\n"
    "  intersect A B     voxels set in both\n"
    "  xor A B           voxels set in exactly one\n"
    "  invert A          voxels clear in A\n"
    "  dilate A --by N   every voxel within N (1 to 4) voxels of a set one, per axis\n"
    "  info A            size, set voxels and the box around them\n"
    "Options:\n"
    "  --out FILE        the result: .axm, or .nrrd to export\n"
    "  --quiet           no summary line\n"
    "  -h, --help        this text\n"
    "\n"
    "A, B are .axm files of the same size. Exit status: 0 done, 1 the work or the\n"
    "write failed, 2 wrong usage or input.\n";

constexpr const char* kMaskExamples =
    "\n"
    "Examples:\n"
    "  axr mask threshold phantom --hu 300 --out bone.axm\n"
    "  axr mask threshold ~/studies/head-ct/ --hu -300 --out body.axm\n"
    "  axr mask invert bone.axm --out not-bone.axm\n"
    "  axr mask intersect body.axm not-bone.axm --out soft.axm\n"
    "  axr mask dilate bone.axm --by 2 --out bone-grown.nrrd\n"
    "  axr mask info soft.axm\n";

enum class Operation { Threshold, Union, Intersect, Xor, Invert, Dilate, Info };

struct OperationName {
    std::string_view name;
    Operation operation;
    std::size_t inputs;
};

constexpr OperationName kOperations[] = {
    {"threshold", Operation::Threshold, 1}, {"union", Operation::Union, 2}, {"intersect", Operation::Intersect, 2},
    {"xor", Operation::Xor, 2},             {"invert", Operation::Invert, 1}, {"dilate", Operation::Dilate, 1},
    {"info", Operation::Info, 1},
};

struct MaskOptions {
    Operation operation = Operation::Info;
    std::string context;  // "axr mask <operation>"
    VolumeSource source;  // the threshold's volume
    std::vector<std::filesystem::path> inputs;
    std::optional<std::int32_t> min, hu;
    std::optional<std::int32_t> depth;
    std::int32_t dilation = 0;
    std::filesystem::path output;
    bool quiet = false;
};

[[nodiscard]] MaskOptions ParseMaskArguments(std::span<const std::string> arguments, bool& help)
{
    MaskOptions options;
    if (arguments.empty())
        throw UsageError(std::string(kMask) + ": no operation given (see 'axr mask --help')");
    const std::string& name = arguments.front();
    if (name == "--help" || name == "-h") {
        help = true;
        return options;
    }
    const auto* known = std::find_if(std::begin(kOperations), std::end(kOperations),
                                     [&name](const OperationName& o) { return o.name == name; });
    if (known == std::end(kOperations))
        throw UsageError(std::string(kMask) + ": unknown operation '" + name + "' (see 'axr mask --help')");
    options.operation = known->operation;
    options.context = std::string(kMask) + " " + name;
    const std::string_view context = options.context;
    const auto needs = [&](bool allowed, const std::string& option) {
        if (!allowed)
            throw UsageError(options.context + ": " + option + " doesn't apply here (see 'axr mask --help')");
    };

    const bool thresholds = options.operation == Operation::Threshold;
    std::vector<std::string> positional;
    for (std::size_t i = 1; i < arguments.size(); ++i) {
        const std::string& argument = arguments[i];
        if (argument == "--help" || argument == "-h") {
            help = true;
            return options;
        }
        if (argument == "--out") {
            needs(options.operation != Operation::Info, argument);
            options.output = NeedValue(context, arguments, i);
        } else if (argument == "--min" || argument == "--hu") {
            needs(thresholds, argument);
            (argument == "--min" ? options.min : options.hu) =
                ParseIntOption(context, argument, NeedValue(context, arguments, i), -65536, 65536);
        } else if (argument == "--depth") {
            needs(thresholds, argument);
            options.depth = ParseIntOption(context, argument, NeedValue(context, arguments, i), 1, 1 << 20);
        } else if (argument == "--by") {
            needs(options.operation == Operation::Dilate, argument);
            options.dilation = ParseIntOption(context, argument, NeedValue(context, arguments, i), 1, kLargestDilation);
        } else if (argument == "--quiet") {
            options.quiet = true;
        } else if (thresholds && ParseVolumeOption(context, arguments, i, options.source)) {
            continue;
        } else if (argument.starts_with("-")) {
            throw UsageError(options.context + ": unknown option '" + argument + "' (see 'axr mask --help')");
        } else {
            positional.push_back(argument);
        }
    }
    if (positional.size() != known->inputs)
        throw UsageError(options.context + " wants " + (known->inputs == 1 ? "one input" : "two masks") + ", not " +
                         std::to_string(positional.size()) + " (see 'axr mask --help')");
    if (thresholds) {
        options.source.input = positional.front();
        if (options.min.has_value() == options.hu.has_value())
            throw UsageError(options.context + ": give the threshold as either --min or --hu");
    } else {
        options.inputs.assign(positional.begin(), positional.end());
    }
    if (options.operation == Operation::Dilate && options.dilation == 0)
        throw UsageError(options.context + ": --by N is missing");
    if (options.operation != Operation::Info && options.output.empty())
        throw UsageError(options.context + ": --out FILE is missing");
    return options;
}

// The threshold in the stack's stored values.
[[nodiscard]] std::int32_t StoredThreshold(const MaskOptions& options, const Ax::Rendering::ImageStack& stack)
{
    if (options.min)
        return *options.min;
    const auto format = stack.PixelFormat();
    const bool isSigned = format && format->IsSigned();
    return isSigned ? *options.hu : *options.hu + 1024;
}

// Runs `make` and adds its time to `milliseconds`: the library's share of the work.
template <typename Make>
[[nodiscard]] std::shared_ptr<BitVolume> Timed(double& milliseconds, Make make)
{
    const auto start = std::chrono::steady_clock::now();
    std::shared_ptr<BitVolume> mask = make();
    milliseconds += MillisecondsSince(start);
    return mask;
}

[[nodiscard]] std::shared_ptr<BitVolume> Threshold(const MaskOptions& options, MaskSpacing& spacing,
                                                   double& milliseconds)
{
    const Volume volume = LoadVolume(options.context, options.source);
    const Ax::Rendering::ImageStack& stack = *volume.stack;
    const std::int32_t depth = stack.NumberOfImages();
    if (depth == 0)
        throw InputError(options.source.input + ": the volume has no slices");
    spacing = {volume.columnSpacing, volume.rowSpacing, volume.zUnit};
    return Timed(milliseconds, [&] {
        return std::make_shared<BitVolume>(stack, options.depth.value_or(depth), StoredThreshold(options, stack));
    });
}

[[nodiscard]] std::shared_ptr<BitVolume> Combine(const MaskOptions& options, double& milliseconds)
{
    std::vector<std::shared_ptr<BitVolume>> masks;
    for (const auto& input : options.inputs)
        masks.push_back(ReadMaskFile(input));
    if (masks.size() == 2 && (masks[0]->Width() != masks[1]->Width() || masks[0]->Height() != masks[1]->Height() ||
                              masks[0]->Depth() != masks[1]->Depth()))
        throw InputError(options.inputs[0].string() + " is " + masks[0]->ToString() + " but " +
                         options.inputs[1].string() + " is " + masks[1]->ToString());
    return Timed(milliseconds, [&] {
        const BitVolume& a = *masks[0];
        switch (options.operation) {
        case Operation::Union:
            return a.Union(*masks[1]);
        case Operation::Intersect:
            return a.Intersection(*masks[1]);
        case Operation::Xor:
            return a.Xor(*masks[1]);
        case Operation::Invert:
            return a.Invert();
        default:
            return masks[0]->CubicDilate(options.dilation);
        }
    });
}

// One line without its end.
void PrintSummary(std::ostream& out, const std::string& name, const Ax::System::SerializationInfo& form)
{
    const MaskSummary summary = Summarize(form);
    const std::int32_t width = form.GetInt32("Width"), height = form.GetInt32("Height"),
                       depth = form.GetInt32("Depth");
    const double voxels = static_cast<double>(width) * height * depth;
    out << name << "  " << width << " x " << height << " x " << depth << ", " << summary.setVoxels
        << " voxels set (" << std::fixed << std::setprecision(2)
        << 100.0 * static_cast<double>(summary.setVoxels) / voxels << "%)";
    if (summary.setVoxels > 0)
        out << ", within x " << summary.low[0] << ".." << summary.high[0] << ", y " << summary.low[1] << ".."
            << summary.high[1] << ", z " << summary.low[2] << ".." << summary.high[2];
}

int RunMask(const MaskOptions& options, std::ostream& out)
{
    if (options.operation == Operation::Info) {
        PrintSummary(out, options.inputs.front().string(), PersistedForm(*ReadMaskFile(options.inputs.front())));
        out << '\n';
        return kExitSuccess;
    }
    MaskSpacing spacing;
    double milliseconds = 0;
    const std::shared_ptr<BitVolume> mask = options.operation == Operation::Threshold
                                                ? Threshold(options, spacing, milliseconds)
                                                : Combine(options, milliseconds);
    const Ax::System::SerializationInfo form = PersistedForm(*mask);
    WriteMask(options.output, form, options.operation == Operation::Threshold ? &spacing : nullptr);
    if (!options.quiet) {
        PrintSummary(out, options.output.string(), form);
        out << "; " << std::fixed << std::setprecision(1) << milliseconds << " ms\n";
    }
    return kExitSuccess;
}

}  // namespace

int MaskCommand(std::span<const std::string> arguments, std::ostream& out, std::ostream& err)
{
    bool help = false;
    const MaskOptions options = ParseMaskArguments(arguments, help);
    if (help) {
        out << kMaskHelp << kMaskExamples;
        return kExitSuccess;
    }
    return GuardInput(options.context, err, [&] { return RunMask(options, out); });
}

}  // namespace Axr
