#include "threaded/QelTPIntLoopMgr.h"

#include "threaded/QelImageStackOneStepImpl.h"
#include "threaded/QelMTIntLoopMgrStepAdaptor.h"
#include "threaded/QelSystemInfo.h"
#include "threaded/imp/QelThreadPool.h"

#include "support/AssertionText.h"
#include "support/BaseTestSupport.h"
#include "support/RealFaults.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

namespace {

using namespace std::chrono_literals;
using Mgr = QelTPIntLoopMgr;
constexpr int kLowest = QelIntRange::kLowest, kHighest = QelIntRange::kHighest;
constexpr auto kPatience = 10s;  // never reached unless a pool item waits for a thread

// Workers that log every (index, thread) they process and count their setups and
// finishes; the factory counts the workers alive.
class LoggingFactory final : public QelMTIntLoopWkrFactory {
public:
    struct Wkr final : QelMTIntLoopWkr {
        explicit Wkr(LoggingFactory& owner) : factory(owner) { ++factory.live; }
        ~Wkr() override { --factory.live; }
        bool Setup() override { ++factory.setups; return ++setups > 0; }
        bool Finish() override { ++factory.finishes; return ++finishes > 0; }
        bool Process(int index, int thread) override
        {
            if (factory.beforeIndex)
                factory.beforeIndex(index);
            std::lock_guard lock(factory.lock);
            factory.visits.emplace_back(index, thread);
            return true;
        }
        LoggingFactory& factory;
        int setups = 0, finishes = 0;
    };

    std::unique_ptr<QelMTIntLoopWkr> CreateWorker() override { return std::make_unique<Wkr>(*this); }

    // The sorted indices `thread` processed (-1: any thread), forgetting them when `take`.
    std::vector<int> IndicesOf(int thread, bool take = false)
    {
        std::vector<int> indices;
        for (const auto& [index, by] : visits)
            indices.insert(indices.end(), thread < 0 || by == thread ? 1 : 0, index);
        std::sort(indices.begin(), indices.end());
        if (take)
            visits.clear();
        return indices;
    }

    std::mutex lock;
    std::vector<std::pair<int, int>> visits;
    std::atomic<int> live{0}, setups{0}, finishes{0};  // the last two by all workers
    std::function<void(int index)> beforeIndex;                  // set between loops
};

LoggingFactory::Wkr& WorkerOf(const Mgr& manager, int thread)
{
    return *static_cast<LoggingFactory::Wkr*>(manager.Worker(thread));
}

std::unique_ptr<Mgr> ReadyManager(int mode, int threads, LoggingFactory& factory)
{
    std::unique_ptr<Mgr> manager = Mgr::New(mode, threads);
    manager->SetFactory(&factory);
    EXPECT_TRUE(manager->CreateWorkers());
    return manager;
}

std::vector<int> Indices(int first, int last)
{
    std::vector<int> indices;
    for (long long index = first; index <= last; ++index)
        indices.push_back(static_cast<int>(index));
    return indices;
}

class QelTPIntLoopMgrModesTest : public ::testing::TestWithParam<std::tuple<int, int>> {};

// Ranges of a single index, negative-based, a prime length, against either end of
// the integers and empty; then a loop that skips Setup and Finish.
TEST_P(QelTPIntLoopMgrModesTest, EveryIndexRunsOnceAndEveryWorkerIsSetUpAndFinishedOncePerLoop)
{
    const auto [mode, threads] = GetParam();
    LoggingFactory factory;
    const std::unique_ptr<Mgr> manager = ReadyManager(mode, threads, factory);
    const int count = manager->NumberOfThreads();
    EXPECT_EQ(count, mode == Mgr::kSerial ? 1 : threads);

    const QelIntRange ranges[] = {{5, 5}, {-7, 12}, {0, 1008}, {kLowest, kLowest + 6}, {kHighest - 6, kHighest}};
    for (const QelIntRange& range : ranges) {
        SCOPED_TRACE(::testing::PrintToString(range));
        ASSERT_TRUE(manager->DoLoop(range));
        for (const auto& [index, thread] : factory.visits)
            ASSERT_TRUE(thread >= 0 && thread < count) << thread;
        EXPECT_EQ(factory.IndicesOf(-1, true), Indices(range.Min, range.Max));
    }
    EXPECT_TRUE(manager->DoLoop(QelIntRange::Empty()));
    EXPECT_TRUE(factory.visits.empty());
    manager->SetSkipSetup(true);
    manager->SetSkipFinish(true);
    EXPECT_TRUE(manager->DoLoop({0, 3}));
    for (int thread = 0; thread < count; ++thread) {
        EXPECT_EQ(WorkerOf(*manager, thread).setups, 5);
        EXPECT_EQ(WorkerOf(*manager, thread).finishes, 5);
    }
}

INSTANTIATE_TEST_SUITE_P(AllModes, QelTPIntLoopMgrModesTest,
                         ::testing::Combine(::testing::Values(0, 1, 2, 3, 4), ::testing::Values(1, 2, 3, 7)),
                         [](const auto& info) {
                             return "Mode" + std::to_string(std::get<0>(info.param)) + "Threads" +
                                    std::to_string(std::get<1>(info.param));
                         });

TEST(QelTPIntLoopMgrTest, SplitGivesEqualConsecutiveSharesTheLastTakingTheRemainderEvenAllOfIt)
{
    LoggingFactory factory;
    auto split = ReadyManager(Mgr::kSplit, 3, factory);
    ASSERT_TRUE(split->DoLoop({0, 9}));
    EXPECT_EQ(factory.IndicesOf(0), Indices(0, 2));
    EXPECT_EQ(factory.IndicesOf(1), Indices(3, 5));
    EXPECT_EQ(factory.IndicesOf(2, true), Indices(6, 9));
    ASSERT_TRUE(split->DoLoop({0, 1}));
    EXPECT_EQ(factory.IndicesOf(2), Indices(0, 1));
}

// The pool the loops run on makes a thread whenever none is idle: the threads of a
// loop can all meet only when every one got its own at once. Idle threads are reused.
TEST(QelThreadPoolTest, EveryItemStartsAtOnceAndIdleThreadsAreReused)
{
    const auto meetings = [](int threads) {
        LoggingFactory factory;
        std::atomic<int> started{0}, met{0};
        factory.beforeIndex = [&](int) {
            ++started;
            const auto deadline = std::chrono::steady_clock::now() + kPatience;
            while (started < threads && std::chrono::steady_clock::now() < deadline)
                std::this_thread::sleep_for(1ms);
            met += started == threads ? 1 : 0;
        };
        EXPECT_TRUE(ReadyManager(Mgr::kInterleaved, threads, factory)->DoLoop({0, threads - 1}));
        return met.load();
    };
    EXPECT_EQ(meetings(12), 12);
    const int threads = QelThreadPool::ThreadCount();
    EXPECT_GE(threads, 12);

    // A thread that has just finished an item needs a moment to count itself idle.
    const auto deadline = std::chrono::steady_clock::now() + kPatience;
    while (QelThreadPool::IdleCount() < threads && std::chrono::steady_clock::now() < deadline)
        std::this_thread::sleep_for(1ms);
    EXPECT_EQ(meetings(4), 4);
    EXPECT_EQ(QelThreadPool::ThreadCount(), threads);
}

// Other vendors keep no cache size, so hyper-threading falls back to the cores.
TEST(QelSystemInfoTest, HyperThreadsCountOnlyWithALargeCacheAndThreadCountZeroFollowsPinsThatNest)
{
    const auto threadsFor = [](std::uint32_t logical, std::uint32_t cores, std::int32_t cacheKB) {
        return QelSystemInfo({.CacheSizeKB = cacheKB, .LogicalCount = logical, .CoreCount = cores}).RenderThreadCount();
    };
    EXPECT_EQ(threadsFor(8, 4, 512), 8);
    EXPECT_EQ(threadsFor(16, 8, 0), 8);

    const int machine = QelSystemInfo::Instance().RenderThreadCount();
    {
        const QelRenderThreadCountPin outer(machine + 3);
        {
            const QelRenderThreadCountPin inner(1);
            EXPECT_EQ(Mgr::New(Mgr::kInterleaved, 0)->Mode(), Mgr::kSerial);
        }
        EXPECT_EQ(Mgr::New(Mgr::kInterleaved, 0)->NumberOfThreads(), machine + 3);
    }
    EXPECT_EQ(QelSystemInfo::Instance().RenderThreadCount(), machine);
}

// A manager deleted right after its loop meets pool threads that are still
// leaving their last run: no life may hang, crash or leave a worker behind.
TEST(QelTPIntLoopMgrTest, WorkersAreReplacedByCreateWorkersAndAllDeletedWithTheManager)
{
    LoggingFactory factory;
    for (int life = 0; life < 200; ++life) {
        auto manager = ReadyManager(life % 2 == 0 ? Mgr::kSerial : Mgr::kDynamic, 3, factory);
        ASSERT_TRUE(manager->CreateWorkers());
        EXPECT_EQ(factory.live, manager->NumberOfThreads());
        ASSERT_TRUE(manager->DoLoop({0, 2}));
    }
    EXPECT_EQ(factory.live, 0);
}

// A refused work item fails the loop without fault data. After a fault the manager
// reports the highest thread's latest fault, even when that thread didn't fault
// this time.
TEST(QelTPIntLoopMgrTest, RefusalsAndFaultsFailOneLoopAndLeaveTheManagerUsable)
{
    LoggingFactory factory;
    auto manager = ReadyManager(Mgr::kInterleaved, 2, factory);
    {
        const QelThreadPoolLimit onlyOne(1);
        EXPECT_FALSE(manager->DoLoop({0, 9}));
    }
    EXPECT_FALSE(manager->Failed());
    EXPECT_EQ(manager->ExceptionCode(), 0u);
    EXPECT_TRUE(factory.visits.empty());

    factory.beforeIndex = [](int index) {
        if (index == 1)
            WriteToForbiddenPage();
    };
    EXPECT_FALSE(manager->DoLoop({0, 99}));
    EXPECT_TRUE(manager->Failed());
    EXPECT_EQ(manager->ExceptionCode(), 0xC0000005u);
    EXPECT_TRUE(IsInside(manager->ExceptionAddress(), &WriteToForbiddenPage)) << manager->ExceptionAddress();
    EXPECT_EQ(factory.IndicesOf(0).size(), 50u);  // thread 0 ran all of its share
    EXPECT_TRUE(factory.IndicesOf(1).empty());
    EXPECT_EQ(WorkerOf(*manager, 0).finishes, 0);  // no phase follows a failed one

    factory.beforeIndex = [](int index) {
        if (index == 0)
            OverflowStack(0);
    };
    EXPECT_FALSE(manager->DoLoop({0, 9}));
    EXPECT_TRUE(IsInside(manager->ExceptionAddress(), &WriteToForbiddenPage));

    factory.beforeIndex = [](int index) { QEL_ASSERT(index != 5, "Bad index %d\n", index); };
    EXPECT_EQ(AssertionText([&] { (void)manager->DoLoop({0, 9}); }), "Bad index 5\n");
    EXPECT_TRUE(manager->Failed());

    factory.beforeIndex = nullptr;
    factory.visits.clear();
    EXPECT_TRUE(manager->DoLoop({0, 99}));
    EXPECT_FALSE(manager->Failed());
    EXPECT_EQ(factory.visits.size(), 100u);
}

// Steps through a list of results, one per step.
struct ScriptedContinuation final : QelContinuation {
    explicit ScriptedContinuation(std::vector<bool> stepResults) : results(std::move(stepResults)) {}
    bool Step() override { return results[steps++]; }
    [[nodiscard]] bool IsDone() const override { return steps == results.size(); }
    std::vector<bool> results;
    std::size_t steps = 0;
};

class CountingDraw final : public QelImageStackOneStepImpl {
public:
    bool Draw(QelImageStack*, QelRenderSpec*) override { return ++draws == 1; }
    int draws = 0;
};

// Go must not stop at the first failed step, nor step a finished continuation; a
// one-step draw draws once per start, and its result is that of the draw.
TEST(QelContinuationTest, GoRunsEveryStepLeftAndKeepsAFailureToTheEnd)
{
    ScriptedContinuation failing({true, false, true}), done({});
    EXPECT_FALSE(failing.Go());
    EXPECT_EQ(failing.steps, 3u);
    EXPECT_TRUE(done.Go());
    EXPECT_EQ(done.steps, 0u);

    CountingDraw renderer;
    ASSERT_TRUE(renderer.StartDraw(nullptr, nullptr));
    EXPECT_TRUE(renderer.Step());
    EXPECT_TRUE(renderer.Step() && renderer.IsDone());
    ASSERT_TRUE(renderer.StartDraw(nullptr, nullptr));
    EXPECT_FALSE(renderer.Go());
    EXPECT_EQ(renderer.draws, 2);
}

// The workers' state lives across the blocks of one run: Setup only before the
// first block, Finish only after the last. A run is not changed or restarted while
// it steps, only aborted; then it starts afresh.
TEST(QelStepAdaptorTest, BlocksRunInStepsWithOneSetupBeforeAndOneFinishAfterTheRun)
{
    LoggingFactory factory;
    const auto manager = ReadyManager(Mgr::kInterleaved, 3, factory);
    const auto adaptor = QelMTIntLoopMgrStepAdaptor::New(manager.get());
    const auto phases = [&] { return std::pair(factory.setups / 3, factory.finishes / 3); };

    adaptor->SetLoopRange({0, 49});
    const struct {
        int first, last, finishes;
        double fraction;
    } steps[] = {{0, 19, 0, 0.4}, {20, 39, 0, 0.8}, {40, 49, 1, 1.0}};
    for (const auto& step : steps) {
        SCOPED_TRACE(step.first);
        ASSERT_TRUE(adaptor->Step());
        EXPECT_EQ(factory.IndicesOf(-1, true), Indices(step.first, step.last));
        EXPECT_EQ(phases(), std::pair(1, step.finishes));
        EXPECT_DOUBLE_EQ(adaptor->GetProgress()->Fraction(), step.fraction);
    }
    ASSERT_TRUE(adaptor->Go());  // which asserts unless the steps left the adaptor done
    EXPECT_EQ(factory.IndicesOf(-1, true), Indices(0, 49));
    EXPECT_EQ(phases(), std::pair(2, 2));

    // The empty range runs no worker.
    adaptor->SetLoopRange(QelIntRange::Empty());
    EXPECT_TRUE(adaptor->Step() && adaptor->IsDone());
    EXPECT_EQ(phases(), std::pair(2, 2));

    adaptor->SetBlockSize(4);
    adaptor->SetLoopRange({0, 9});
    ASSERT_TRUE(adaptor->Step());
    EXPECT_EQ(AssertionText([&] { adaptor->SetLoopRange({0, 99}); }),
              "QelMTIntLoopMgrStepAdaptor::SetLoopRange()\n  This method must not be called while stepping\n");
    EXPECT_EQ(AssertionText([&] { (void)adaptor->Go(); }),
              "QelMTIntLoopMgrStepAdaptor::Go()\n  This method must not be called while stepping\n");
    EXPECT_EQ(adaptor->LoopRange(), QelIntRange(0, 9));
    adaptor->Abort();
    EXPECT_TRUE(adaptor->IsDone());
    factory.visits.clear();
    ASSERT_TRUE(adaptor->Step());
    EXPECT_EQ(factory.IndicesOf(-1, true), Indices(0, 3));
    EXPECT_EQ(phases().first, 4);

    // Blocks stop at the end of the indices without overflow.
    constexpr int kTop = QelIntRange::kHighest - 1;  // kHighest itself means "no bound"
    adaptor->Abort();
    adaptor->SetBlockSize(QelIntRange::kHighest);
    adaptor->SetLoopRange({kTop - 2, kTop});
    ASSERT_TRUE(adaptor->Step());
    EXPECT_TRUE(adaptor->IsDone());
    EXPECT_EQ(factory.IndicesOf(-1), Indices(kTop - 2, kTop));
}

TEST(QelTPIntLoopMgrTest, MisuseOfTheManagerIsReportedWithItsText)
{
    LoggingFactory factory;
    auto serial = Mgr::New(Mgr::kDynamic, -1);  // -1 threads: serial whatever the mode
    EXPECT_EQ(AssertionText([&] { (void)serial->CreateWorkers(); }),
              "QelTPIntLoopMgr::CreateWorkers()\n  Factory not set (SetFactory not called?)\n");
    EXPECT_EQ(AssertionText([&] { (void)serial->DoLoop({0, 3}); }),
              "QelTPIntLoopMgr::DoLoop()\n  Worker not set (CreateWorkers not called?)\n");
    EXPECT_EQ(AssertionText([&] { (void)serial->DoLoop({5, 3}); }),
              "QelTPIntLoopMgr::DoLoop()\n  Invalid loop range\n");

    // One thread: the bug handler has one message buffer, which two threads
    // reporting at once would share.
    auto threaded = Mgr::New(Mgr::kDynamic, 1);
    threaded->SetFactory(&factory);
    EXPECT_EQ(AssertionText([&] { (void)threaded->DoLoop({0, 3}); }),
              "QelTPIntLoopMgr::WkrThread::Go()\n  Worker not set (CreateWorkers not called?)\n");
}

}  // namespace
