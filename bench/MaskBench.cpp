// Masks of a 512^3 volume through the public BitVolume, on all cores: a threshold of
// the built-in phantom at bone (300 HU), the set algebra of two bone-like masks
// (bone at 300 HU and at 700 HU), a dilation by one voxel, downsizing by 2, and the
// persisted form written to and read from memory. Each row reports voxels_per_second
// over the 512^3 voxels of the volume.
//
// Targets on this 2-core machine (2 threads): the threshold within 1.5 times the
// time to read the 256 MiB stack, about 15 ms; union, intersection and xor of two
// bone masks within 3 ms each; a dilation by one voxel within 20 ms.
//
// ReadStack is the yardstick: one pass over every slice's pixels, summed on all
// cores as the threshold reads them.

#include "Phantom.h"

#include "ax/rendering/BitVolume.h"
#include "ax/rendering/ImageStack.h"
#include "ax/rendering/Initializer.h"
#include "ax/system/SerializationInfo.h"

#include <benchmark/benchmark.h>

#include <cstdint>
#include <cstring>
#include <memory>
#include <sstream>
#include <thread>
#include <vector>

namespace {

using Ax::Rendering::BitVolume;

constexpr std::int32_t kSize = 512;
constexpr std::int32_t kBone = 300 + 1024;
constexpr std::int32_t kDenseBone = 700 + 1024;

struct Fixture {
    std::unique_ptr<Ax::Rendering::ImageStack> stack;
    std::shared_ptr<BitVolume> bone, denseBone;

    Fixture()
    {
        Ax::Rendering::Initializer::Initialize();
        stack = Axr::MakePhantom({.size = kSize});
        bone = std::make_shared<BitVolume>(*stack, kSize, kBone);
        denseBone = std::make_shared<BitVolume>(*stack, kSize, kDenseBone);
    }
};

Fixture& Data()
{
    static Fixture fixture;
    return fixture;
}

void Report(benchmark::State& state)
{
    state.counters["voxels_per_second"] = benchmark::Counter(
        static_cast<double>(kSize) * kSize * kSize * static_cast<double>(state.iterations()),
        benchmark::Counter::kIsRate);
}

void ReadStack(benchmark::State& state)
{
    const auto& stack = *Data().stack;
    const std::int32_t threads = static_cast<std::int32_t>(std::max(1u, std::thread::hardware_concurrency()));
    for (auto _ : state) {
        std::vector<std::thread> workers;
        std::vector<std::uint64_t> sums(static_cast<std::size_t>(threads));
        for (std::int32_t t = 0; t < threads; ++t)
            workers.emplace_back([&, t] {
                std::uint64_t sum = 0;
                for (std::int32_t z = t; z < kSize; z += threads) {
                    const auto& image = *stack[z].Image();
                    for (std::int32_t y = 0; y < kSize; ++y) {
                        const std::uint8_t* row = image.GetPixelAddress(0, y);
                        for (std::int32_t x = 0; x < 2 * kSize; x += 8) {
                            std::uint64_t word;
                            std::memcpy(&word, row + x, sizeof word);
                            sum += word;
                        }
                    }
                }
                sums[static_cast<std::size_t>(t)] = sum;
            });
        for (auto& worker : workers)
            worker.join();
        benchmark::DoNotOptimize(sums.data());
    }
    Report(state);
}

void Threshold(benchmark::State& state)
{
    const auto& stack = *Data().stack;
    for (auto _ : state)
        benchmark::DoNotOptimize(BitVolume(stack, kSize, kBone).Width());
    Report(state);
}

template <std::shared_ptr<BitVolume> (BitVolume::*Operation)(const BitVolume&) const>
void SetOperation(benchmark::State& state)
{
    const auto& data = Data();
    for (auto _ : state)
        benchmark::DoNotOptimize(((*data.bone).*Operation)(*data.denseBone));
    Report(state);
}

void Invert(benchmark::State& state)
{
    for (auto _ : state)
        benchmark::DoNotOptimize(Data().bone->Invert());
    Report(state);
}

void Dilate(benchmark::State& state)
{
    for (auto _ : state)
        benchmark::DoNotOptimize(Data().bone->CubicDilate(1));
    Report(state);
}

void DownsizeBy2(benchmark::State& state)
{
    for (auto _ : state)
        benchmark::DoNotOptimize(Data().bone->WithBoundsDownsized(kSize / 2, kSize / 2, kSize / 2));
    Report(state);
}

void PersistedFormWrite(benchmark::State& state)
{
    for (auto _ : state) {
        Ax::System::SerializationInfo info;
        Data().bone->GetObjectData(info);
        std::ostringstream out;
        info.Write(out);
        benchmark::DoNotOptimize(out.tellp());
    }
    Report(state);
}

void PersistedFormRead(benchmark::State& state)
{
    Ax::System::SerializationInfo info;
    Data().bone->GetObjectData(info);
    std::ostringstream out;
    info.Write(out);
    const std::string bytes = out.str();
    for (auto _ : state) {
        std::istringstream in(bytes);
        benchmark::DoNotOptimize(BitVolume(Ax::System::SerializationInfo::Read(in)).Width());
    }
    Report(state);
}

BENCHMARK(ReadStack)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(Threshold)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(SetOperation<&BitVolume::Union>)->Name("Union")->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(SetOperation<&BitVolume::Intersection>)->Name("Intersection")->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(SetOperation<&BitVolume::Xor>)->Name("Xor")->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(Invert)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(Dilate)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(DownsizeBy2)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(PersistedFormWrite)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(PersistedFormRead)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace
