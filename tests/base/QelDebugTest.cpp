#include "base/QelDebug.h"

#include "base/imp/QelThrowBugHandler.h"

#include "support/MessageOf.h"

#include <gtest/gtest.h>

#include <string>

namespace {

using Handler = QelThrowBugHandler;

// The first use arms a throwing default; setting null disarms it, and a disarmed
// handler refuses every call but Arm with its text.
TEST(QelDebugTest, SettingNullDisarmsTheThrowingDefaultWhichThenRefusesMisuse)
{
    (void)QelDebug::SetBugHandler(nullptr);
    QelBugHandler* first = QelDebug::BugHandler();
    const std::unique_ptr<QelBugHandler> handler = QelDebug::SetBugHandler(nullptr);
    ASSERT_EQ(handler.get(), first);

    const auto refusal = [](auto call) { return MessageOf<Handler::ErrorException>(call); };
    EXPECT_EQ(refusal([&] { handler->Assert("f", 1); }), "QelThrowBugHandler::Assert(..): object must be armed");
    EXPECT_EQ(refusal([&] { handler->Trace("f", 1); }), "QelThrowBugHandler::Trace(..): object must be armed");
    EXPECT_EQ(refusal([&] { handler->Error("f", 1); }), "Error() object must be armed");
    EXPECT_EQ(refusal([&] { handler->Flush(); }), "Error() object must be armed");
    EXPECT_EQ(refusal([&] { handler->Disarm(); }), "QelThrowBugHandler::Disarm(): object must be armed");
    EXPECT_TRUE(handler->Arm());
    EXPECT_EQ(refusal([&] { handler->Arm(); }), "Arm() object is already armed.");
}

TEST(QelDebugTest, EachFormThrowsItsOwnExceptionWithHeadingAndTextCutAtTheCapacity)
{
    const int line = __LINE__ + 1;
    const auto assertion = [] { QEL_ASSERT(1 + 1 == 3, "Required: [0..2]. Given: %d.\n", 7); };
    EXPECT_EQ(MessageOf<Handler::AssertException>(assertion),
              "QEL_ASSERT in tests/base/QelDebugTest.cpp, line " + std::to_string(line) +
                  "\nRequired: [0..2]. Given: 7.\n");
    EXPECT_EQ(MessageOf<Handler::TraceException>([] { QEL_TRACE("%s", "note"); }).substr(0, 14), "QEL_TRACE in t");
    // The message is the format: a % in an argument must not be read again.
    const std::string error = MessageOf<Handler::ErrorException>([] { QEL_ERROR("value %s", "100%d"); });
    EXPECT_TRUE(error.starts_with("QEL_ERROR in ") && error.ends_with("\nvalue 100%d")) << error;

    // A message too long for the buffer is cut at its capacity without an error.
    Handler handler;
    handler.Arm();
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

}  // namespace
