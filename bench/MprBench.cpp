// The slab reformat on a 512 x 512 canvas through a generated stack of 256^3 and
// 512^3 16-bit voxels (smooth structure plus noise): an axial plane; an oblique
// plane and a 32-sample oblique slab in MIP and AVIP, both for a view tilted 30
// degrees about the x axis (canvas rows stay along image rows, so every row of a
// sample lies in one slice pair) and for a double oblique view, tilted 30 degrees
// about x and then 20 degrees about y (each canvas row crosses slices); on 1 and 2
// threads, with the AVX2 body (isa:2) and the AVX-512 body (isa:3; skipped where the
// processor lacks it). The counter ns_per_sample is the real time of a frame over
// canvas pixels x samples.
//
// Targets, with 2 threads: an oblique plane within 1 ms per frame, a 32-sample
// oblique slab within 8 ms per frame, and near-linear scaling, the 2-thread rows at
// most 0.55 of the time of the 1-thread rows of the same case.

#include "base/QelIsa.h"
#include "graphics/QelRenderSpec.h"
#include "image/QelMemoryRasterImage.h"
#include "image/QelRgbColorSpec.h"
#include "image_stack/QelImageStack.h"
#include "mpr/QelImageStackSlabMprRenderer.h"

#include <benchmark/benchmark.h>

#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <map>
#include <memory>
#include <random>

namespace {

constexpr std::int32_t kCanvas = 512;

// A stack of `dim` slices of dim x dim, one voxel apart: a few soft spheres and a
// ramp, plus uniform noise of +-64, so that neither the data nor the interpolation
// is trivial.
const QelImageStack& Stack(std::int32_t dim)
{
    static std::map<std::int32_t, std::unique_ptr<QelImageStack>> stacks;
    std::unique_ptr<QelImageStack>& stack = stacks[dim];
    if (stack)
        return *stack;
    stack = QelImageStack::New();
    std::mt19937 rng(7);
    std::uniform_int_distribution<int> noise(-64, 64);
    const float scale = 1.0f / static_cast<float>(dim);
    for (std::int32_t z = 0; z < dim; ++z) {
        std::unique_ptr<QelMemoryRasterImage> slice = QelMemoryRasterImage::New(nullptr);
        if (!slice->Resize(2, {0, dim - 1}, {0, dim - 1}))
            std::abort();
        for (std::int32_t y = 0; y < dim; ++y) {
            auto* row = slice->PixelAddress(0, y);
            for (std::int32_t x = 0; x < dim; ++x) {
                const float u = x * scale - 0.5f, v = y * scale - 0.5f, w = z * scale - 0.5f;
                const float r = std::sqrt(u * u + v * v + w * w);
                const float smooth = 1000.0f + 2000.0f * std::exp(-20.0f * r * r) + 800.0f * (u + 0.5f) +
                                     1500.0f * std::exp(-200.0f * ((u - 0.2f) * (u - 0.2f) + v * v + w * w));
                const auto value = static_cast<std::uint16_t>(smooth + static_cast<float>(noise(rng)));
                std::memcpy(row + 2 * x, &value, sizeof value);
            }
        }
        if (!stack->InsertImage(slice.release(), static_cast<float>(z), true, false))
            std::abort();
    }
    (void)stack->FixedPointAccelerator();
    return *stack;
}

enum class Tilt { None, AboutX, AboutXThenY };

// Canvas to volume: the canvas covers the volume, centred on its middle.
QelMatrix34 View(std::int32_t dim, Tilt tilt)
{
    const float pixel = static_cast<float>(dim) / kCanvas;
    QelVector3 across{pixel, 0.0f, 0.0f};
    QelVector3 down{0.0f, pixel, 0.0f};
    QelVector3 normal{0.0f, 0.0f, 1.0f};
    if (tilt != Tilt::None) {
        constexpr double kDegree = 3.14159265358979 / 180.0;
        const QelMatrix34 turn = QelMatrix34::RotAx(1, (tilt == Tilt::AboutXThenY ? 20.0 : 0.0) * kDegree) *
                                 QelMatrix34::RotAx(0, 30.0 * kDegree);
        turn.TransformVector(QelVector3(across), across);
        turn.TransformVector(QelVector3(down), down);
        turn.TransformVector(QelVector3(normal), normal);
    }
    const float middle = 0.5f * static_cast<float>(dim - 1);
    const QelVector3 centre{middle, middle, middle};
    const QelVector3 origin = centre - across * (0.5f * kCanvas) - down * (0.5f * kCanvas);
    QelMatrix34 canvasToVolume;
    for (int row = 0; row < 3; ++row) {
        canvasToVolume.SetElem(row, 0, across[row]);
        canvasToVolume.SetElem(row, 1, down[row]);
        canvasToVolume.SetElem(row, 2, normal[row]);
        canvasToVolume.SetElem(row, 3, origin[row]);
    }
    return canvasToVolume.Inverse();
}

void Reformat(benchmark::State& state, Tilt tilt, std::int32_t samples, QelSlabMode::QelSlabModeEnum mode)
{
    const auto threads = static_cast<int>(state.range(0));
    const auto dim = static_cast<std::int32_t>(state.range(1));
    const auto isa = static_cast<QelIsa>(state.range(2));
    if (!QelIsaSupported(isa)) {
        state.SkipWithError("the processor lacks this level");
        return;
    }
    const QelIsaLimit limit(isa);
    QelImageStack& stack = const_cast<QelImageStack&>(Stack(dim));
    std::unique_ptr<QelMemoryRasterImage> canvas = QelMemoryRasterImage::New(nullptr);
    if (!canvas->Resize(2, {0, kCanvas - 1}, {0, kCanvas - 1})) {
        state.SkipWithError("no canvas");
        return;
    }
    QelRenderSpec spec;
    spec.SetCanvas(canvas.get());
    spec.SetSlabCenterTransform(View(dim, tilt));
    spec.SetSlabMode(mode);
    spec.SetSampleSliceNumber(samples);
    spec.SetCurrSliceSpacing(1.0f);
    spec.SetUndefinedPixelVal(QelPixelVariant::SixteenBitGrey(0));
    std::unique_ptr<QelImageStackSlabMprRenderer> renderer = QelImageStackSlabMprRenderer::New(nullptr, threads);

    const auto start = std::chrono::steady_clock::now();
    for (auto _ : state) {
        bool running = renderer->StartDraw(&stack, &spec);
        while (running && !renderer->IsDone())
            running = renderer->Step();
        if (!running) {
            state.SkipWithError("render failed");
            return;
        }
        benchmark::DoNotOptimize(canvas->OriginAddress());
        benchmark::ClobberMemory();
    }
    // Timed here, on the wall clock: the pool's work is invisible to the caller's CPU time.
    const double elapsedNs = std::chrono::duration<double, std::nano>(std::chrono::steady_clock::now() - start).count();
    const double perFrame = double{kCanvas} * kCanvas * samples;
    state.SetItemsProcessed(static_cast<std::int64_t>(static_cast<double>(state.iterations()) * perFrame));
    state.counters["ns_per_sample"] = elapsedNs / (static_cast<double>(state.iterations()) * perFrame);
}

void Cases(benchmark::internal::Benchmark* b)
{
    // The two widest levels side by side: what the 512-bit body gains over the 256-bit one.
    b->ArgsProduct({{1, 2}, {256, 512}, {static_cast<int>(QelIsa::Avx2), static_cast<int>(QelIsa::Avx512)}})
        ->ArgNames({"threads", "dim", "isa"})
        ->UseRealTime()
        ->Unit(benchmark::kMillisecond);
}

BENCHMARK_CAPTURE(Reformat, AxialPlane, Tilt::None, 1, QelSlabMode::MIP)->Apply(Cases);
BENCHMARK_CAPTURE(Reformat, ObliquePlane, Tilt::AboutX, 1, QelSlabMode::MIP)->Apply(Cases);
BENCHMARK_CAPTURE(Reformat, ObliqueSlab32Mip, Tilt::AboutX, 32, QelSlabMode::MIP)->Apply(Cases);
BENCHMARK_CAPTURE(Reformat, ObliqueSlab32Avip, Tilt::AboutX, 32, QelSlabMode::AVIP)->Apply(Cases);
BENCHMARK_CAPTURE(Reformat, DoubleObliquePlane, Tilt::AboutXThenY, 1, QelSlabMode::MIP)->Apply(Cases);
BENCHMARK_CAPTURE(Reformat, DoubleObliqueSlab32Mip, Tilt::AboutXThenY, 32, QelSlabMode::MIP)->Apply(Cases);
BENCHMARK_CAPTURE(Reformat, DoubleObliqueSlab32Avip, Tilt::AboutXThenY, 32, QelSlabMode::AVIP)->Apply(Cases);

}  // namespace
