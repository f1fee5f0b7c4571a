#include "AbortableRenderer.h"

#include "ax/rendering/Aborter.h"
#include "ax/rendering/RenderingException.h"
#include "ax/system/Exception.h"
#include "threaded/QelImageStackRenderer.h"

#include "support/MessageOf.h"

#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <limits>
#include <stdexcept>

namespace {

using Ax::Rendering::AbortableRenderer;
using Ax::Rendering::Aborter;
using Ax::Rendering::RenderingException;
using Ax::Rendering::StatusCode;

// A renderer of `stepCount` steps that counts what the driver asked of it; `onStep` says
// how each step ends.
struct ScriptedRenderer final : QelImageStackSteppableRenderer {
    explicit ScriptedRenderer(int stepCount, std::function<bool(int step)> onStep = [](int) { return true; })
        : stepCount(stepCount), onStep(std::move(onStep))
    {
    }
    bool Draw(QelImageStack*, QelRenderSpec*) override { return false; }
    bool StartDraw(QelImageStack*, QelRenderSpec*) override { return startResult; }
    bool Step() override { return onStep(++steps); }
    [[nodiscard]] bool IsDone() const override { return steps >= stepCount; }
    void Abort() override { ++aborts; }
    [[nodiscard]] bool HasFailed() const override { return memoryFailure; }
    bool GetErrorText(char* buffer, std::uint32_t size) const override
    {
        std::strncpy(buffer, errorText.c_str(), size - 1);  // renderers cut their text to the buffer
        return !errorText.empty();
    }

    const int stepCount;
    const std::function<bool(int step)> onStep;
    bool startResult = true, memoryFailure = false;
    std::string errorText;
    int steps = 0, aborts = 0;
};

// Aborts at its n-th poll (0: never), counting polls.
struct CountingAborter final : Ax::Rendering::IAborter {
    explicit CountingAborter(int abortAtPoll) : abortAtPoll(abortAtPoll) {}
    bool HasAborted() override { return ++polls == abortAtPoll; }
    int abortAtPoll, polls = 0;
};

StatusCode Render(ScriptedRenderer& renderer, Ax::Rendering::IAborter* aborter = nullptr)
{
    return AbortableRenderer::Render(&renderer, nullptr, nullptr, aborter);
}

// The aborter is asked before each step but not after the last; an abort stops
// between steps and aborts the renderer.
TEST(AbortableRendererTest, TheAborterIsPolledBeforeEveryStepAndStopsBetweenThem)
{
    const struct {
        int steps, abortAtPoll;
        StatusCode status;
        int stepsRun, polls, aborts;
    } cases[] = {{3, 0, StatusCode::Finished, 3, 3, 0}, {0, 1, StatusCode::Finished, 0, 0, 0},
                 {3, 1, StatusCode::Aborted, 0, 1, 1}, {5, 3, StatusCode::Aborted, 2, 3, 1}};
    for (const auto& c : cases) {
        ScriptedRenderer renderer(c.steps);
        CountingAborter aborter(c.abortAtPoll);
        EXPECT_EQ(Render(renderer, &aborter), c.status);
        EXPECT_EQ(std::tuple(renderer.steps, aborter.polls, renderer.aborts), std::tuple(c.stepsRun, c.polls, c.aborts))
            << c.steps << " steps, abort at poll " << c.abortAtPoll;
    }
}

TEST(AbortableRendererTest, AFailureBecomesARenderingExceptionWithTheBestTextKnown)
{
    const struct {
        bool start;
        int failAtStep;
        bool memoryFailure;
        std::string errorText, message;
    } cases[] = {
        {false, 0, false, "", "Renderer failed to Draw"},
        {true, 2, true, "", "Renderer failed to Draw because of a memory failure"},
        // A text wins over the memory flag.
        {true, 1, true, "Access violation in worker", "Renderer crashed: \"Access violation in worker\""},
        {true, 1, false, std::string(1500, 'e'), "Renderer crashed: \"" + std::string(999, 'e') + "\""},
    };
    for (const auto& c : cases) {
        ScriptedRenderer renderer(3, [&](int step) { return step != c.failAtStep; });
        renderer.startResult = c.start;
        renderer.memoryFailure = c.memoryFailure;
        renderer.errorText = c.errorText;
        EXPECT_EQ(MessageOf<RenderingException>([&] { Render(renderer); }), c.message);
        EXPECT_EQ(renderer.steps, c.failAtStep);
    }
    // Exceptions of the engine become InvalidOperationException; the public ones pass.
    ScriptedRenderer native(3, [](int) -> bool { throw std::runtime_error("native trouble"); });
    EXPECT_EQ(MessageOf<Ax::System::InvalidOperationException>([&] { Render(native); }), "native trouble");
    ScriptedRenderer reported(3, [](int) -> bool { throw RenderingException("from the public handler"); });
    EXPECT_EQ(MessageOf<RenderingException>([&] { Render(reported); }), "from the public handler");
}

TEST(AborterTest, TimeLeftIsInMillisecondsAndTheLargestValueWithoutALimit)
{
    EXPECT_EQ(Aborter().TimeLeft(), std::numeric_limits<std::int64_t>::max());
    const std::int64_t left = Aborter(5000).TimeLeft();
    EXPECT_TRUE(left > 4000 && left <= 5000) << left;
}

}  // namespace
