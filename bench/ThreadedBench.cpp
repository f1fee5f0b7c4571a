// What a parallel loop costs beyond its body: a tiny loop through the loop
// manager in serial mode, through the manager on the pool, and by making fresh
// threads for each loop, which is what the pool saves.
//
// Targets, as ratios of rows of one run at the same thread count: the pooled
// loop at most a third of the cost of fresh threads; serial mode within 10x of
// the bare loop (it adds only the virtual calls).

#include "threaded/QelTPIntLoopMgr.h"

#include <benchmark/benchmark.h>

#include <atomic>
#include <memory>
#include <thread>
#include <vector>

namespace {

constexpr int kIndices = 64;

std::atomic<long long> g_sink{0};

class SummingWkr final : public QelMTIntLoopWkr {
public:
    bool Setup() override
    {
        m_sum = 0;
        return true;
    }
    bool Process(int index, int /*threadIndex*/) override
    {
        m_sum += index;
        return true;
    }
    bool Finish() override
    {
        g_sink.fetch_add(m_sum, std::memory_order_relaxed);
        return true;
    }

private:
    long long m_sum = 0;
};

class SummingFactory final : public QelMTIntLoopWkrFactory {
public:
    std::unique_ptr<QelMTIntLoopWkr> CreateWorker() override { return std::make_unique<SummingWkr>(); }
};

void BM_BareLoop(benchmark::State& state)
{
    for (auto _ : state) {
        long long sum = 0;
        for (int index = 0; index < kIndices; ++index) {
            sum += index;
            benchmark::DoNotOptimize(sum);
        }
        g_sink.fetch_add(sum, std::memory_order_relaxed);
    }
}
BENCHMARK(BM_BareLoop);

// mode 0 is serial whatever the thread count; mode 1 takes indices from a shared counter.
void BM_ManagerLoop(benchmark::State& state)
{
    const int mode = static_cast<int>(state.range(0));
    const int threads = static_cast<int>(state.range(1));
    SummingFactory factory;
    std::unique_ptr<QelTPIntLoopMgr> manager = QelTPIntLoopMgr::New(mode, mode == 0 ? -1 : threads);
    if (!manager) {
        state.SkipWithError("no manager");
        return;
    }
    manager->SetFactory(&factory);
    if (!manager->CreateWorkers()) {
        state.SkipWithError("no workers");
        return;
    }
    for (auto _ : state) {
        if (!manager->DoLoop({0, kIndices - 1}))
            state.SkipWithError("loop failed");
    }
    state.SetItemsProcessed(state.iterations() * kIndices);
}
BENCHMARK(BM_ManagerLoop)->ArgsProduct({{0, 1}, {2, 4}})->ArgNames({"mode", "threads"})->UseRealTime();

void BM_FreshThreadsLoop(benchmark::State& state)
{
    const int threads = static_cast<int>(state.range(0));
    for (auto _ : state) {
        std::atomic<int> next{0};
        std::vector<std::thread> pool;
        pool.reserve(static_cast<std::size_t>(threads));
        for (int t = 0; t < threads; ++t) {
            pool.emplace_back([&next] {
                SummingWkr worker;
                worker.Setup();
                for (int index = next.fetch_add(1); index < kIndices; index = next.fetch_add(1))
                    worker.Process(index, 0);
                worker.Finish();
            });
        }
        for (std::thread& thread : pool)
            thread.join();
    }
    state.SetItemsProcessed(state.iterations() * kIndices);
}
BENCHMARK(BM_FreshThreadsLoop)->Arg(2)->Arg(4)->ArgNames({"threads"})->UseRealTime();

}  // namespace
