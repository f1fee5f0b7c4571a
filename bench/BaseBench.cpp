// The vector bodies of the matrix operations against the scalar ones, and the
// price of the dispatch that the member functions add.
//
// Targets, as ratios of rows of one run: Multiply at Sse2 at least 1.5x the
// speed of Scalar; TransformPoint at Sse2 no slower than Scalar; the dispatched
// member functions within 1.5x of the best body called directly.

#include "base/QelIsa.h"
#include "base/QelMatrix34.h"

#include <benchmark/benchmark.h>

#include <array>
#include <cstddef>
#include <random>

namespace {

constexpr std::size_t kCount = 256;  // operands per pass, so that no result is known in advance

struct Operands {
    std::array<QelMatrix34, kCount> matrices;
    std::array<QelVector3, kCount> points;
};

const Operands& MakeOperands()
{
    static const Operands operands = [] {
        Operands made;
        std::mt19937 random(1);
        std::uniform_real_distribution<float> value(-10.0f, 10.0f);
        for (std::size_t i = 0; i < kCount; ++i) {
            std::array<float, QelMatrix34::kCount> elements;
            for (float& element : elements)
                element = value(random);
            made.matrices[i] = QelMatrix34(elements);
            made.points[i] = QelVector3(value(random), value(random), value(random));
        }
        return made;
    }();
    return operands;
}

bool SkipUnsupported(benchmark::State& state, QelIsa isa)
{
    if (QelIsaSupported(isa))
        return false;
    state.SkipWithError("ISA not supported here");
    return true;
}

void BM_Matrix34Multiply(benchmark::State& state)
{
    const auto isa = static_cast<QelIsa>(state.range(0));
    if (SkipUnsupported(state, isa))
        return;
    const QelMatrix34Kernels& kernels = QelMatrix34KernelsFor(isa);
    const Operands& operands = MakeOperands();
    alignas(16) float product[QelMatrix34::kCount];
    for (auto _ : state) {
        for (std::size_t i = 0; i + 1 < kCount; ++i) {
            kernels.multiply(operands.matrices[i].Data(), operands.matrices[i + 1].Data(), product);
            benchmark::DoNotOptimize(product);
        }
    }
    state.SetItemsProcessed(state.iterations() * (kCount - 1));
    state.SetLabel(QelIsaName(isa));
}
BENCHMARK(BM_Matrix34Multiply)->Arg(0)->Arg(1)->Arg(2)->ArgName("isa");

void BM_Matrix34TransformPoint(benchmark::State& state)
{
    const auto isa = static_cast<QelIsa>(state.range(0));
    if (SkipUnsupported(state, isa))
        return;
    const QelMatrix34Kernels& kernels = QelMatrix34KernelsFor(isa);
    const Operands& operands = MakeOperands();
    const QelMatrix34& matrix = operands.matrices[0];
    float out[3];
    for (auto _ : state) {
        for (const QelVector3& point : operands.points) {
            kernels.transformPoint(matrix.Data(), point.Data(), out);
            benchmark::DoNotOptimize(out);
        }
    }
    state.SetItemsProcessed(state.iterations() * kCount);
    state.SetLabel(QelIsaName(isa));
}
BENCHMARK(BM_Matrix34TransformPoint)->Arg(0)->Arg(1)->Arg(2)->ArgName("isa");

void BM_Matrix34MemberMultiply(benchmark::State& state)
{
    const Operands& operands = MakeOperands();
    for (auto _ : state) {
        for (std::size_t i = 0; i + 1 < kCount; ++i) {
            QelMatrix34 product = operands.matrices[i].Multiply(operands.matrices[i + 1]);
            benchmark::DoNotOptimize(product);
        }
    }
    state.SetItemsProcessed(state.iterations() * (kCount - 1));
    state.SetLabel(QelIsaName(QelBestIsa()));
}
BENCHMARK(BM_Matrix34MemberMultiply);

void BM_Matrix34MemberTransformPoint(benchmark::State& state)
{
    const Operands& operands = MakeOperands();
    const QelMatrix34& matrix = operands.matrices[0];
    QelVector3 out;
    for (auto _ : state) {
        for (const QelVector3& point : operands.points) {
            matrix.TransformPoint(point, out);
            benchmark::DoNotOptimize(out);
        }
    }
    state.SetItemsProcessed(state.iterations() * kCount);
    state.SetLabel(QelIsaName(QelBestIsa()));
}
BENCHMARK(BM_Matrix34MemberTransformPoint);

}  // namespace
