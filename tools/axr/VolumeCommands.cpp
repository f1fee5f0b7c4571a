#include "VolumeCommands.h"

#include "CommandLine.h"
#include "FileOutput.h"
#include "PngWriter.h"
#include "RenderView.h"
#include "View.h"
#include "Progress.h"
#include "VolumeFile.h"
#include "VolumeInput.h"
#include "Window.h"

#include "ax/primitives/Matrix44.h"
#include "ax/rendering/ImageStack.h"
#include "ax/rendering/MemoryRasterImage.h"
#include "ax/rendering/MprRenderer.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <iomanip>
#include <limits>
#include <map>
#include <optional>
#include <vector>

namespace Axr {

namespace {

using Ax::Primitives::GrayscalePixelFormat;
using Ax::Primitives::Matrix44;
using Ax::Primitives::Size;
using Ax::Rendering::ImageStack;
using Ax::Rendering::MemoryRasterImage;
using Ax::Rendering::MprRenderer;
using Ax::Rendering::ProjectionMode;

constexpr std::string_view kInfo = "axr info";
constexpr std::string_view kMpr = "axr mpr";

constexpr const char* kInputHelp =
    "INPUT is one of:\n"
    "  phantom, phantom:N   the built-in head, N^3 voxels (default 256), 256 mm across\n"
    "  FOLDER               a DICOM series (the largest one there, or --series UID)\n"
    "  FILE.nrrd, .nhdr     NRRD, raw or gzip\n"
    "  FILE.mha, .mhd       MetaImage, raw or compressed\n"
    "  FILE.nii, .nii.gz    NIfTI-1\n"
    "  FILE                 headerless samples, slice after slice, described by\n"
    "                       --dims WxHxD --type u8|i8|u16|i16|u32|i32|f32|f64\n"
    "                       [--endian little|big] (1 mm voxels)\n"
    "Samples become 16-bit: CT values as Hounsfield + 1024 where they fit, else signed.\n";

constexpr const char* kInfoHelp =
    "Usage: axr info INPUT [--series UID] [--dims WxHxD --type T [--endian E]]\n"
    "\n"
    "Prints a volume's format, dimensions, voxel size, the z of its first and last\n"
    "slice and the slice gaps that differ from the most common one, its value range,\n"
    "signedness and padding, and what the reader chose or noticed.\n"
    "\n";

constexpr const char* kInfoExamples =
    "\n"
    "Examples:\n"
    "  axr info phantom:128\n"
    "  axr info ~/studies/head-ct/\n"
    "  axr info scan.raw --dims 512x512x300 --type i16 --endian big\n";

constexpr const char* kMprHelp =
    "Usage: axr mpr INPUT --out FILE [options]\n"
    "\n"
    "Renders one plane, or a slab projection around it, with the trilinear reformat\n"
    "and writes it to FILE. Geometry is in millimetres, from the volume's voxel size,\n"
    "so pictures have true proportions; the whole volume fits the canvas.\n"
    "\n"
    "The plane (one of):\n"
    "  --view V          axial, coronal or sagittal (default axial), with\n"
    "  --position P      the slice, row or column it passes through (default middle)\n"
    "  --normal X,Y,Z    its normal, with --center X,Y,Z (mm from the first voxel along\n"
    "                    columns, rows and slices; default the volume's centre) and\n"
    "                    --up X,Y,Z (the canvas's up; default the head, +z)\n"
    "  --matrix M        12 comma-separated numbers: the rows of the library's own\n"
    "                    volume-to-view matrix (volume: column, row, stack z; view:\n"
    "                    canvas pixel, slab step)\n"
    "The slab and the picture:\n"
    "  --mode M          mip, minip or mean over the slab (default mip)\n"
    "  --slices N        samples through the slab, 1 to 4096 (default 1: a plane)\n"
    "  --spacing S       voxels between slab samples, a voxel being the volume's\n"
    "                    smallest side (default 1)\n"
    "  --thickness MM    the slab's thickness instead of --slices\n"
    "  --size WxH        canvas pixels (default 512x512)\n"
    "  --out FILE        .png (8-bit windowed, or the canvas with --bits 16), .pgm\n"
    "                    (16-bit binary PGM) or .raw (the canvas, 16-bit little-endian)\n"
    "  --window C/W      display window in HU for 8-bit PNG (default 40/400); unsigned\n"
    "                    values are read as HU + 1024, signed ones as HU\n"
    "  --bits 8|16       PNG depth (default 8)\n"
    "Running:\n"
    "  --threads N       render threads, at most the processors the tool may use\n"
    "  --repeat N        render N times and print the median, lowest and highest time\n"
    "  --quiet           no progress bar and no summary line\n"
    "  -h, --help        this text\n"
    "\n"
    "Canvas pixels outside the volume are 65535 for unsigned data, -32768 for signed.\n"
    "Exit status: 0 written, 1 the render or the write failed, 2 wrong usage or input.\n"
    "\n";

constexpr const char* kMprExamples =
    "\n"
    "Examples:\n"
    "  axr mpr phantom:256 --view sagittal --out sagittal.png\n"
    "  axr mpr phantom --view coronal --mode mip --thickness 20 --window 300/1500 --out slab.png\n"
    "  axr mpr ~/studies/head-ct/ --normal 0,1,1 --out oblique.png\n"
    "  axr mpr volume.nrrd --view axial --position 120 --repeat 20 --threads 1 --out axial.pgm\n";

[[nodiscard]] bool IsSignedStack(const ImageStack& stack)
{
    const auto format = stack.PixelFormat();
    return format && format->IsSigned();
}

// ---- info --------------------------------------------------------------------------

void PrintInfo(const std::string& input, const Volume& volume, std::ostream& out)
{
    const ImageStack& stack = *volume.stack;
    const Size dims = stack.ImageDimensions();
    const std::int32_t depth = stack.NumberOfImages();
    const bool isSigned = IsSignedStack(stack);
    out << "input     " << input << " (" << volume.format << ")\n"
        << "size      " << dims.Width << " x " << dims.Height << " x " << depth << '\n'
        << "voxel     " << volume.columnSpacing << " x " << volume.rowSpacing << " mm, z unit " << volume.zUnit
        << " mm\n";
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
    if (volume.conversion.offset != 0)
        out << "stored    value + " << volume.conversion.offset << " (Hounsfield + 1024)\n";
    if (volume.conversion.rounded)
        out << "note      values rounded to whole numbers\n";
    for (const std::string& note : volume.notes)
        out << "note      " << note << '\n';
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
    std::optional<Vec3> normal, center, up;
    std::optional<Matrix44> matrix;
    ProjectionMode mode = ProjectionMode::Maximum;
    std::int32_t slices = 1;
    std::optional<double> thickness;
    float spacing = 1.0f;
    Size canvas{512, 512};
    Window window = Window::SoftTissue();
    std::int32_t bits = 8;
    std::int32_t repeat = 1;
    std::optional<std::int32_t> threads;
    bool quiet = false;
};

[[noreturn]] void Wrong(std::string_view option, std::string_view wants, std::string_view text)
{
    throw UsageError(std::string(kMpr) + ": " + std::string(option) + " wants " + std::string(wants) + ", not '" +
                     std::string(text) + "'");
}

[[nodiscard]] bool ParseDouble(std::string_view text, double& value)
{
    return ParseNumber(text, value) && std::isfinite(value);
}

// Comma-separated numbers, exactly `count` of them.
[[nodiscard]] std::vector<double> ParseList(std::string_view option, const std::string& text, std::size_t count)
{
    std::vector<double> values;
    std::string_view rest(text);
    while (values.size() < count) {
        const auto comma = std::min(rest.find(','), rest.size());
        double value = 0;
        if (!ParseDouble(Trim(rest.substr(0, comma)), value))
            break;
        values.push_back(value);
        if (comma == rest.size()) {
            rest = {};
            break;
        }
        rest.remove_prefix(comma + 1);
    }
    if (values.size() != count || !rest.empty())
        Wrong(option, std::to_string(count) + " comma-separated numbers", text);
    return values;
}

[[nodiscard]] Vec3 ParseVector(std::string_view option, const std::string& text)
{
    const auto v = ParseList(option, text, 3);
    return {v[0], v[1], v[2]};
}

[[nodiscard]] MprOptions ParseMprArguments(std::span<const std::string> arguments, bool& help)
{
    MprOptions options;
    help = false;
    bool slicesGiven = false, bitsGiven = false;
    for (std::size_t i = 0; i < arguments.size(); ++i) {
        const std::string& argument = arguments[i];
        if (argument == "--help" || argument == "-h") {
            help = true;
            return options;
        }
        if (ParseVolumeOption(kMpr, arguments, i, options.source))
            continue;
        if (argument == "--quiet") {
            options.quiet = true;
            continue;
        }
        if (!argument.starts_with("-")) {
            if (!options.source.input.empty())
                throw UsageError(std::string(kMpr) + ": a second input '" + argument + "' (see 'axr mpr --help')");
            options.source.input = argument;
            continue;
        }
        static constexpr std::string_view kValued[] = {
            "--out", "--view", "--mode", "--position", "--slices", "--spacing", "--thickness", "--size", "--window",
            "--bits", "--repeat", "--threads", "--normal", "--center", "--up", "--matrix"};
        if (std::find(std::begin(kValued), std::end(kValued), argument) == std::end(kValued))
            throw UsageError(std::string(kMpr) + ": unknown option '" + argument + "' (see 'axr mpr --help')");
        const std::string value = NeedValue(kMpr, arguments, i);
        if (argument == "--out") {
            options.output = value;
            const std::string extension = options.output.extension().string();
            if (extension == ".png")
                options.kind = OutputKind::Png;
            else if (extension == ".pgm")
                options.kind = OutputKind::Pgm;
            else if (extension == ".raw")
                options.kind = OutputKind::Raw;
            else
                Wrong(argument, "a .png, .pgm or .raw file", value);
        } else if (argument == "--view") {
            if (value == "axial")
                options.view = ViewName::Axial;
            else if (value == "coronal")
                options.view = ViewName::Coronal;
            else if (value == "sagittal")
                options.view = ViewName::Sagittal;
            else
                Wrong(argument, "axial, coronal or sagittal", value);
        } else if (argument == "--mode") {
            if (value == "mip")
                options.mode = ProjectionMode::Maximum;
            else if (value == "minip")
                options.mode = ProjectionMode::Minimum;
            else if (value == "mean")
                options.mode = ProjectionMode::Average;
            else
                Wrong(argument, "mip, minip or mean", value);
        } else if (argument == "--position") {
            options.position = ParseIntOption(kMpr, argument, value, 0, 65535);
        } else if (argument == "--slices") {
            options.slices = ParseIntOption(kMpr, argument, value, 1, 4096);
            slicesGiven = true;
        } else if (argument == "--spacing") {
            double spacing = 0;
            if (!ParseDouble(value, spacing) || spacing <= 0 || spacing > 1000)
                Wrong(argument, "a number of voxels above 0 and up to 1000", value);
            options.spacing = static_cast<float>(spacing);
        } else if (argument == "--thickness") {
            double thickness = 0;
            if (!ParseDouble(value, thickness) || thickness < 0 || thickness > 10000)
                Wrong(argument, "millimetres from 0 to 10000", value);
            options.thickness = thickness;
        } else if (argument == "--size") {
            const auto x = value.find('x');
            if (x == std::string::npos)
                Wrong(argument, "WxH", value);
            options.canvas.Width = ParseIntOption(kMpr, "--size width", std::string_view(value).substr(0, x), 1, 16384);
            options.canvas.Height = ParseIntOption(kMpr, "--size height", std::string_view(value).substr(x + 1), 1, 16384);
        } else if (argument == "--window") {
            const auto slash = value.find('/');
            double centre = 0, width = 0;
            if (slash == std::string::npos || !ParseDouble(std::string_view(value).substr(0, slash), centre) ||
                !ParseDouble(std::string_view(value).substr(slash + 1), width) || width <= 0)
                Wrong(argument, "CENTRE/WIDTH with a width above 0", value);
            options.window = {centre, width};
        } else if (argument == "--bits") {
            if (value != "8" && value != "16")
                Wrong(argument, "8 or 16", value);
            options.bits = value == "8" ? 8 : 16;
            bitsGiven = true;
        } else if (argument == "--repeat") {
            options.repeat = ParseIntOption(kMpr, argument, value, 1, 10000);
        } else if (argument == "--threads") {
            options.threads = ParseIntOption(kMpr, argument, value, 1, 1024);
        } else if (argument == "--normal") {
            options.normal = ParseVector(argument, value);
            if (Dot(*options.normal, *options.normal) == 0)
                Wrong(argument, "a direction, not zero", value);
        } else if (argument == "--center") {
            options.center = ParseVector(argument, value);
        } else if (argument == "--up") {
            options.up = ParseVector(argument, value);
        } else {  // --matrix
            const auto numbers = ParseList(argument, value, 12);
            Matrix44 matrix;
            for (int row = 0; row < 3; ++row)
                for (int column = 0; column < 4; ++column)
                    matrix(row, column) = numbers[static_cast<std::size_t>(4 * row + column)];
            const double determinant =
                matrix(0, 0) * (matrix(1, 1) * matrix(2, 2) - matrix(1, 2) * matrix(2, 1)) -
                matrix(0, 1) * (matrix(1, 0) * matrix(2, 2) - matrix(1, 2) * matrix(2, 0)) +
                matrix(0, 2) * (matrix(1, 0) * matrix(2, 1) - matrix(1, 1) * matrix(2, 0));
            if (std::fabs(determinant) < 1e-12)
                Wrong(argument, "an invertible matrix", value);
            options.matrix = matrix;
        }
    }
    const auto given = [&](std::string_view option) {
        return std::find(arguments.begin(), arguments.end(), option) != arguments.end();
    };
    if (options.source.input.empty())
        throw UsageError(std::string(kMpr) + ": no input given (see 'axr mpr --help')");
    if (options.output.empty())
        throw UsageError(std::string(kMpr) + ": --out FILE is required");
    if (options.kind != OutputKind::Png && options.bits == 8 && bitsGiven)
        throw UsageError(std::string(kMpr) + ": --bits 8 is for .png; .pgm and .raw are always 16-bit");
    if (options.thickness && slicesGiven)
        throw UsageError(std::string(kMpr) + ": --thickness and --slices both give the slab's depth; give one");
    const int planeForms = (given("--view") || given("--position") ? 1 : 0) + (options.matrix ? 1 : 0) +
                           (options.normal || options.center || options.up ? 1 : 0);
    if (planeForms > 1)
        throw UsageError(std::string(kMpr) +
                         ": give the plane one way: --view/--position, --normal/--center/--up, or --matrix");
    if ((options.center || options.up) && !options.normal)
        throw UsageError(std::string(kMpr) + ": --center and --up go with --normal");
    if (options.matrix && options.thickness)
        throw UsageError(std::string(kMpr) + ": --thickness needs the tool's own geometry, not --matrix; use --slices");
    return options;
}

// The millimetre geometry of a volume, as the tool places views in it.
struct Extent {
    Vec3 voxelSize;  // mm per column, row and stack z unit
    Vec3 low, high;  // the first and the last voxel, in mm
    double finest;   // the smallest voxel side: the unit of --spacing
};

[[nodiscard]] Extent ExtentOf(const Volume& volume)
{
    const ImageStack& stack = *volume.stack;
    const Size dims = stack.ImageDimensions();
    const Vec3 size{volume.columnSpacing, volume.rowSpacing, volume.zUnit};
    const double zFirst = stack[0].ZCoord(), zLast = stack[stack.NumberOfImages() - 1].ZCoord();
    return {size,
            {0, 0, zFirst * size[2]},
            {(dims.Width - 1) * size[0], (dims.Height - 1) * size[1], zLast * size[2]},
            std::min({size[0], size[1], size[2]})};
}

// The plane through the volume, fitted to the canvas as the demo fits its views: one
// scale for all three directions, so views of one volume line up.
[[nodiscard]] ViewPlane PlaneOf(const MprOptions& options, const Volume& volume)
{
    const ImageStack& stack = *volume.stack;
    const Size dims = stack.ImageDimensions();
    const std::int32_t depth = stack.NumberOfImages();
    const Extent extent = ExtentOf(volume);
    double largest = 0;
    for (int axis = 0; axis < 3; ++axis)
        largest = std::max(largest, extent.high[axis] - extent.low[axis] + extent.voxelSize[axis]);

    ViewPlane plane;
    plane.pixelSpacing = largest / std::min(options.canvas.Width, options.canvas.Height);
    plane.voxelSize = extent.voxelSize;
    plane.depthUnit = extent.finest;
    for (int axis = 0; axis < 3; ++axis)
        plane.centre[axis] = (extent.low[axis] + extent.high[axis]) / 2;
    if (options.normal) {
        const Vec3 normal = Normalized(*options.normal);
        const Vec3 head{0, 0, 1}, front{0, -1, 0};
        const Vec3 up = Normalized(options.up.value_or(std::fabs(Dot(normal, head)) > 0.99 ? front : head));
        // Down is the opposite of up, made square to the normal.
        const double along = Dot(up, normal);
        const Vec3 down = Normalized({normal[0] * along - up[0], normal[1] * along - up[1], normal[2] * along - up[2]});
        if (std::fabs(along) > 0.999 || Dot(up, up) == 0)
            throw UsageError(std::string(kMpr) + ": --up must not run along --normal");
        plane.down = down;
        plane.across = Cross(down, normal);
        plane.centre = options.center.value_or(plane.centre);
        return plane;
    }
    const auto place = [&](std::int32_t count, const char* what) {
        const std::int32_t p = options.position.value_or(count / 2);
        if (p >= count)
            throw UsageError(std::string(kMpr) + ": --position " + std::to_string(p) + " is beyond the last " + what +
                             " (" + std::to_string(count - 1) + ")");
        return p;
    };
    const Vec3 x{1, 0, 0}, y{0, 1, 0}, towardFeet{0, 0, -1};
    switch (options.view) {
    case ViewName::Axial:
        plane.centre[2] = stack[place(depth, "slice")].ZCoord() * extent.voxelSize[2];
        break;
    case ViewName::Coronal:
        plane.centre[1] = place(dims.Height, "row") * extent.voxelSize[1];
        plane.down = towardFeet;
        break;
    case ViewName::Sagittal:
        plane.centre[0] = place(dims.Width, "column") * extent.voxelSize[0];
        plane.across = y;
        plane.down = towardFeet;
        break;
    }
    if (options.view != ViewName::Sagittal)
        plane.across = x;
    return plane;
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
    if (options.threads)
        LimitRenderThreads(kMpr, *options.threads);
    const Volume volume = LoadVolume(kMpr, options.source);
    ImageStack& stack = *volume.stack;
    const bool isSigned = IsSignedStack(stack);
    const std::uint16_t undefined = isSigned ? 0x8000 : 0xFFFF;

    Matrix44 volumeToView;
    std::int32_t slices = options.slices;
    if (options.matrix) {
        volumeToView = *options.matrix;
    } else {
        const ViewPlane plane = PlaneOf(options, volume);
        volumeToView = VolumeToView(plane, options.canvas);
        if (options.thickness)
            slices = static_cast<std::int32_t>(
                std::clamp(std::lround(*options.thickness / (options.spacing * plane.depthUnit)) + 1, 1L, 4096L));
    }

    MemoryRasterImage canvas;
    canvas.Resize(GrayscalePixelFormat::Gray16(), options.canvas);
    if (canvas.OriginAddress() == nullptr)
        throw std::bad_alloc();
    MprRenderer renderer(Ax::Rendering::InterpolationMode::TriLinear);
    std::vector<double> times;
    {
        Progress progress(err, std::string(kMpr), options.repeat, Progress::WantedOnStderr(options.quiet));
        for (std::int32_t run = 0; run < options.repeat; ++run) {
            try {
                times.push_back(RenderView(renderer, stack, undefined, volumeToView, options.mode, slices,
                                           options.spacing, canvas, &progress));
            } catch (const RenderFailure& e) {
                err << kMpr << ": the render " << e.what() << '\n';
                return kExitFailure;
            }
            progress.Advance();
        }
    }
    try {
        WriteOutput(options, canvas, isSigned, undefined);
    } catch (const std::exception& e) {
        err << kMpr << ": " << e.what() << '\n';
        return kExitFailure;
    }
    if (options.quiet)
        return kExitSuccess;
    out << std::fixed << std::setprecision(2) << options.output.string() << "  " << options.canvas.Width << " x "
        << options.canvas.Height;
    if (slices > 1)
        out << ", " << slices << " samples";
    if (options.repeat == 1)
        out << "  " << times.front() << " ms\n";
    else
        out << "  " << options.repeat << " renders: median " << Median(times) << " ms, lowest "
            << *std::min_element(times.begin(), times.end()) << " ms, highest "
            << *std::max_element(times.begin(), times.end()) << " ms\n";
    return kExitSuccess;
}

}  // namespace

int InfoCommand(std::span<const std::string> arguments, std::ostream& out, std::ostream& err)
{
    VolumeSource source;
    for (std::size_t i = 0; i < arguments.size(); ++i) {
        const std::string& argument = arguments[i];
        if (argument == "--help" || argument == "-h") {
            out << kInfoHelp << kInputHelp << kInfoExamples;
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
        const Volume volume = LoadVolume(kInfo, source);
        PrintInfo(source.input, volume, out);
        return kExitSuccess;
    });
}

int MprCommand(std::span<const std::string> arguments, std::ostream& out, std::ostream& err)
{
    bool help = false;
    const MprOptions options = ParseMprArguments(arguments, help);
    if (help) {
        out << kMprHelp << kInputHelp << kMprExamples;
        return kExitSuccess;
    }
    return GuardInput(kMpr, err, [&] { return RunMpr(options, out, err); });
}

}  // namespace Axr
