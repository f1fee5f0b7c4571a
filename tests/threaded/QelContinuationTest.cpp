#include "threaded/QelContinuation.h"
#include "threaded/QelImageStackOneStepImpl.h"

#include <gtest/gtest.h>

#include <vector>

namespace {

// Steps through a list of results, one per step.
class ScriptedContinuation final : public QelContinuation {
public:
    explicit ScriptedContinuation(std::vector<bool> results) : m_results(std::move(results)) {}
    bool Step() override { return m_results[steps++]; }
    [[nodiscard]] bool IsDone() const override { return steps == m_results.size(); }
    std::size_t steps = 0;

private:
    std::vector<bool> m_results;
};

// Go must not stop at the first failed step, nor step a finished continuation.
TEST(QelContinuationTest, GoRunsEveryStepLeftAndKeepsAFailureToTheEnd)
{
    ScriptedContinuation failing({true, false, true}), done({});
    EXPECT_FALSE(failing.Go());
    EXPECT_EQ(failing.steps, 3u);
    EXPECT_TRUE(done.Go());
    EXPECT_EQ(done.steps, 0u);
}

class CountingDraw final : public QelImageStackOneStepImpl {
public:
    bool Draw(QelImageStack* stack, QelRenderSpec* spec) override
    {
        ++draws;
        return stack && spec && result;
    }
    int draws = 0;
    bool result = true;
};

TEST(QelImageStackOneStepImplTest, TheWholeDrawIsOneStepAndASecondStepDrawsNothing)
{
    CountingDraw renderer;
    auto* stack = reinterpret_cast<QelImageStack*>(0x10);
    auto* spec = reinterpret_cast<QelRenderSpec*>(0x20);
    ASSERT_TRUE(renderer.StartDraw(stack, spec));
    EXPECT_FALSE(renderer.IsDone());
    EXPECT_TRUE(renderer.Step());
    renderer.result = false;
    EXPECT_TRUE(renderer.Step() && renderer.IsDone());
    EXPECT_EQ(renderer.draws, 1);

    // A new draw starts afresh on the same object.
    ASSERT_TRUE(renderer.StartDraw(stack, spec));
    EXPECT_FALSE(renderer.Go());
    EXPECT_EQ(renderer.draws, 2);
}

}  // namespace
