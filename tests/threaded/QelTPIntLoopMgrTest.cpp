#include "threaded/QelTPIntLoopMgr.h"

#include "base/QelCrashReport.h"
#include "threaded/QelSystemInfo.h"
#include "threaded/imp/QelThreadPool.h"

#include "support/RealFaults.h"
#include "support/BaseTestSupport.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <functional>
#include <limits>
#include <map>
#include <mutex>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

namespace {

using AssertException = QelThrowBugHandler::AssertException;
using Mgr = QelTPIntLoopMgr;
constexpr int kLowest = std::numeric_limits<int>::min();
constexpr int kHighest = std::numeric_limits<int>::max();

// Makes workers that log every (index, thread) they process, and counts them.
class LoggingFactory final : public QelMTIntLoopWkrFactory {
public:
    struct Wkr final : QelMTIntLoopWkr {
        explicit Wkr(LoggingFactory& owner) : factory(owner) { ++factory.live; }
        ~Wkr() override { --factory.live; }
        bool Setup() override { return ++setups > 0; }
        bool Finish() override { return ++finishes > 0; }
        bool Process(int index, int thread) override
        {
            if (factory.beforeIndex)
                factory.beforeIndex(index);
            std::lock_guard lock(factory.lock);
            factory.visits.emplace_back(index, thread);
            return true;
        }
        LoggingFactory& factory;
        int setups = 0;
        int finishes = 0;
    };

    std::unique_ptr<QelMTIntLoopWkr> CreateWorker() override
    {
        ++made;
        return std::make_unique<Wkr>(*this);
    }

    std::vector<int> IndicesOf(int thread)
    {
        std::vector<int> indices;
        for (const auto& [index, by] : visits)
            indices.insert(indices.end(), by == thread ? 1 : 0, index);
        std::sort(indices.begin(), indices.end());
        return indices;
    }

    std::mutex lock;
    std::vector<std::pair<int, int>> visits;
    std::atomic<int> live{0};
    std::atomic<int> made{0};
    std::function<void(int index)> beforeIndex;  // set between loops, for faults and reports
};

LoggingFactory::Wkr& WorkerOf(const Mgr& manager, int thread)
{
    return *static_cast<LoggingFactory::Wkr*>(manager.Worker(thread));
}

std::unique_ptr<Mgr> ReadyManager(int mode, int threads, LoggingFactory& factory)
{
    std::unique_ptr<Mgr> manager = Mgr::New(mode, threads);
    if (manager) {
        manager->SetFactory(&factory);
        EXPECT_TRUE(manager->CreateWorkers());
    }
    return manager;
}

std::vector<int> Indices(int first, int last)
{
    std::vector<int> indices;
    for (long long index = first; index <= last; ++index)
        indices.push_back(static_cast<int>(index));
    return indices;
}

// Memento test over every mode and several thread counts, on ranges that are a
// single index, negative-based, a prime length, against either end of the
// integers, and empty; then a loop that skips Setup and Finish.
class QelTPIntLoopMgrModesTest : public ::testing::TestWithParam<std::tuple<int, int>> {};

TEST_P(QelTPIntLoopMgrModesTest, EveryIndexRunsOnceAndEveryWorkerIsSetUpAndFinishedOncePerLoop)
{
    const auto [mode, threads] = GetParam();
    LoggingFactory factory;
    const std::unique_ptr<Mgr> manager = ReadyManager(mode, threads, factory);
    ASSERT_NE(manager, nullptr);
    const int count = manager->NumberOfThreads();
    EXPECT_EQ(count, mode == Mgr::kSerial ? 1 : threads);

    const QelIntRange ranges[] = {{5, 5}, {-7, 12}, {0, 1008}, {kLowest, kLowest + 6}, {kHighest - 6, kHighest}};
    int loops = 0;
    for (const QelIntRange& range : ranges) {
        SCOPED_TRACE(::testing::PrintToString(range));
        factory.visits.clear();
        ASSERT_TRUE(manager->DoLoop(range));
        ++loops;
        std::map<int, int> times;
        for (const auto& [index, thread] : factory.visits) {
            ++times[index];
            ASSERT_TRUE(thread >= 0 && thread < count) << thread;
        }
        ASSERT_EQ(times.size(), static_cast<std::size_t>(range.Max - range.Min) + 1);
        EXPECT_EQ(times.begin()->first, range.Min);
        EXPECT_EQ(times.rbegin()->first, range.Max);
        EXPECT_TRUE(std::all_of(times.begin(), times.end(), [](const auto& entry) { return entry.second == 1; }));
    }
    factory.visits.clear();
    EXPECT_TRUE(manager->DoLoop(QelIntRange::Empty()));
    EXPECT_TRUE(factory.visits.empty());
    manager->SetSkipSetup(true);
    manager->SetSkipFinish(true);
    EXPECT_TRUE(manager->DoLoop({0, 3}));
    for (int thread = 0; thread < count; ++thread) {
        EXPECT_EQ(WorkerOf(*manager, thread).setups, loops);
        EXPECT_EQ(WorkerOf(*manager, thread).finishes, loops);
    }
}

INSTANTIATE_TEST_SUITE_P(AllModes, QelTPIntLoopMgrModesTest,
                         ::testing::Combine(::testing::Values(0, 1, 2, 3, 4), ::testing::Values(1, 2, 3, 7)),
                         [](const auto& info) {
                             return "Mode" + std::to_string(std::get<0>(info.param)) + "Threads" +
                                    std::to_string(std::get<1>(info.param));
                         });

TEST(QelTPIntLoopMgrTest, EachModeCutsTheRangeAsDocumented)
{
    LoggingFactory factory;
    // Interleaved: a single index goes to thread 0; the others only set up and finish.
    auto interleaved = ReadyManager(Mgr::kInterleaved, 4, factory);
    ASSERT_TRUE(interleaved->DoLoop({3, 3}));
    EXPECT_EQ(factory.IndicesOf(0), std::vector<int>{3});
    EXPECT_EQ(WorkerOf(*interleaved, 3).setups, 1);
    EXPECT_EQ(WorkerOf(*interleaved, 3).finishes, 1);

    // Chunked: runs of ChunkSize dealt out in turn.
    factory.visits.clear();
    auto chunked = ReadyManager(Mgr::kChunked, 2, factory);
    ASSERT_TRUE(chunked->DoLoop({0, 39}));
    std::vector<int> first = Indices(0, 15);
    first.insert(first.end(), {32, 33, 34, 35, 36, 37, 38, 39});
    EXPECT_EQ(factory.IndicesOf(0), first);
    EXPECT_EQ(factory.IndicesOf(1), Indices(16, 31));

    // Split: equal consecutive shares, the last taking the remainder, even all of it.
    factory.visits.clear();
    auto split = ReadyManager(Mgr::kSplit, 3, factory);
    ASSERT_TRUE(split->DoLoop({0, 9}));
    EXPECT_EQ(factory.IndicesOf(0), Indices(0, 2));
    EXPECT_EQ(factory.IndicesOf(1), Indices(3, 5));
    EXPECT_EQ(factory.IndicesOf(2), Indices(6, 9));
    factory.visits.clear();
    ASSERT_TRUE(split->DoLoop({0, 1}));
    EXPECT_EQ(factory.IndicesOf(2), Indices(0, 1));
}

TEST(QelTPIntLoopMgrTest, ThreadCountZeroFollowsTheRenderThreadCount)
{
    LoggingFactory factory;
    {
        const QelRenderThreadCountPin oneProcessor(1);
        auto manager = ReadyManager(Mgr::kInterleaved, 0, factory);
        EXPECT_EQ(manager->Mode(), Mgr::kSerial);
        EXPECT_EQ(manager->NumberOfThreads(), 1);
        ASSERT_NE(manager->Worker(0), nullptr);
        ASSERT_TRUE(manager->DoLoop({0, 4}));
        EXPECT_EQ(factory.IndicesOf(0), Indices(0, 4));
    }
    const QelRenderThreadCountPin threeProcessors(3);
    EXPECT_EQ(Mgr::New(Mgr::kInterleaved, 0)->NumberOfThreads(), 3);
    EXPECT_EQ(Mgr::New(Mgr::kSplit, -1)->Mode(), Mgr::kSerial);
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
    EXPECT_EQ(factory.made, 100 * 2 * (1 + 3));
}

TEST(QelTPIntLoopMgrTest, ARefusedWorkItemFailsTheLoopWithoutFaultData)
{
    LoggingFactory factory;
    auto manager = ReadyManager(Mgr::kDynamic, 3, factory);
    {
        const QelThreadPoolLimit onlyOne(1);
        EXPECT_FALSE(manager->DoLoop({0, 9}));
    }
    EXPECT_FALSE(manager->Failed());
    EXPECT_EQ(manager->ExceptionCode(), 0u);
    EXPECT_TRUE(factory.visits.empty());
    EXPECT_TRUE(manager->DoLoop({0, 9}));
    EXPECT_EQ(factory.visits.size(), 10u);
}

// The manager reports the highest thread's latest fault, even when that thread
// didn't fault this time.
TEST(QelTPIntLoopMgrTest, AFaultEndsOneSharePassesTheOthersAndLeavesTheManagerUsable)
{
    LoggingFactory factory;
    auto manager = ReadyManager(Mgr::kInterleaved, 2, factory);
    factory.beforeIndex = [](int index) {
        if (index == 1)
            WriteToForbiddenPage();
    };
    EXPECT_FALSE(manager->DoLoop({0, 99}));
    EXPECT_TRUE(manager->Failed());
    EXPECT_EQ(manager->ExceptionCode(), 0xC0000005u);
    EXPECT_TRUE(IsInside(manager->ExceptionAddress(), &WriteToForbiddenPage)) << manager->ExceptionAddress();
    EXPECT_EQ(QelLastExceptionCode(), 0xC0000005u);
    EXPECT_EQ(factory.IndicesOf(0).size(), 50u);  // thread 0 ran all of its share
    EXPECT_TRUE(factory.IndicesOf(1).empty());
    EXPECT_EQ(WorkerOf(*manager, 0).finishes, 0);  // no phase follows a failed one

    g_stopRecursion = false;
    factory.beforeIndex = [](int index) {
        if (index == 0)
            OverflowStack(0);
    };
    EXPECT_FALSE(manager->DoLoop({0, 9}));
    EXPECT_TRUE(IsInside(manager->ExceptionAddress(), &WriteToForbiddenPage));

    factory.beforeIndex = nullptr;
    factory.visits.clear();
    EXPECT_TRUE(manager->DoLoop({0, 99}));
    EXPECT_FALSE(manager->Failed());
    EXPECT_EQ(factory.visits.size(), 100u);
}

TEST(QelTPIntLoopMgrTest, ABugReportInAWorkerIsThrownOnTheCaller)
{
    LoggingFactory factory;
    auto manager = ReadyManager(Mgr::kDynamic, 3, factory);
    factory.beforeIndex = [](int index) { QEL_ASSERT(index != 5, "Bad index %d\n", index); };
    EXPECT_EQ(CatchReport<AssertException>([&] { (void)manager->DoLoop({0, 9}); }).text, "Bad index 5\n");
    EXPECT_TRUE(manager->Failed());
    factory.beforeIndex = nullptr;
    EXPECT_TRUE(manager->DoLoop({0, 9}));
}

TEST(QelTPIntLoopMgrTest, MisuseIsReportedWithItsText)
{
    const auto textOf = [](auto&& action) { return CatchReport<AssertException>(action).text; };
    LoggingFactory factory;

    auto serial = Mgr::New(Mgr::kSerial, -1);
    EXPECT_EQ(textOf([&] { serial->SetFactory(nullptr); }), "QelTPIntLoopMgr::SetFactory()\n  Null factory argument\n");
    EXPECT_EQ(textOf([&] { (void)serial->CreateWorkers(); }),
              "QelTPIntLoopMgr::CreateWorkers()\n  Factory not set (SetFactory not called?)\n");
    EXPECT_EQ(textOf([&] { (void)serial->DoLoop({0, 3}); }),
              "QelTPIntLoopMgr::DoLoop()\n  Worker not set (CreateWorkers not called?)\n");
    EXPECT_EQ(textOf([&] { (void)serial->DoLoop({5, 3}); }), "QelTPIntLoopMgr::DoLoop()\n  Invalid loop range\n");

    // One thread: the bug handler has one message buffer, which two threads
    // reporting at once would share.
    auto threaded = Mgr::New(Mgr::kDynamic, 1);
    threaded->SetFactory(&factory);
    EXPECT_EQ(textOf([&] { (void)threaded->DoLoop({0, 3}); }),
              "QelTPIntLoopMgr::WkrThread::Go()\n  Worker not set (CreateWorkers not called?)\n");
    EXPECT_EQ(textOf([] { (void)Mgr::New(Mgr::kDynamic, -3); }),
              "QelTPIntLoopMgr::CreateThreads()\n  Failed to to allocate threads array\n");
}

}  // namespace
