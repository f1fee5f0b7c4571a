#include "VolumeCommands.h"

#include "CommandLine.h"
#include "FileOutput.h"
#include "PngWriter.h"
#include "RenderView.h"
#include "View.h"
#include "VolumeInput.h"
#include "Window.h"

#include "ax/rendering/ImageStack.h"
#include "ax/rendering/MemoryRasterImage.h"
#include "ax/rendering/MprRenderer.h"

#include <algorithm>
#include <cmath>
#include <charconv>
#include <cstring>
#include <iomanip>
#include <limits>
#include <map>
#include <optional>
#include <vector>

namespace Axr {

namespace {

using Ax::Primitives::GrayscalePixelFormat;
using Ax::Primitives::Size;
using Ax::Rendering::ImageStack;
using Ax::Rendering::MemoryRasterImage;
using Ax::Rendering::MprRenderer;
using Ax::Rendering::ProjectionMode;

constexpr std::string_view kInfo = "axr info";
constexpr std::string_view kMpr = "axr mpr";

constexpr const char* kInfoHelp =
    "Usage: axr info INPUT [--dims WxHxD --type u16|i16 [--endian little|big]]\n"
    "\n"
    "Prints a volume's dimensions, the z of its first and last slice, the slice gaps\n"
    "that differ from the most common one, its value range, signedness and padding.\n"
    "\n"
    "INPUT is 'phantom' or 'phantom:N' (the built-in head, N^3 voxels, default 256)\n"
    "or a headerless raw file of 16-bit samples, slice after slice, described by\n"
    "--dims, --type and --endian (default little).\n"
    "\n"
    "Examples:\n"
    "  axr info phantom:128\n"
    "  axr info scan.raw --dims 512x512x300 --type i16 --endian big\n";

constexpr const char* kMprHelp =
    "Usage: axr mpr INPUT --out FILE [options]\n"
    "\n"
    "Renders one plane, or a slab projection around it, with the trilinear reformat\n"
    "and writes it to FILE. INPUT and --dims, --type, --endian as for 'axr info'.\n"
    "\n"
    "Options:\n"
    "  --out FILE        .png (8-bit windowed, or the canvas with --bits 16), .pgm\n"
    "                    (16-bit binary PGM) or .raw (the canvas, 16-bit little-endian)\n"
    "  --view V          axial, coronal or sagittal (default axial)\n"
    "  --position P      slice or voxel index along the view's normal (default middle)\n"
    "  --mode M          mip, minip or mean over the slab (default mip)\n"
    "  --slices N        samples through the slab, 1 to 4096 (default 1: a plane)\n"
    "  --spacing S       voxels between slab samples (default 1)\n"
    "  --size WxH        canvas pixels (default 512x512); the volume fits inside\n"
    "  --window C/W      display window in HU for 8-bit PNG (default 40/400); unsigned\n"
    "                    values are read as HU + 1024, signed ones as HU\n"
    "  --bits 8|16       PNG depth (default 8)\n"
    "  --repeat N        render N times and print the median, lowest and highest time\n"
    "  -h, --help        this text\n"
    "\n"
    "Canvas pixels outside the volume are 65535 for unsigned data, -32768 for signed.\n"
    "Exit status: 0 written, 1 the render or the write failed, 2 wrong usage or input.\n"
    "\n"
    "Examples:\n"
    "  axr mpr phantom:256 --view sagittal --out sagittal.png\n"
    "  axr mpr phantom --view coronal --mode mip --slices 21 --window 300/1500 --out slab.png\n"
    "  axr mpr scan.raw --dims 512x512x300 --type i16 --view axial --position 120 --out axial.pgm\n";

[[nodiscard]] std::string NeedValue(std::string_view context, std::span<const std::string> arguments,
                                    std::size_t& i)
{
    if (i + 1 >= arguments.size())
        throw UsageError(std::string(context) + ": " + arguments[i] + " needs a value");
    return arguments[++i];
}

[[nodiscard]] bool IsSignedStack(const ImageStack& stack)
{
    const auto format = stack.PixelFormat();
    return format && format->IsSigned();
}

// ---- info --------------------------------------------------------------------------

void PrintInfo(const std::string& input, const ImageStack& stack, std::ostream& out)
{
    const Size dims = stack.ImageDimensions();
    const std::int32_t depth = stack.NumberOfImages();
    const bool isSigned = IsSignedStack(stack);
    out << "input     " << input << '\n'
        << "size      " << dims.Width << " x " << dims.Height << " x " << depth << '\n';
    if (depth == 0)
        return;
    out << "z         " << stack[0].ZCoord() << " .. " << stack[depth - 1].ZCoord() << '\n';

    std::map<double, std::int32_t> gapCounts;
    for (std::int32_t k = 1; k < depth; ++k)
        ++gapCounts[stack[k].ZCoord() - stack[k - 1].ZCoord()];
    if (gapCounts.empty()) {
        out << "gaps      none (one slice)\n";
    } else {
        const double common =
            std::max_element(gapCounts.begin(), gapCounts.end(), [](const auto& a, const auto& b) {
                return a.second < b.second;
            })->first;
        out << "gaps      " << common;
        if (gapCounts.size() == 1) {
            out << " everywhere\n";
        } else {
            out << " mostly;";
            for (std::int32_t k = 1; k < depth; ++k) {
                const double gap = stack[k].ZCoord() - stack[k - 1].ZCoord();
                if (gap != common)
                    out << ' ' << gap << " after slice " << (k - 1) << (k + 1 < depth ? "," : "");
            }
            out << '\n';
        }
    }

    std::int32_t lowest = std::numeric_limits<std::int32_t>::max(), highest = std::numeric_limits<std::int32_t>::min();
    for (const auto& record : stack) {
        const auto& image = *record.Image();
        for (std::int32_t row = 0; row < image.Height(); ++row) {
            const std::uint8_t* bytes = image.GetPixelAddress(0, row);
            for (std::int32_t x = 0; x < image.Width(); ++x) {
                std::uint16_t raw;
                std::memcpy(&raw, bytes + 2 * static_cast<std::size_t>(x), sizeof raw);
                const std::int32_t value = isSigned ? static_cast<std::int16_t>(raw) : raw;
                lowest = std::min(lowest, value);
                highest = std::max(highest, value);
            }
        }
    }
    out << "values    " << lowest << " .. " << highest << '\n'
        << "signed    " << (isSigned ? "yes" : "no") << '\n'
        << "padding   ";
    if (stack.HasPadding())
        out << stack.PaddingValue() << '\n';
    else
        out << "none\n";
}

// ---- mpr ---------------------------------------------------------------------------

enum class ViewName { Axial, Coronal, Sagittal };
enum class OutputKind { Png, Pgm, Raw };

struct MprOptions {
    VolumeSource source;
    std::filesystem::path output;
    OutputKind kind = OutputKind::Png;
    ViewName view = ViewName::Axial;
    std::optional<std::int32_t> position;
    ProjectionMode mode = ProjectionMode::Maximum;
    std::int32_t slices = 1;
    float spacing = 1.0f;
    Size canvas{512, 512};
    Window window = Window::SoftTissue();
    std::int32_t bits = 8;
    std::int32_t repeat = 1;
};

[[noreturn]] void Wrong(std::string_view option, std::string_view wants, std::string_view text)
{
    throw UsageError(std::string(kMpr) + ": " + std::string(option) + " wants " + std::string(wants) + ", not '" +
                     std::string(text) + "'");
}

[[nodiscard]] bool ParseDouble(std::string_view text, double& value)
{
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    return error == std::errc{} && end == text.data() + text.size() && std::isfinite(value);
}

[[nodiscard]] MprOptions ParseMprArguments(std::span<const std::string> arguments, bool& help)
{
    MprOptions options;
    help = false;
    for (std::size_t i = 0; i < arguments.size(); ++i) {
        const std::string& argument = arguments[i];
        if (argument == "--help" || argument == "-h") {
            help = true;
            return options;
        }
        if (ParseVolumeOption(kMpr, arguments, i, options.source))
            continue;
        if (argument == "--out") {
            options.output = NeedValue(kMpr, arguments, i);
            const std::string extension = options.output.extension().string();
            if (extension == ".png")
                options.kind = OutputKind::Png;
            else if (extension == ".pgm")
                options.kind = OutputKind::Pgm;
            else if (extension == ".raw")
                options.kind = OutputKind::Raw;
            else
                Wrong(argument, "a .png, .pgm or .raw file", options.output.string());
        } else if (argument == "--view") {
            const std::string value = NeedValue(kMpr, arguments, i);
            if (value == "axial")
                options.view = ViewName::Axial;
            else if (value == "coronal")
                options.view = ViewName::Coronal;
            else if (value == "sagittal")
                options.view = ViewName::Sagittal;
            else
                Wrong(argument, "axial, coronal or sagittal", value);
        } else if (argument == "--mode") {
            const std::string value = NeedValue(kMpr, arguments, i);
            if (value == "mip")
                options.mode = ProjectionMode::Maximum;
            else if (value == "minip")
                options.mode = ProjectionMode::Minimum;
            else if (value == "mean")
                options.mode = ProjectionMode::Average;
            else
                Wrong(argument, "mip, minip or mean", value);
        } else if (argument == "--position") {
            options.position = ParseIntOption(kMpr, argument, NeedValue(kMpr, arguments, i), 0, 65535);
        } else if (argument == "--slices") {
            options.slices = ParseIntOption(kMpr, argument, NeedValue(kMpr, arguments, i), 1, 4096);
        } else if (argument == "--spacing") {
            const std::string value = NeedValue(kMpr, arguments, i);
            double spacing = 0;
            if (!ParseDouble(value, spacing) || spacing <= 0 || spacing > 1000)
                Wrong(argument, "a number of voxels above 0 and up to 1000", value);
            options.spacing = static_cast<float>(spacing);
        } else if (argument == "--size") {
            const std::string value = NeedValue(kMpr, arguments, i);
            const auto x = value.find('x');
            if (x == std::string::npos)
                Wrong(argument, "WxH", value);
            options.canvas.Width = ParseIntOption(kMpr, "--size width", std::string_view(value).substr(0, x), 1, 16384);
            options.canvas.Height = ParseIntOption(kMpr, "--size height", std::string_view(value).substr(x + 1), 1, 16384);
        } else if (argument == "--window") {
            const std::string value = NeedValue(kMpr, arguments, i);
            const auto slash = value.find('/');
            double centre = 0, width = 0;
            if (slash == std::string::npos || !ParseDouble(std::string_view(value).substr(0, slash), centre) ||
                !ParseDouble(std::string_view(value).substr(slash + 1), width) || width <= 0)
                Wrong(argument, "CENTRE/WIDTH with a width above 0", value);
            options.window = {centre, width};
        } else if (argument == "--bits") {
            const std::string value = NeedValue(kMpr, arguments, i);
            if (value != "8" && value != "16")
                Wrong(argument, "8 or 16", value);
            options.bits = value == "8" ? 8 : 16;
        } else if (argument == "--repeat") {
            options.repeat = ParseIntOption(kMpr, argument, NeedValue(kMpr, arguments, i), 1, 10000);
        } else if (argument.starts_with("-")) {
            throw UsageError(std::string(kMpr) + ": unknown option '" + argument + "' (see 'axr mpr --help')");
        } else if (options.source.input.empty()) {
            options.source.input = argument;
        } else {
            throw UsageError(std::string(kMpr) + ": a second input '" + argument + "' (see 'axr mpr --help')");
        }
    }
    if (options.source.input.empty())
        throw UsageError(std::string(kMpr) + ": no input given (see 'axr mpr --help')");
    if (options.output.empty())
        throw UsageError(std::string(kMpr) + ": --out FILE is required");
    if (options.kind != OutputKind::Png && options.bits == 8 &&
        std::find(arguments.begin(), arguments.end(), "--bits") != arguments.end())
        throw UsageError(std::string(kMpr) + ": --bits 8 is for .png; .pgm and .raw are always 16-bit");
    return options;
}

// The plane through the volume, fitted to the canvas as the demo fits its views: one
// scale for all three directions, so views of one volume line up.
[[nodiscard]] ViewPlane PlaneOf(const MprOptions& options, const ImageStack& stack)
{
    const Size dims = stack.ImageDimensions();
    const std::int32_t depth = stack.NumberOfImages();
    const double zFirst = stack[0].ZCoord(), zLast = stack[depth - 1].ZCoord();
    const double extent = std::max({static_cast<double>(dims.Width), static_cast<double>(dims.Height),
                                    zLast - zFirst + 1});
    const double spacing = extent / std::min(options.canvas.Width, options.canvas.Height);

    Vec3 centre{(dims.Width - 1) / 2.0, (dims.Height - 1) / 2.0, (zFirst + zLast) / 2.0};
    const Vec3 x{1, 0, 0}, y{0, 1, 0}, up{0, 0, -1};
    const auto place = [&](std::int32_t count, const char* what) {
        const std::int32_t p = options.position.value_or(count / 2);
        if (p >= count)
            throw UsageError(std::string(kMpr) + ": --position " + std::to_string(p) + " is beyond the last " + what +
                             " (" + std::to_string(count - 1) + ")");
        return p;
    };
    switch (options.view) {
    case ViewName::Axial:
        centre[2] = stack[place(depth, "slice")].ZCoord();
        return {centre, x, y, spacing};
    case ViewName::Coronal:
        centre[1] = place(dims.Height, "row");
        return {centre, x, up, spacing};
    case ViewName::Sagittal:
        centre[0] = place(dims.Width, "column");
        return {centre, y, up, spacing};
    }
    return {};
}

[[nodiscard]] double Median(std::vector<double> times)
{
    std::sort(times.begin(), times.end());
    const std::size_t n = times.size();
    return n % 2 == 1 ? times[n / 2] : (times[n / 2 - 1] + times[n / 2]) / 2;
}

void WriteOutput(const MprOptions& options, const MemoryRasterImage& canvas, bool isSigned,
                 std::uint16_t undefined)
{
    const std::vector<std::uint16_t> pixels = CanvasPixels(canvas);
    const std::int32_t width = canvas.Width(), height = canvas.Height();
    switch (options.kind) {
    case OutputKind::Pgm:
        WriteFileAtomically(options.output, EncodePgm16(width, height, pixels));
        return;
    case OutputKind::Raw:
        WriteFileAtomically(options.output, EncodeRaw16(pixels));
        return;
    case OutputKind::Png:
        if (options.bits == 16) {
            WriteGreyPng(options.output, width, height, std::span<const std::uint16_t>(pixels));
            return;
        }
        break;
    }
    // The window works on HU + 1024; signed samples are HU, so they move up to that
    // scale, where no signed value can reach the unsigned undefined mark.
    constexpr std::uint16_t kWindowUndefined = 0xFFFF;
    std::vector<std::uint16_t> stored(pixels.size());
    std::transform(pixels.begin(), pixels.end(), stored.begin(), [&](std::uint16_t value) -> std::uint16_t {
        if (value == undefined)
            return kWindowUndefined;
        if (!isSigned)
            return value;
        return static_cast<std::uint16_t>(std::max(0, static_cast<std::int16_t>(value) + 1024));
    });
    const auto grey = ApplyWindow(options.window, stored, kWindowUndefined);
    WriteGreyPng(options.output, width, height, std::span<const std::uint8_t>(grey));
}

int RunMpr(const MprOptions& options, std::ostream& out, std::ostream& err)
{
    auto stack = LoadVolume(kMpr, options.source);
    const ViewPlane plane = PlaneOf(options, *stack);
    const bool isSigned = IsSignedStack(*stack);
    const std::uint16_t undefined = isSigned ? 0x8000 : 0xFFFF;

    MemoryRasterImage canvas;
    canvas.Resize(GrayscalePixelFormat::Gray16(), options.canvas);
    if (canvas.OriginAddress() == nullptr)
        throw std::bad_alloc();
    MprRenderer renderer(Ax::Rendering::InterpolationMode::TriLinear);
    std::vector<double> times;
    for (std::int32_t run = 0; run < options.repeat; ++run) {
        try {
            times.push_back(RenderView(renderer, *stack, undefined, plane, options.mode, options.slices,
                                       options.spacing, canvas));
        } catch (const RenderFailure& e) {
            err << kMpr << ": the render " << e.what() << '\n';
            return kExitFailure;
        }
    }
    try {
        WriteOutput(options, canvas, isSigned, undefined);
    } catch (const std::exception& e) {
        err << kMpr << ": " << e.what() << '\n';
        return kExitFailure;
    }
    out << std::fixed << std::setprecision(2) << options.output.string() << "  " << options.canvas.Width << " x "
        << options.canvas.Height;
    if (options.repeat == 1)
        out << "  " << times.front() << " ms\n";
    else
        out << "  " << options.repeat << " renders: median " << Median(times) << " ms, lowest "
            << *std::min_element(times.begin(), times.end()) << " ms, highest "
            << *std::max_element(times.begin(), times.end()) << " ms\n";
    return kExitSuccess;
}

// Input problems are the user's to fix, like a wrong option: status 2.
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

}  // namespace

int InfoCommand(std::span<const std::string> arguments, std::ostream& out, std::ostream& err)
{
    VolumeSource source;
    for (std::size_t i = 0; i < arguments.size(); ++i) {
        const std::string& argument = arguments[i];
        if (argument == "--help" || argument == "-h") {
            out << kInfoHelp;
            return kExitSuccess;
        }
        if (ParseVolumeOption(kInfo, arguments, i, source))
            continue;
        if (argument.starts_with("-") || !source.input.empty())
            throw UsageError(std::string(kInfo) + ": unexpected argument '" + argument + "' (see 'axr info --help')");
        source.input = argument;
    }
    if (source.input.empty())
        throw UsageError(std::string(kInfo) + ": no input given (see 'axr info --help')");
    return GuardInput(kInfo, err, [&] {
        const auto stack = LoadVolume(kInfo, source);
        PrintInfo(source.input, *stack, out);
        return kExitSuccess;
    });
}

int MprCommand(std::span<const std::string> arguments, std::ostream& out, std::ostream& err)
{
    bool help = false;
    const MprOptions options = ParseMprArguments(arguments, help);
    if (help) {
        out << kMprHelp;
        return kExitSuccess;
    }
    return GuardInput(kMpr, err, [&] { return RunMpr(options, out, err); });
}

}  // namespace Axr
