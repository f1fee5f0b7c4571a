#include "AbortableRenderer.h"

#include "ax/rendering/Aborter.h"
#include "ax/rendering/RenderingException.h"
#include "ax/system/Exception.h"
#include "threaded/QelImageStackRenderer.h"

#include "support/MessageOf.h"

#include <gtest/gtest.h>

#include <cstring>
#include <limits>
#include <stdexcept>
#include <string>
#include <thread>

namespace {

using Ax::Rendering::AbortableRenderer;
using Ax::Rendering::Aborter;
using Ax::Rendering::IAborter;
using Ax::Rendering::RenderingException;
using Ax::Rendering::StatusCode;
using Ax::System::InvalidOperationException;

// A renderer of `steps` steps that records what the driver asked of it, and fails
// or throws where a test tells it to.
class ScriptedRenderer final : public QelImageStackSteppableRenderer {
public:
    explicit ScriptedRenderer(int steps) : m_steps(steps) {}

    bool Draw(QelImageStack*, QelRenderSpec*) override { return false; }
    bool StartDraw(QelImageStack*, QelRenderSpec*) override
    {
        ++starts;
        m_done = 0;
        return startResult;
    }
    bool Step() override
    {
        ++steps;
        if (steps == throwAtStep)
            throw std::runtime_error("native trouble");
        if (steps == throwPublicAtStep)
            throw RenderingException("from the public handler");
        ++m_done;
        return steps != failAtStep;
    }
    [[nodiscard]] bool IsDone() const override { return m_done >= m_steps; }
    void Abort() override { ++aborts; }
    [[nodiscard]] bool HasFailed() const override { return memoryFailure; }
    bool GetErrorText(char* buffer, std::uint32_t size) const override
    {
        if (errorText.empty())
            return false;
        // Renderers cut their text to the buffer they are given.
        std::strncpy(buffer, errorText.c_str(), size - 1);
        return true;
    }

    bool startResult = true;
    int failAtStep = 0;
    int throwAtStep = 0;
    int throwPublicAtStep = 0;
    bool memoryFailure = false;
    std::string errorText;
    int starts = 0;
    int steps = 0;
    int aborts = 0;

private:
    int m_steps;
    int m_done = 0;
};

// Aborts at its n-th poll (0: never), counting polls.
class CountingAborter final : public IAborter {
public:
    explicit CountingAborter(int abortAtPoll) : m_abortAtPoll(abortAtPoll) {}
    bool HasAborted() override { return ++polls == m_abortAtPoll; }
    int polls = 0;

private:
    int m_abortAtPoll;
};

StatusCode Render(ScriptedRenderer& renderer, IAborter* aborter)
{
    return AbortableRenderer::Render(&renderer, nullptr, nullptr, aborter);
}

TEST(AbortableRendererTest, RunsEveryStepAskingTheAborterBeforeEachButNotAfterTheLast)
{
    ScriptedRenderer renderer(3);
    EXPECT_EQ(Render(renderer, nullptr), StatusCode::Finished);
    EXPECT_EQ(renderer.steps, 3);

    ScriptedRenderer polled(3);
    CountingAborter never(0);
    EXPECT_EQ(Render(polled, &never), StatusCode::Finished);
    EXPECT_EQ(never.polls, 3);
    EXPECT_EQ(polled.aborts, 0);

    ScriptedRenderer doneAtStart(0);
    CountingAborter unasked(1);
    EXPECT_EQ(Render(doneAtStart, &unasked), StatusCode::Finished);
    EXPECT_EQ(unasked.polls, 0);
}

TEST(AbortableRendererTest, AnAbortStopsBetweenStepsAndAbortsTheRenderer)
{
    ScriptedRenderer before(3);
    CountingAborter atOnce(1);
    EXPECT_EQ(Render(before, &atOnce), StatusCode::Aborted);
    EXPECT_EQ(before.starts, 1);
    EXPECT_EQ(before.steps, 0);
    EXPECT_EQ(before.aborts, 1);

    ScriptedRenderer midway(5);
    CountingAborter third(3);
    EXPECT_EQ(Render(midway, &third), StatusCode::Aborted);
    EXPECT_EQ(midway.steps, 2);
    EXPECT_EQ(midway.aborts, 1);

    // The public aborter, raised before the call.
    ScriptedRenderer raised(2);
    Aborter aborter;
    aborter.Abort();
    EXPECT_EQ(Render(raised, &aborter), StatusCode::Aborted);
    EXPECT_EQ(raised.steps, 0);
}

TEST(AbortableRendererTest, AFailureBecomesARenderingExceptionWithTheBestTextKnown)
{
    ScriptedRenderer refused(3);
    refused.startResult = false;
    CountingAborter aborter(0);
    EXPECT_EQ(MessageOf<RenderingException>([&] { Render(refused, &aborter); }), "Renderer failed to Draw");
    EXPECT_EQ(refused.steps, 0);
    EXPECT_EQ(aborter.polls, 0);

    ScriptedRenderer memory(3);
    memory.failAtStep = 2;
    memory.memoryFailure = true;
    EXPECT_EQ(MessageOf<RenderingException>([&] { Render(memory, nullptr); }),
              "Renderer failed to Draw because of a memory failure");
    EXPECT_EQ(memory.steps, 2);

    ScriptedRenderer crashed(3);
    crashed.failAtStep = 1;
    crashed.memoryFailure = true;  // a text wins over the memory flag
    crashed.errorText = "Access violation in worker";
    EXPECT_EQ(MessageOf<RenderingException>([&] { Render(crashed, nullptr); }),
              "Renderer crashed: \"Access violation in worker\"");

    ScriptedRenderer verbose(1);
    verbose.failAtStep = 1;
    verbose.errorText = std::string(1500, 'e');
    EXPECT_EQ(MessageOf<RenderingException>([&] { Render(verbose, nullptr); }),
              "Renderer crashed: \"" + std::string(999, 'e') + "\"");
}

TEST(AbortableRendererTest, NativeExceptionsBecomeInvalidOperationAndPublicOnesPass)
{
    ScriptedRenderer native(3);
    native.throwAtStep = 2;
    EXPECT_EQ(MessageOf<InvalidOperationException>([&] { Render(native, nullptr); }), "native trouble");

    ScriptedRenderer reported(3);
    reported.throwPublicAtStep = 1;
    EXPECT_EQ(MessageOf<RenderingException>([&] { Render(reported, nullptr); }), "from the public handler");
}

TEST(AborterTest, TimeLeftIsInMillisecondsAndTheLargestValueWithoutALimit)
{
    EXPECT_EQ(Aborter().TimeLeft(), std::numeric_limits<std::int64_t>::max());
    EXPECT_EQ(Aborter(4294967000).TimeLeft(), std::numeric_limits<std::int64_t>::max());
    const std::int64_t left = Aborter(5000).TimeLeft();
    EXPECT_GT(left, 4000);
    EXPECT_LE(left, 5000);

    Aborter expired(1);
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
    EXPECT_TRUE(expired.HasAborted());
    EXPECT_LT(expired.TimeLeft(), 0);
    expired.Reset();  // does not restart the clock
    EXPECT_TRUE(expired.HasAborted());
}

}  // namespace
