#include "threaded/QelMTIntLoopMgrStepAdaptor.h"

#include "threaded/QelTPIntLoopMgr.h"

#include "support/AssertionText.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <mutex>
#include <vector>

namespace {

// What all workers of one manager did, in one list per call kind.
struct Journal {
    std::mutex lock;
    int setups = 0;
    int finishes = 0;
    std::vector<int> indices;
};

class JournalWorker final : public QelMTIntLoopWkr {
public:
    explicit JournalWorker(Journal& journal) : m_journal(journal) {}
    bool Setup() override
    {
        std::lock_guard hold(m_journal.lock);
        ++m_journal.setups;
        return true;
    }
    bool Process(int index, int) override
    {
        std::lock_guard hold(m_journal.lock);
        m_journal.indices.push_back(index);
        return true;
    }
    bool Finish() override
    {
        std::lock_guard hold(m_journal.lock);
        ++m_journal.finishes;
        return true;
    }

private:
    Journal& m_journal;
};

class JournalFactory final : public QelMTIntLoopWkrFactory {
public:
    std::unique_ptr<QelMTIntLoopWkr> CreateWorker() override { return std::make_unique<JournalWorker>(journal); }
    Journal journal;
};

// A manager of `threads` threads (-1: serial) with an adaptor over it.
class StepAdaptorTest : public ::testing::TestWithParam<int> {
protected:
    void SetUp() override
    {
        manager = QelTPIntLoopMgr::New(QelTPIntLoopMgr::kInterleaved, GetParam());
        ASSERT_NE(manager, nullptr);
        manager->SetFactory(&factory);
        ASSERT_TRUE(manager->CreateWorkers());
        adaptor = QelMTIntLoopMgrStepAdaptor::New(manager.get());
        ASSERT_NE(adaptor, nullptr);
    }

    // The indices run since the last call, sorted.
    std::vector<int> TakeIndices()
    {
        std::vector<int> indices;
        indices.swap(factory.journal.indices);
        std::sort(indices.begin(), indices.end());
        return indices;
    }

    static std::vector<int> Iota(int first, int last)
    {
        std::vector<int> values;
        for (int i = first; i <= last; ++i)
            values.push_back(i);
        return values;
    }

    int Workers() const { return manager->NumberOfThreads(); }

    JournalFactory factory;
    std::unique_ptr<QelTPIntLoopMgr> manager;
    std::unique_ptr<QelMTIntLoopMgrStepAdaptor> adaptor;
};

TEST_P(StepAdaptorTest, BlocksRunInStepsWithOneSetupBeforeAndOneFinishAfterTheRun)
{
    adaptor->SetLoopRange({0, 49});
    EXPECT_TRUE(adaptor->IsDone());
    EXPECT_DOUBLE_EQ(adaptor->Fraction(), 1.0);

    ASSERT_TRUE(adaptor->Step());
    EXPECT_EQ(TakeIndices(), Iota(0, 19));
    EXPECT_EQ(factory.journal.setups, Workers());
    EXPECT_EQ(factory.journal.finishes, 0);
    EXPECT_FALSE(adaptor->IsDone());
    EXPECT_DOUBLE_EQ(adaptor->GetProgress()->Fraction(), 0.4);

    ASSERT_TRUE(adaptor->Step());
    EXPECT_EQ(TakeIndices(), Iota(20, 39));
    EXPECT_EQ(factory.journal.setups, Workers());
    EXPECT_EQ(factory.journal.finishes, 0);

    ASSERT_TRUE(adaptor->Step());
    EXPECT_EQ(TakeIndices(), Iota(40, 49));
    EXPECT_EQ(factory.journal.setups, Workers());
    EXPECT_EQ(factory.journal.finishes, Workers());
    EXPECT_TRUE(adaptor->IsDone());
    EXPECT_DOUBLE_EQ(adaptor->Fraction(), 1.0);

    // The next run starts with a Setup again.
    ASSERT_TRUE(adaptor->Go());
    EXPECT_EQ(TakeIndices(), Iota(0, 49));
    EXPECT_EQ(factory.journal.setups, 2 * Workers());
    EXPECT_EQ(factory.journal.finishes, 2 * Workers());
}

TEST_P(StepAdaptorTest, ARangeOfOneBlockIsOneLoopAndTheEmptyRangeRunsNoWorker)
{
    adaptor->SetLoopRange({5, 9});
    ASSERT_TRUE(adaptor->Step());
    EXPECT_TRUE(adaptor->IsDone());
    EXPECT_EQ(TakeIndices(), Iota(5, 9));
    EXPECT_EQ(factory.journal.setups, Workers());
    EXPECT_EQ(factory.journal.finishes, Workers());

    adaptor->SetLoopRange(QelIntRange::Empty());
    EXPECT_TRUE(adaptor->Step());
    EXPECT_TRUE(adaptor->IsDone());
    EXPECT_TRUE(TakeIndices().empty());
    EXPECT_EQ(factory.journal.setups, Workers());
}

TEST_P(StepAdaptorTest, AnAbortedRunStartsAfreshAtTheNextStep)
{
    adaptor->SetBlockSize(4);
    adaptor->SetLoopRange({0, 9});
    ASSERT_TRUE(adaptor->Step());
    adaptor->Abort();
    EXPECT_TRUE(adaptor->IsDone());
    TakeIndices();
    ASSERT_TRUE(adaptor->Step());
    EXPECT_EQ(TakeIndices(), Iota(0, 3));
    EXPECT_EQ(factory.journal.setups, 2 * Workers());
}

TEST_P(StepAdaptorTest, BlocksStopAtTheEndOfTheIndicesWithoutOverflow)
{
    constexpr int kTop = QelIntRange::kHighest - 1;  // kHighest itself means "no bound"
    adaptor->SetBlockSize(QelIntRange::kHighest);
    adaptor->SetLoopRange({kTop - 2, kTop});
    ASSERT_TRUE(adaptor->Step());
    EXPECT_TRUE(adaptor->IsDone());
    EXPECT_EQ(TakeIndices(), Iota(kTop - 2, kTop));
}

INSTANTIATE_TEST_SUITE_P(SerialAndThreaded, StepAdaptorTest, ::testing::Values(-1, 3),
                         [](const auto& info) { return info.param < 0 ? "Serial" : "ThreeThreads"; });

TEST(StepAdaptorMisuseTest, EachMisuseIsReportedWithItsText)
{
    EXPECT_EQ(AssertionText([] { (void)QelMTIntLoopMgrStepAdaptor::New(nullptr); }),
              "QelMTIntLoopMgrStepAdaptor::QelMTIntLoopMgrStepAdaptor()\n  Null loop manager\n");

    JournalFactory factory;
    auto manager = QelTPIntLoopMgr::New(QelTPIntLoopMgr::kSerial, -1);
    manager->SetFactory(&factory);
    ASSERT_TRUE(manager->CreateWorkers());
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
