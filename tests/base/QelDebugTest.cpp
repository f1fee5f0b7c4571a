#include "base/QelDebug.h"

#include "base/imp/QelThrowBugHandler.h"

#include "support/MessageOf.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using Handler = QelThrowBugHandler;

// Each test starts and ends with no handler installed, so the default comes back.
class QelDebugTest : public ::testing::Test {
protected:
    void SetUp() override { QelDebug::SetBugHandler(nullptr); }
    void TearDown() override { QelDebug::SetBugHandler(nullptr); }
};

// A handler that returns from Flush, to see the order of calls of each form.
class RecordingHandler final : public QelBugHandler {
public:
    explicit RecordingHandler(std::vector<std::string>& calls) : m_calls(calls) {}
    bool Arm() override { m_calls.push_back("Arm"); m_armed = true; return true; }
    void Disarm() override { m_calls.push_back("Disarm"); m_armed = false; }
    bool IsArmed() const override { return m_armed; }
    void Trace(const char*, int) override { m_calls.push_back("Trace"); }
    void Assert(const char*, int) override { m_calls.push_back("Assert"); }
    void Error(const char*, int) override { m_calls.push_back("Error"); }
    int VPrintf(const char* format, std::va_list args) override
    {
        char text[64];
        std::vsnprintf(text, sizeof text, format, args);
        m_calls.push_back(std::string("Printf:") + text);
        return 0;
    }
    void Flush() override { m_calls.push_back("Flush"); }
    void Exit() override { m_calls.push_back("Exit"); }

private:
    std::vector<std::string>& m_calls;
    bool m_armed = false;
};

TEST_F(QelDebugTest, FirstUseArmsAThrowingDefaultAndSettingNullDisarmsIt)
{
    QelBugHandler* first = QelDebug::BugHandler();
    EXPECT_NE(dynamic_cast<Handler*>(first), nullptr);
    EXPECT_TRUE(first->IsArmed());
    EXPECT_EQ(QelDebug::BugHandler(), first);

    const std::unique_ptr<QelBugHandler> old = QelDebug::SetBugHandler(nullptr);
    ASSERT_EQ(old.get(), first);
    EXPECT_FALSE(old->IsArmed());
    EXPECT_TRUE(QelDebug::BugHandler()->IsArmed());
}

TEST_F(QelDebugTest, ThrowingHandlerRefusesMisuseWithItsTexts)
{
    Handler handler;
    const auto refusal = [](auto call) { return MessageOf<Handler::ErrorException>(call); };
    EXPECT_EQ(refusal([&] { handler.Assert("f", 1); }), "QelThrowBugHandler::Assert(..): object must be armed");
    EXPECT_EQ(refusal([&] { handler.Trace("f", 1); }), "QelThrowBugHandler::Trace(..): object must be armed");
    EXPECT_EQ(refusal([&] { handler.Error("f", 1); }), "Error() object must be armed");
    EXPECT_EQ(refusal([&] { handler.Flush(); }), "Error() object must be armed");
    EXPECT_EQ(refusal([&] { handler.Disarm(); }), "QelThrowBugHandler::Disarm(): object must be armed");
    EXPECT_TRUE(handler.Arm());
    EXPECT_EQ(refusal([&] { handler.Arm(); }), "Arm() object is already armed.");
}

TEST_F(QelDebugTest, EachFormThrowsItsOwnExceptionWithHeadingAndText)
{
    const int line = __LINE__ + 1;
    const auto assertion = [] { QEL_ASSERT(1 + 1 == 3, "Required: [0..2]. Given: %d.\n", 7); };
    EXPECT_EQ(MessageOf<Handler::AssertException>(assertion),
              "QEL_ASSERT in tests/base/QelDebugTest.cpp, line " + std::to_string(line) +
                  "\nRequired: [0..2]. Given: 7.\n");
    EXPECT_EQ(MessageOf<Handler::TraceException>([] { QEL_TRACE("%s", "note"); }).substr(0, 14), "QEL_TRACE in t");
    EXPECT_NO_THROW(QEL_ASSERT(true, "never"));
    // The message is the format: a % in an argument must not be read again.
    const std::string error = MessageOf<Handler::ErrorException>([] { QEL_ERROR("value %s", "100%d"); });
    EXPECT_TRUE(error.starts_with("QEL_ERROR in ") && error.ends_with("\nvalue 100%d")) << error;
}

TEST_F(QelDebugTest, PrintfCallsMakeOneMessageCutAtTheCapacityWithoutAnError)
{
    Handler handler;
    handler.Arm();
    handler.Assert("a.cpp", 12);
    handler.Printf("QelMatrix34::Shear: Axis out of range.\n");
    handler.Printf("Required: [0..2]. Given: %d.\n", 3);
    EXPECT_EQ(MessageOf<Handler::AssertException>([&] { handler.Flush(); }),
              "QEL_ASSERT in a.cpp, line 12\nQelMatrix34::Shear: Axis out of range.\nRequired: [0..2]. Given: 3.\n");

    handler.Trace("file", 3);
    const std::string chunk(1000, 'x');
    for (int i = 0; i < 3; ++i)
        handler.Printf("%s", chunk.c_str());
    EXPECT_EQ(handler.Printf("more"), 0);
    const std::string message = MessageOf<Handler::TraceException>([&] { handler.Flush(); });
    ASSERT_EQ(message.size(), Handler::kCapacity);
    EXPECT_EQ(message.substr(0, 26), "QEL_TRACE in file, line 3\n");
    EXPECT_EQ(message.back(), 'x');
}

TEST_F(QelDebugTest, FormsCallTheHandlerInOrderAndOnlyTheSevereOnesExit)
{
    std::vector<std::string> calls;
    QelDebug::SetBugHandler(std::make_unique<RecordingHandler>(calls));
    QEL_ASSERT(false, "a%d", 1);
    QEL_ERROR("e");
    QEL_TRACE("t");
    const std::vector<std::string> expected{"Arm",   "Assert", "Printf:a1", "Flush", "Exit",     "Error",
                                            "Printf:e", "Flush", "Exit",   "Trace", "Printf:t", "Flush"};
    EXPECT_EQ(calls, expected);
    QelDebug::SetBugHandler(nullptr);  // the handler refers to calls, which dies with this scope
}

}  // namespace
