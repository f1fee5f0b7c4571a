#include "threaded/QelContinuation.h"
#include "threaded/QelImageStackOneStepImpl.h"

#include <gtest/gtest.h>

#include <vector>

namespace {

// Steps through a list of results, one per step.
class ScriptedContinuation final : public QelContinuation {
public:
    explicit ScriptedContinuation(std::vector<bool> results) : m_results(std::move(results)) {}
    bool Step() override { return m_results[m_steps++]; }
    [[nodiscard]] bool IsDone() const override { return m_steps == m_results.size(); }
    [[nodiscard]] std::size_t Steps() const { return m_steps; }

private:
    std::vector<bool> m_results;
    std::size_t m_steps = 0;
};

TEST(QelContinuationTest, GoRunsEveryStepAndKeepsAFailureToTheEnd)
{
    ScriptedContinuation continuation({true, false, true});
    EXPECT_FALSE(continuation.Go());
    EXPECT_EQ(continuation.Steps(), 3u);

    ScriptedContinuation fine({true, true});
    EXPECT_TRUE(fine.Go());
    EXPECT_EQ(fine.Steps(), 2u);
    EXPECT_EQ(fine.GetProgress(), nullptr);
}

TEST(QelContinuationTest, GoOnAFinishedContinuationStepsNoMore)
{
    ScriptedContinuation done({});
    EXPECT_TRUE(done.Go());
    EXPECT_EQ(done.Steps(), 0u);
}

class CountingDraw final : public QelImageStackOneStepImpl {
public:
    bool Draw(QelImageStack* stack, QelRenderSpec* spec) override
    {
        ++draws;
        lastStack = stack;
        lastSpec = spec;
        return result;
    }
    int draws = 0;
    bool result = true;
    QelImageStack* lastStack = nullptr;
    QelRenderSpec* lastSpec = nullptr;
};

TEST(QelImageStackOneStepImplTest, TheWholeDrawIsOneStepAndASecondStepDrawsNothing)
{
    CountingDraw renderer;
    auto* stack = reinterpret_cast<QelImageStack*>(0x10);
    auto* spec = reinterpret_cast<QelRenderSpec*>(0x20);
    ASSERT_TRUE(renderer.StartDraw(stack, spec));
    EXPECT_FALSE(renderer.IsDone());
    renderer.result = false;
    EXPECT_FALSE(renderer.Step());
    EXPECT_TRUE(renderer.IsDone());
    EXPECT_EQ(renderer.lastStack, stack);
    EXPECT_EQ(renderer.lastSpec, spec);
    EXPECT_TRUE(renderer.Step());
    EXPECT_EQ(renderer.draws, 1);
    EXPECT_FALSE(renderer.HasFailed());
    char text[8] = "x";
    EXPECT_FALSE(renderer.GetErrorText(text, sizeof text));

    // A new draw starts afresh on the same object.
    ASSERT_TRUE(renderer.StartDraw(stack, spec));
    EXPECT_FALSE(renderer.IsDone());
    renderer.result = true;
    EXPECT_TRUE(renderer.Go());
    EXPECT_EQ(renderer.draws, 2);
}

}  // namespace
