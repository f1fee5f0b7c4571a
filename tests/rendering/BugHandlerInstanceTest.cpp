#include "BugHandlerInstance.h"

#include "ax/rendering/RenderingException.h"

#include "support/MessageOf.h"

#include <gtest/gtest.h>

#include <functional>

namespace {

using Ax::Rendering::BugHandlerInstance;
using Ax::Rendering::RenderingException;

std::string Thrown(const std::function<void()>& call) { return MessageOf<RenderingException>(call); }

TEST(BugHandlerInstanceTest, AMessageEndsInARenderingExceptionWithItsText)
{
    BugHandlerInstance handler;
    handler.Arm();
    handler.Assert("src/x.cpp", 5);
    EXPECT_EQ(handler.Printf("Given: %d.\n", 3), 11);  // ten characters and the terminator
    EXPECT_EQ(Thrown([&] { handler.Flush(); }), "src/x.cpp: 5: Assertation failed.\nGiven: 3.\n");
    // Each message starts afresh.
    handler.Error("e.cpp", 1);
    EXPECT_EQ(Thrown([&] { handler.Flush(); }), "e.cpp: 1: Runtime error.\n");
    handler.Trace("t.cpp", 2);
    EXPECT_EQ(Thrown([&] { handler.Flush(); }), "t.cpp: 2: Trace information.\n");

    // Calls out of turn: before arming, arming twice, printing before a heading,
    // disarming or starting another message while one is open.
    BugHandlerInstance unarmed;
    for (const auto& [call, name] : std::initializer_list<std::pair<std::function<void()>, const char*>>{
             {[&] { unarmed.Trace("f", 1); }, "Trace"}, {[&] { unarmed.Assert("f", 1); }, "Assert"},
             {[&] { unarmed.Error("f", 1); }, "Error"}, {[&] { unarmed.Printf("x"); }, "Printf"},
             {[&] { unarmed.Flush(); }, "Flush"}, {[&] { unarmed.Disarm(); }, "Disarm"},
             {[&] { unarmed.Arm(), unarmed.Arm(); }, "Arm"}, {[&] { unarmed.Printf("x"); }, "Printf"},
             {[&] { unarmed.Trace("f", 1), unarmed.Disarm(); }, "Disarm"}, {[&] { unarmed.Trace("f", 1); }, "Trace"}})
        EXPECT_EQ(Thrown(call), std::string("Unexpected call to ") + name);
}

TEST(BugHandlerInstanceTest, TheBufferHoldsExactly4096BytesWithTheTerminator)
{
    BugHandlerInstance handler;
    handler.Arm();
    handler.Trace("f", 1);
    const std::string fill(static_cast<std::size_t>(BugHandlerInstance::kBufferSize - handler.Length() - 1), 'x');
    EXPECT_EQ(handler.Printf("%s", fill.c_str()), static_cast<int>(fill.size()) + 1);
    EXPECT_EQ(handler.Printf("%s", ""), 1);
    EXPECT_EQ(Thrown([&] { handler.Printf("y"); }), "Insufficient space in the message buffer!");
    // The overflow left the message open: the next one can't start.
    EXPECT_EQ(Thrown([&] { handler.Assert("f", 2); }), "Unexpected call to Assert");
    EXPECT_EQ(Thrown([&] { handler.Flush(); }).size(), static_cast<std::size_t>(BugHandlerInstance::kBufferSize - 1));
}

}  // namespace
