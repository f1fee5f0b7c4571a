#include "threaded/QelTPIntLoopMgr.h"

#include "base/QelCrashReport.h"
#include "threaded/QelSystemInfo.h"
#include "threaded/imp/QelThreadPool.h"

#include "LoggingWorkers.h"

#include "support/BaseTestSupport.h"
#include "support/RealFaults.h"

#include <gtest/gtest.h>

#include <limits>
#include <string>
#include <tuple>

namespace {

using AssertException = QelThrowBugHandler::AssertException;
using Mgr = QelTPIntLoopMgr;
constexpr int kLowest = std::numeric_limits<int>::min();
constexpr int kHighest = std::numeric_limits<int>::max();

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
        ASSERT_TRUE(manager->DoLoop(range));
        ++loops;
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
    // Interleaved: a single index goes to thread 0.
    auto interleaved = ReadyManager(Mgr::kInterleaved, 4, factory);
    ASSERT_TRUE(interleaved->DoLoop({3, 3}));
    EXPECT_EQ(factory.IndicesOf(0, true), std::vector<int>{3});

    // Chunked: runs of ChunkSize dealt out in turn.
    auto chunked = ReadyManager(Mgr::kChunked, 2, factory);
    ASSERT_TRUE(chunked->DoLoop({0, 39}));
    std::vector<int> first = Indices(0, 15);
    first.insert(first.end(), {32, 33, 34, 35, 36, 37, 38, 39});
    EXPECT_EQ(factory.IndicesOf(0), first);
    EXPECT_EQ(factory.IndicesOf(1, true), Indices(16, 31));

    // Split: equal consecutive shares, the last taking the remainder, even all of it.
    auto split = ReadyManager(Mgr::kSplit, 3, factory);
    ASSERT_TRUE(split->DoLoop({0, 9}));
    EXPECT_EQ(factory.IndicesOf(0), Indices(0, 2));
    EXPECT_EQ(factory.IndicesOf(1), Indices(3, 5));
    EXPECT_EQ(factory.IndicesOf(2, true), Indices(6, 9));
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
