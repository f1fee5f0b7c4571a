#include "threaded/QelFunctionThreader.h"

#include "threaded/QelSystemInfo.h"

#include "support/RealFaults.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <limits>
#include <mutex>
#include <vector>

namespace {

constexpr int kLowest = std::numeric_limits<int>::min();
constexpr int kHighest = std::numeric_limits<int>::max();

struct Visits {
    std::mutex lock;
    std::vector<int> order;
};

void RecordVisit(int index, void* argument)
{
    auto& visits = *static_cast<Visits*>(argument);
    std::lock_guard lock(visits.lock);
    visits.order.push_back(index);
}

void FaultAtSeven(int index, void*)
{
    if (index == 7)
        WriteToForbiddenPage();
}

// Serial threaders run in order on the caller, threaded ones run each index once;
// either way a fault in the function fails the job and no more.
TEST(QelFunctionThreaderTest, EveryIndexRunsOnceWithAndWithoutAManager)
{
    const std::vector<int> expected = {-2, -1, 0, 1, 2, 3, 4, 5};
    for (const int processors : {1, 3}) {
        const QelRenderThreadCountPin pin(processors);  // one processor makes any count serial
        auto threader = QelFunctionThreader::New(3);
        ASSERT_NE(threader, nullptr);
        EXPECT_EQ(threader->IsThreaded(), processors > 1);
        Visits visits;
        EXPECT_TRUE(threader->DoJob(&RecordVisit, &visits, {-2, 5}));
        EXPECT_TRUE(threader->DoJob(nullptr, nullptr, {0, 5}));
        EXPECT_TRUE(threader->DoJob(&RecordVisit, &visits, QelIntRange::Empty()));
        if (threader->IsThreaded())
            std::sort(visits.order.begin(), visits.order.end());
        EXPECT_EQ(visits.order, expected);
        EXPECT_FALSE(threader->DoJob(&FaultAtSeven, nullptr, {0, 9}));
        EXPECT_TRUE(threader->DoJob(&FaultAtSeven, nullptr, {8, 20}));
    }
}

TEST(QelFunctionThreaderTest, SplitRangeGivesEqualSharesAndTheRemainderToTheLast)
{
    struct Case {
        QelIntRange range;
        int threads, thread, first, last;  // last is one past the end
    };
    const Case cases[] = {
        {{0, 9}, 3, 2, 6, 10},
        {{-5, -4}, 4, 1, -5, -5},  // fewer indices than threads: empty shares,
        {{-5, -4}, 4, 3, -5, -3},  // and the last takes all
        {QelIntRange::Empty(), 2, 1, kHighest, kHighest},
        {QelIntRange::Infinite(), 2, 1, kLowest + 0x3FFFFFFF, -1},
        {{0, 9}, 0, 0, 0, 10},
    };
    for (const Case& c : cases) {
        int first = 12345, last = 12345;
        QelFunctionThreader::SplitRange(c.thread, c.threads, c.range, first, last);
        EXPECT_EQ(std::pair(first, last), std::pair(c.first, c.last)) << "case " << &c - cases;
    }
}

}  // namespace
