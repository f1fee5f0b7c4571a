#include "PrimitiveConversions.h"

#include "ax/primitives/Bounds3.h"
#include "ax/rendering/Initializer.h"
#include "ax/rendering/ProjectionMode.h"
#include "ax/system/Exception.h"

#include <gtest/gtest.h>

#include <limits>

namespace {

using Ax::Primitives::Bounds3;
using Ax::Rendering::PrimitiveConversions;
using Ax::Rendering::ProjectionMode;

TEST(PrimitiveConversionsTest, BoundsCoverTheVoxelsTheBoxTouches)
{
    Ax::Rendering::Initializer::Initialize();
    // Integer edges: corner 0 and size 128 are the voxels 0 to 127.
    EXPECT_EQ(PrimitiveConversions::Bounds3(Bounds3(0, 0, 0, 128, 128, 128)),
              QelIntBBox3(QelIntRange(0, 127), QelIntRange(0, 127), QelIntRange(0, 127)));
    // Fractional edges reach out to the voxels they cut; an infinite edge is the
    // infinite native bound rather than an undefined cast.
    const double inf = std::numeric_limits<double>::infinity();
    EXPECT_EQ(PrimitiveConversions::Bounds3(Bounds3(0.0, -0.5, 2.25, 127.5, 3.5, inf)),
              QelIntBBox3(QelIntRange(0, 127), QelIntRange(-1, 2), QelIntRange(2, QelIntRange::kHighest)));
}

TEST(PrimitiveConversionsTest, ProjectionModesKeepTheirNumbersAndRefuseOthersWithTheirParameterNames)
{
    EXPECT_EQ(PrimitiveConversions::ProjectionModeToQelIPRenderMode(ProjectionMode::Minimum), QelIPRenderMode::MINIP);
    EXPECT_EQ(PrimitiveConversions::ToQelSlabEnum(ProjectionMode::Average), QelSlabMode::AVIP);
    try {
        (void)PrimitiveConversions::ProjectionModeToQelIPRenderMode(static_cast<ProjectionMode>(3));
        ADD_FAILURE() << "nothing was thrown";
    } catch (const Ax::System::ArgumentOutOfRangeException&) {
        ADD_FAILURE() << "the intensity conversion throws the plain argument exception";
    } catch (const Ax::System::ArgumentException& e) {
        EXPECT_STREQ(e.what(), "Unknown projection mode");
        EXPECT_EQ(e.ParamName(), "projection_mode");
    }
    try {
        (void)PrimitiveConversions::ToQelSlabEnum(static_cast<ProjectionMode>(-1));
        ADD_FAILURE() << "nothing was thrown";
    } catch (const Ax::System::ArgumentOutOfRangeException& e) {
        // A value without a name prints as its number; the parameter stays out of the text.
        EXPECT_STREQ(e.what(), "Unsupported projection mode: -1");
        EXPECT_EQ(e.ParamName(), "slabMode");
    }
}

}  // namespace
