#include "PrimitiveConversions.h"

#include "ax/primitives/Bounds3.h"
#include "ax/rendering/Initializer.h"
#include "ax/rendering/ProjectionMode.h"
#include "ax/system/Exception.h"

#include "support/BaseTestSupport.h"

#include <gtest/gtest.h>

#include <limits>

namespace {

using Ax::Primitives::Bounds3;
using Ax::Rendering::PrimitiveConversions;
using Ax::Rendering::ProjectionMode;

class PrimitiveConversionsTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() { Ax::Rendering::Initializer::Initialize(); }
};

TEST_F(PrimitiveConversionsTest, BoundsCoverTheVoxelsTheBoxTouches)
{
    // Corner 0 and size 128: integer edges give the voxels 0 to 127.
    QelIntBBox3 box = PrimitiveConversions::Bounds3(Bounds3(0, 0, 0, 128, 128, 128));
    EXPECT_EQ(box, QelIntBBox3(QelIntRange(0, 127), QelIntRange(0, 127), QelIntRange(0, 127)));

    // Fractional edges reach out to the voxels they cut; infinite edges are the
    // infinite native bounds rather than undefined casts.
    constexpr double inf = std::numeric_limits<double>::infinity();
    box = PrimitiveConversions::Bounds3(Bounds3(0.0, -0.5, 2.25, 127.5, 3.5, inf));
    EXPECT_EQ(box.X, QelIntRange(0, 127));
    EXPECT_EQ(box.Y, QelIntRange(-1, 2));
    EXPECT_EQ(box.Z, QelIntRange(2, QelIntRange::kHighest));
}

TEST_F(PrimitiveConversionsTest, ProjectionModesKeepTheirNumbersAndRefuseOthersByName)
{
    EXPECT_EQ(PrimitiveConversions::ProjectionModeToQelIPRenderMode(ProjectionMode::Minimum), QelIPRenderMode::MINIP);
    EXPECT_EQ(PrimitiveConversions::ToQelSlabEnum(ProjectionMode::Average), QelSlabMode::AVIP);
    EXPECT_EQ(ToString(ProjectionMode::Maximum), "Maximum");

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
