#include "Demo.h"

#include "CommandLine.h"
#include "Phantom.h"
#include "FileOutput.h"
#include "PngWriter.h"
#include "Progress.h"
#include "RenderView.h"
#include "View.h"
#include "Window.h"

#include "ax/rendering/ImageStack.h"
#include "ax/rendering/Initializer.h"
#include "ax/rendering/MemoryRasterImage.h"
#include "ax/rendering/MprRenderer.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstring>
#include <iomanip>
#include <vector>

namespace Axr {

namespace {

using Ax::Primitives::GrayscalePixelFormat;
using Ax::Primitives::Size;
using Ax::Rendering::ImageStack;
using Ax::Rendering::MemoryRasterImage;
using Ax::Rendering::MprRenderer;
using Ax::Rendering::ProjectionMode;

constexpr std::string_view kContext = "axr demo";
constexpr Size kCanvas{512, 512};
// No phantom value comes near it, so it marks canvas pixels outside the volume.
constexpr std::uint16_t kUndefined = 0xFFFF;
constexpr double kSlabMillimetres = 20.0;

constexpr const char* kHelp =
    "Usage: axr demo [--out DIR] [--size N] [--threads N] [--uneven-spacing]\n"
    "\n"
    "Builds the procedural head-and-neck CT phantom (N^3 voxels, 256 mm across) and\n"
    "renders trilinear reformats of it on 512 x 512 canvases: axial, coronal,\n"
    "sagittal, an oblique plane, and the highest, lowest and mean projection of a\n"
    "20 mm oblique slab. Writes one 8-bit PNG per view (bone window 300/1500 for the\n"
    "highest projection, soft tissue 40/400 for the rest) and prints its path and\n"
    "render time.\n"
    "\n"
    "Options:\n"
    "  --out DIR         folder for the pictures, made when missing (default demo-output)\n"
    "  --size N          phantom voxels per axis, 16 to 1024 (default 256)\n"
    "  --threads N       threads that generate and render, at most the processors the\n"
    "                    tool may use (default: all of them)\n"
    "  --uneven-spacing  widen a few slice gaps to two voxels\n"
    "  -h, --help        this text\n"
    "\n"
    "Examples:\n"
    "  axr demo\n"
    "  axr demo --out /tmp/pictures --size 512\n"
    "  axr demo --size 64 --threads 1 --uneven-spacing\n";

struct DemoView {
    const char* name;
    ViewPlane plane;
    ProjectionMode mode;
    std::int32_t sliceCount;
    float sliceSpacing;
    Window window;
};

[[nodiscard]] Vec3 VoxelOf(const double (&normalized)[3], std::int32_t size)
{
    return {PhantomVoxelOf(normalized[0], size), PhantomVoxelOf(normalized[1], size),
            PhantomVoxelOf(normalized[2], size)};
}

[[nodiscard]] std::vector<DemoView> DemoViews(const ImageStack& stack, std::int32_t size)
{
    // The whole volume fits the canvas in every direction.
    const double zExtent = stack.MaximumPoint().Z - stack.MinimumPoint().Z + 1;
    const double extent = std::max<double>(size, zExtent);
    const double spacing = extent / std::min(kCanvas.Width, kCanvas.Height);

    const Vec3 x{1, 0, 0}, y{0, 1, 0}, z{0, 0, 1}, up{0, 0, -1};
    const double ventricles[3] = {0.0, 0.0, PhantomLandmarks::kVentricleZ};
    const double vessels[3] = {0.0, 0.0, 0.0};
    const Vec3 brain = VoxelOf(PhantomLandmarks::kBrainCentre, size);

    // Axial: the patient's right on the left, the face at the top. Coronal and
    // sagittal: the head at the top, the face on the left of the sagittal.
    const ViewPlane axial{VoxelOf(ventricles, size), x, y, spacing};
    const ViewPlane coronal{VoxelOf(vessels, size), x, up, spacing};
    const ViewPlane sagittal{brain, y, up, spacing};
    // Tipped forward and turned a little: through the eyes and the ventricles at once.
    const ViewPlane oblique{brain, Rotate(Rotate(x, x, 20), z, 15), Rotate(Rotate(y, x, 20), z, 15), spacing};
    // A coronal slab turned about the vertical, so the neck vessels run through it.
    const ViewPlane slab{VoxelOf(vessels, size), Rotate(x, z, 20), Rotate(up, z, 20), spacing};

    const double slabVoxels = kSlabMillimetres / PhantomVoxelMillimetres(size);
    const auto slabSamples = static_cast<std::int32_t>(std::lround(slabVoxels)) + 1;
    const Window soft = Window::SoftTissue();
    return {
        {"axial", axial, ProjectionMode::Maximum, 1, 1.0f, soft},
        {"coronal", coronal, ProjectionMode::Maximum, 1, 1.0f, soft},
        {"sagittal", sagittal, ProjectionMode::Maximum, 1, 1.0f, soft},
        {"oblique", oblique, ProjectionMode::Maximum, 1, 1.0f, soft},
        {"slab-mip", slab, ProjectionMode::Maximum, slabSamples, 1.0f, Window::Bone()},
        {"slab-minip", slab, ProjectionMode::Minimum, slabSamples, 1.0f, soft},
        {"slab-mean", slab, ProjectionMode::Average, slabSamples, 1.0f, soft},
    };
}

}  // namespace

DemoOptions ParseDemoArguments(std::span<const std::string> arguments, bool& help)
{
    DemoOptions options;
    help = false;
    for (std::size_t i = 0; i < arguments.size(); ++i) {
        const std::string& argument = arguments[i];
        if (argument == "--help" || argument == "-h") {
            help = true;
        } else if (argument == "--out") {
            options.outputFolder = NeedValue(kContext, arguments, i);
            if (options.outputFolder.empty())
                throw UsageError(std::string(kContext) + ": --out needs a folder");
        } else if (argument == "--size") {
            options.size = ParseIntOption(kContext, argument, NeedValue(kContext, arguments, i), 16, 1024);
        } else if (argument == "--threads") {
            options.threads = ParseIntOption(kContext, argument, NeedValue(kContext, arguments, i), 1, 1024);
        } else if (argument == "--uneven-spacing") {
            options.unevenSpacing = true;
        } else {
            throw UsageError(std::string(kContext) + ": unknown argument '" + argument + "' (see 'axr demo --help')");
        }
    }
    return options;
}

int RunDemo(const DemoOptions& options, std::ostream& out, std::ostream& err)
{
    const std::string failed = std::string(kContext) + ": ";
    std::error_code error;
    std::filesystem::create_directories(options.outputFolder, error);
    if (error) {
        err << failed << "cannot make " << options.outputFolder.string() << ": " << error.message() << '\n';
        return kExitFailure;
    }

    Ax::Rendering::Initializer::Initialize();
    const auto start = std::chrono::steady_clock::now();
    const auto stack = MakePhantom({options.size, options.unevenSpacing, options.threads});
    out << std::fixed << std::setprecision(1) << "phantom " << options.size << "^3"
        << (options.unevenSpacing ? " (uneven spacing)" : "") << " generated in " << MillisecondsSince(start)
        << " ms\n";

    MemoryRasterImage canvas;
    canvas.Resize(GrayscalePixelFormat::Gray16(), kCanvas);
    MprRenderer renderer(Ax::Rendering::InterpolationMode::TriLinear);
    for (const DemoView& view : DemoViews(*stack, options.size)) {
        double renderMs = 0;
        try {
            renderMs = RenderView(renderer, *stack, kUndefined, VolumeToView(view.plane, kCanvas), view.mode,
                                  view.sliceCount, view.sliceSpacing, canvas);
        } catch (const RenderFailure& e) {
            err << failed << view.name << ' ' << e.what() << '\n';
            return kExitFailure;
        }
        const std::filesystem::path path = options.outputFolder / (std::string(view.name) + ".png");
        try {
            const auto grey = ApplyWindow(view.window, CanvasPixels(canvas), kUndefined);
            WriteGreyPng(path, canvas.Width(), canvas.Height(), std::span<const std::uint8_t>(grey));
        } catch (const std::exception& e) {
            err << failed << e.what() << '\n';
            return kExitFailure;
        }
        out << std::left << std::setw(11) << view.name << std::right << std::setw(8) << renderMs << " ms  "
            << path.string() << '\n';
    }
    return kExitSuccess;
}

int DemoCommand(std::span<const std::string> arguments, std::ostream& out, std::ostream& err)
{
    bool help = false;
    const DemoOptions options = ParseDemoArguments(arguments, help);
    if (help) {
        out << kHelp;
        return kExitSuccess;
    }
    if (options.threads > 0)
        LimitRenderThreads(kContext, options.threads);
    try {
        return RunDemo(options, out, err);
    } catch (const std::exception& e) {
        err << std::string(kContext) << ": " << e.what() << '\n';
        return kExitFailure;
    }
}

}  // namespace Axr
