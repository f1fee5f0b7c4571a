#include "MemoryManager.h"

#include "ax/rendering/Initializer.h"
#include "ax/rendering/RenderingException.h"
#include "ax/system/Exception.h"
#include "base/QelDebug.h"
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
    EXPECT_EQ(MessageOf<InvalidOperationException>([] { (void)MemoryManager::Instance(); }),
              "No memory manager has been initialized.");
    // Before start-up, native reports throw native exceptions; after it, the host's.
    EXPECT_THROW(QEL_ERROR("early"), QelThrowBugHandler::ErrorException);

    Initializer::Initialize();
    QelMemoryManager* manager = MemoryManager::Instance();
    QelBugHandler* handler = QelDebug::BugHandler();
    EXPECT_THROW(QEL_ERROR("late"), Ax::Rendering::RenderingException);

    Initializer::Initialize();
    EXPECT_EQ(MemoryManager::Instance(), manager);
    EXPECT_EQ(QelDebug::BugHandler(), handler);

    EXPECT_EQ(MessageOf<InvalidOperationException>([] { MemoryManager::InitializeStandardMemoryManager(); }),
              "A memory manager is already initialized!");
    EXPECT_EQ(MemoryManager::Instance(), manager);
}

}  // namespace
