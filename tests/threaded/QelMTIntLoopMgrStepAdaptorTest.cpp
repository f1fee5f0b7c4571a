#include "threaded/QelMTIntLoopMgrStepAdaptor.h"

#include "LoggingWorkers.h"

#include "support/AssertionText.h"

#include <gtest/gtest.h>

namespace {

// A manager of `threads` threads (-1: serial) with an adaptor over it.
class StepAdaptorTest : public ::testing::TestWithParam<int> {
protected:
    void SetUp() override
    {
        manager = ReadyManager(QelTPIntLoopMgr::kInterleaved, GetParam(), factory);
        ASSERT_NE(manager, nullptr);
        adaptor = QelMTIntLoopMgrStepAdaptor::New(manager.get());
        ASSERT_NE(adaptor, nullptr);
    }

    // Setups and finishes as multiples of the worker count.
    std::pair<int, int> Phases() const
    {
        const int workers = manager->NumberOfThreads();
        return {factory.setups / workers, factory.finishes / workers};
    }

    LoggingFactory factory;
    std::unique_ptr<QelTPIntLoopMgr> manager;
    std::unique_ptr<QelMTIntLoopMgrStepAdaptor> adaptor;
};

// The workers' state lives across the blocks of one run: Setup only before the
// first block, Finish only after the last.
TEST_P(StepAdaptorTest, BlocksRunInStepsWithOneSetupBeforeAndOneFinishAfterTheRun)
{
    adaptor->SetLoopRange({0, 49});
    EXPECT_TRUE(adaptor->IsDone());
    EXPECT_DOUBLE_EQ(adaptor->Fraction(), 1.0);
    const struct {
        int first, last, setups, finishes;
        double fraction;
    } steps[] = {{0, 19, 1, 0, 0.4}, {20, 39, 1, 0, 0.8}, {40, 49, 1, 1, 1.0}};
    for (const auto& step : steps) {
        SCOPED_TRACE(step.first);
        ASSERT_TRUE(adaptor->Step());
        EXPECT_EQ(factory.IndicesOf(-1, true), Indices(step.first, step.last));
        EXPECT_EQ(Phases(), std::pair(step.setups, step.finishes));
        EXPECT_DOUBLE_EQ(adaptor->GetProgress()->Fraction(), step.fraction);
    }
    EXPECT_TRUE(adaptor->IsDone());

    ASSERT_TRUE(adaptor->Go());
    EXPECT_EQ(factory.IndicesOf(-1, true), Indices(0, 49));
    EXPECT_EQ(Phases(), std::pair(2, 2));

    // A run of one block is one whole loop; the empty range runs no worker.
    adaptor->SetLoopRange({5, 9});
    ASSERT_TRUE(adaptor->Step());
    EXPECT_TRUE(adaptor->IsDone());
    EXPECT_EQ(factory.IndicesOf(-1, true), Indices(5, 9));
    EXPECT_EQ(Phases(), std::pair(3, 3));
    adaptor->SetLoopRange(QelIntRange::Empty());
    EXPECT_TRUE(adaptor->Step());
    EXPECT_TRUE(adaptor->IsDone());
    EXPECT_TRUE(factory.visits.empty());
    EXPECT_EQ(Phases(), std::pair(3, 3));
}

TEST_P(StepAdaptorTest, AnAbortedRunStartsAfreshAtTheNextStep)
{
    adaptor->SetBlockSize(4);
    adaptor->SetLoopRange({0, 9});
    ASSERT_TRUE(adaptor->Step());
    adaptor->Abort();
    EXPECT_TRUE(adaptor->IsDone());
    factory.visits.clear();
    ASSERT_TRUE(adaptor->Step());
    EXPECT_EQ(factory.IndicesOf(-1), Indices(0, 3));
    EXPECT_EQ(Phases().first, 2);
}

TEST_P(StepAdaptorTest, BlocksStopAtTheEndOfTheIndicesWithoutOverflow)
{
    constexpr int kTop = QelIntRange::kHighest - 1;  // kHighest itself means "no bound"
    adaptor->SetBlockSize(QelIntRange::kHighest);
    adaptor->SetLoopRange({kTop - 2, kTop});
    ASSERT_TRUE(adaptor->Step());
    EXPECT_TRUE(adaptor->IsDone());
    EXPECT_EQ(factory.IndicesOf(-1), Indices(kTop - 2, kTop));
}

INSTANTIATE_TEST_SUITE_P(SerialAndThreaded, StepAdaptorTest, ::testing::Values(-1, 3),
                         [](const auto& info) { return info.param < 0 ? "Serial" : "ThreeThreads"; });

TEST(StepAdaptorMisuseTest, EachMisuseIsReportedWithItsText)
{
    EXPECT_EQ(AssertionText([] { (void)QelMTIntLoopMgrStepAdaptor::New(nullptr); }),
              "QelMTIntLoopMgrStepAdaptor::QelMTIntLoopMgrStepAdaptor()\n  Null loop manager\n");

    LoggingFactory factory;
    auto manager = ReadyManager(QelTPIntLoopMgr::kSerial, -1, factory);
    auto adaptor = QelMTIntLoopMgrStepAdaptor::New(manager.get());
    EXPECT_EQ(AssertionText([&] { adaptor->SetBlockSize(0); }),
              "QelMTIntLoopMgrStepAdaptor::SetBlockSize()\n  Blocksize must be strictly positive\n");

    adaptor->SetLoopRange({0, 99});
    ASSERT_TRUE(adaptor->Step());
    EXPECT_EQ(AssertionText([&] { adaptor->SetLoopRange({0, 9}); }),
              "QelMTIntLoopMgrStepAdaptor::SetLoopRange()\n  This method must not be called while stepping\n");
    EXPECT_EQ(AssertionText([&] { adaptor->Go(); }),
              "QelMTIntLoopMgrStepAdaptor::Go()\n  This method must not be called while stepping\n");
    EXPECT_EQ(adaptor->LoopRange(), QelIntRange(0, 99));
}

}  // namespace
