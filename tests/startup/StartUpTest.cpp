#include "MemoryManager.h"
#include "BugHandlerInstance.h"

#include "ax/rendering/Initializer.h"
#include "ax/rendering/RenderingException.h"
#include "ax/system/Exception.h"
#include "base/QelDebug.h"
#include "base/QelMemoryManager.h"
#include "base/imp/QelThrowBugHandler.h"

#include "support/MessageOf.h"

#include <gtest/gtest.h>

namespace {

using Ax::Rendering::Initializer;
using Ax::Rendering::MemoryManager;
using Ax::System::InvalidOperationException;

// Start-up state is process-wide, so the whole life cycle is one test in a binary of its own.
TEST(StartUp, InitializeMakesTheManagerThenInstallsTheHostHandlerOnce)
{
    ASSERT_FALSE(Initializer::IsInitialized());
    EXPECT_FALSE(MemoryManager::StandardMemoryManagerInitialized());
    EXPECT_EQ(MessageOf<InvalidOperationException>([] { (void)MemoryManager::Instance(); }),
              "No memory manager has been initialized.");
    // Before start-up, native reports throw native exceptions.
    EXPECT_THROW(QEL_ERROR("early"), QelThrowBugHandler::ErrorException);

    Initializer::Initialize();
    ASSERT_TRUE(Initializer::IsInitialized());
    QelMemoryManager* manager = MemoryManager::Instance();
    ASSERT_NE(manager, nullptr);
    QelBugHandler* handler = QelDebug::BugHandler();
    EXPECT_NE(dynamic_cast<Ax::Rendering::BugHandlerInstance*>(handler), nullptr);
    EXPECT_THROW(QEL_ERROR("late"), Ax::Rendering::RenderingException);

    Initializer::Initialize();
    EXPECT_EQ(MemoryManager::Instance(), manager);
    EXPECT_EQ(QelDebug::BugHandler(), handler);

    const std::int32_t outstanding = QelDumbMemoryManager::OutstandingBlocks();
    EXPECT_EQ(MessageOf<InvalidOperationException>([] { MemoryManager::InitializeStandardMemoryManager(); }),
              "A memory manager is already initialized!");
    EXPECT_EQ(MemoryManager::Instance(), manager);
    EXPECT_EQ(QelDumbMemoryManager::OutstandingBlocks(), outstanding);
}

TEST(StartUp, HostExceptionsKeepMessageParameterAndCause)
{
    const Ax::System::ArgumentException argument("Image has different pixel format", "other");
    EXPECT_EQ(argument.Message(), "Image has different pixel format");
    EXPECT_STREQ(argument.what(), "Image has different pixel format");
    EXPECT_EQ(argument.ParamName(), "other");

    const Ax::Rendering::RenderingException outer("outer", std::make_exception_ptr(argument));
    ASSERT_TRUE(outer.InnerException());
    EXPECT_THROW(std::rethrow_exception(outer.InnerException()), Ax::System::ArgumentException);
    EXPECT_FALSE(Ax::Rendering::RenderingException().Message().empty());
}

}  // namespace
