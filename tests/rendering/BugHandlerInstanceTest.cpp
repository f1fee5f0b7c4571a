#include "BugHandlerInstance.h"

#include "ax/rendering/Initializer.h"
#include "ax/rendering/RenderingException.h"

#include "support/MessageOf.h"

#include <gtest/gtest.h>

#include <string>

namespace {

using Ax::Rendering::BugHandlerInstance;
using Ax::Rendering::RenderingException;

TEST(BugHandlerInstanceTest, AMessageEndsInARenderingExceptionWithItsText)
{
    BugHandlerInstance handler;
    handler.Arm();
    handler.Assert("src/x.cpp", 5);
    EXPECT_EQ(handler.Printf("Given: %d.\n", 3), 11);  // ten characters and the terminator
    EXPECT_TRUE(handler.MessageOpen());
    EXPECT_EQ(MessageOf<RenderingException>([&] { handler.Flush(); }), "src/x.cpp: 5: Assertation failed.\nGiven: 3.\n");
    EXPECT_FALSE(handler.MessageOpen());

    // Each message starts afresh.
    handler.Error("e.cpp", 1);
    EXPECT_EQ(MessageOf<RenderingException>([&] { handler.Flush(); }), "e.cpp: 1: Runtime error.\n");
    handler.Trace("t.cpp", 2);
    EXPECT_EQ(MessageOf<RenderingException>([&] { handler.Flush(); }), "t.cpp: 2: Trace information.\n");
}

TEST(BugHandlerInstanceTest, MisuseRaisesTheUnexpectedCallTexts)
{
    BugHandlerInstance handler;
    EXPECT_EQ(MessageOf<RenderingException>([&] { handler.Trace("f", 1); }), "Unexpected call to Trace");
    EXPECT_EQ(MessageOf<RenderingException>([&] { handler.Assert("f", 1); }), "Unexpected call to Assert");
    EXPECT_EQ(MessageOf<RenderingException>([&] { handler.Error("f", 1); }), "Unexpected call to Error");
    EXPECT_EQ(MessageOf<RenderingException>([&] { handler.Printf("x"); }), "Unexpected call to Printf");
    EXPECT_EQ(MessageOf<RenderingException>([&] { handler.Flush(); }), "Unexpected call to Flush");
    EXPECT_EQ(MessageOf<RenderingException>([&] { handler.Disarm(); }), "Unexpected call to Disarm");
    handler.Arm();
    EXPECT_EQ(MessageOf<RenderingException>([&] { handler.Arm(); }), "Unexpected call to Arm");
    EXPECT_EQ(MessageOf<RenderingException>([&] { handler.Printf("x"); }), "Unexpected call to Printf");
    handler.Trace("f", 1);
    EXPECT_EQ(MessageOf<RenderingException>([&] { handler.Disarm(); }), "Unexpected call to Disarm");
    EXPECT_EQ(MessageOf<RenderingException>([&] { handler.Trace("f", 1); }), "Unexpected call to Trace");
}

TEST(BugHandlerInstanceTest, TheBufferHoldsExactly4096BytesWithTheTerminator)
{
    BugHandlerInstance handler;
    handler.Arm();
    handler.Trace("f", 1);
    const std::int32_t heading = handler.Length();
    const std::string fill(static_cast<std::size_t>(BugHandlerInstance::kBufferSize - heading - 1), 'x');
    EXPECT_EQ(handler.Printf("%s", fill.c_str()), static_cast<int>(fill.size()) + 1);
    EXPECT_EQ(handler.Length(), BugHandlerInstance::kBufferSize - 1);
    EXPECT_EQ(handler.Printf("%s", ""), 1);

    EXPECT_EQ(MessageOf<RenderingException>([&] { handler.Printf("y"); }), "Insufficient space in the message buffer!");
    EXPECT_EQ(handler.Length(), BugHandlerInstance::kBufferSize - 1);
    // The overflow left the message open: the next one can't start.
    EXPECT_TRUE(handler.MessageOpen());
    EXPECT_EQ(MessageOf<RenderingException>([&] { handler.Assert("f", 2); }), "Unexpected call to Assert");
    const std::string text = MessageOf<RenderingException>([&] { handler.Flush(); });
    EXPECT_EQ(text.size(), static_cast<std::size_t>(BugHandlerInstance::kBufferSize - 1));
}

TEST(BugHandlerInstanceTest, ExitEndsTheProcessWithStatusOne)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    BugHandlerInstance handler;
    EXPECT_EXIT(handler.Exit(), ::testing::ExitedWithCode(1), "");
}

TEST(BugHandlerInstanceTest, NativeReportsReachTheHostAsRenderingExceptions)
{
    Ax::Rendering::Initializer::Initialize();
    const int line = __LINE__ + 1;
    const std::string text = MessageOf<RenderingException>([] { QEL_ASSERT(false, "QelSize2::QelSize2: Negative size"); });
    EXPECT_EQ(text, "tests/rendering/BugHandlerInstanceTest.cpp: " + std::to_string(line) +
                        ": Assertation failed.\nQelSize2::QelSize2: Negative size");
    // A finished report leaves the handler ready for the next.
    EXPECT_FALSE(static_cast<BugHandlerInstance*>(QelDebug::BugHandler())->MessageOpen());
}

}  // namespace
