#include "threaded/QelFunctionThreader.h"

#include "threaded/QelSystemInfo.h"

#include "support/RealFaults.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <limits>
#include <mutex>
#include <vector>

namespace {

std::mutex g_visitsLock;

void RecordVisit(int index, void* visits)
{
    std::lock_guard lock(g_visitsLock);
    static_cast<std::vector<int>*>(visits)->push_back(index);
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
    for (const int processors : {1, 3}) {
        const QelRenderThreadCountPin pin(processors);  // one processor makes any count serial
        auto threader = QelFunctionThreader::New(3);
        EXPECT_EQ(threader->IsThreaded(), processors > 1);
        std::vector<int> visits;
        EXPECT_TRUE(threader->DoJob(&RecordVisit, &visits, {-2, 5}));
        EXPECT_TRUE(threader->DoJob(nullptr, nullptr, {0, 5}));
        EXPECT_TRUE(threader->DoJob(&RecordVisit, &visits, QelIntRange::Empty()));
        if (threader->IsThreaded())
            std::sort(visits.begin(), visits.end());
        EXPECT_EQ(visits, std::vector<int>({-2, -1, 0, 1, 2, 3, 4, 5}));
        EXPECT_FALSE(threader->DoJob(&FaultAtSeven, nullptr, {0, 9}));
        EXPECT_TRUE(threader->DoJob(&FaultAtSeven, nullptr, {8, 20}));
    }
}

TEST(QelFunctionThreaderTest, SplitRangeGivesEqualSharesAndTheRemainderToTheLast)
{
    constexpr int kLowest = std::numeric_limits<int>::min(), kHighest = std::numeric_limits<int>::max();
    const struct {
        QelIntRange range;
        int threads, thread, first, last;  // last is one past the end
    } cases[] = {
        {{0, 9}, 3, 2, 6, 10},
        {{-5, -4}, 4, 1, -5, -5},  // fewer indices than threads: empty shares,
        {{-5, -4}, 4, 3, -5, -3},  // and the last takes all
        {QelIntRange::Empty(), 2, 1, kHighest, kHighest},
        {QelIntRange::Infinite(), 2, 1, kLowest + 0x3FFFFFFF, -1},
        {{0, 9}, 0, 0, 0, 10},
    };
    for (const auto& c : cases) {
        int first = 12345, last = 12345;
        QelFunctionThreader::SplitRange(c.thread, c.threads, c.range, first, last);
        EXPECT_EQ(std::pair(first, last), std::pair(c.first, c.last)) << "case " << &c - cases;
    }
}

}  // namespace
