#include "graphics/QelRenderSpec.h"

#include "support/BaseTestSupport.h"

#include <gtest/gtest.h>

namespace {

using AssertException = QelThrowBugHandler::AssertException;

TEST(QelRenderSpecTest, NewRecordRendersEverythingOnce)
{
    // Defaults that every public render runs with: another value would cut away
    // voxels, samples, objects or the final warp.
    const QelRenderSpec spec;
    EXPECT_EQ(spec.VoxelClipBox(), QelIntBBox3(QelIntRange::Infinite(), QelIntRange::Infinite(),
                                               QelIntRange::Infinite()));
    EXPECT_EQ(spec.MprClipRange(), QelIntRange::Infinite());
    EXPECT_EQ(spec.ObjectMask(), 0xFFFFFFFFu);
    EXPECT_EQ(spec.DrawGate(), 1);
    EXPECT_TRUE(spec.WarpToCanvas());
    EXPECT_TRUE(spec.ShadeObjects());
}

TEST(QelRenderSpecTest, TablesSerialNumIsNeverZero)
{
    QelRenderSpec spec;
    EXPECT_EQ(spec.TablesSerialNum(), 1u);
    spec.SetTablesSerialNum(0);
    EXPECT_EQ(spec.TablesSerialNum(), 1u);
    spec.SetTablesSerialNum(0xFFFFFFFF);
    spec.RaiseTablesSerialNum();
    EXPECT_EQ(spec.TablesSerialNum(), 1u);
    spec.RaiseTablesSerialNum();
    EXPECT_EQ(spec.TablesSerialNum(), 2u);
}

TEST(QelRenderSpecTest, UnsetValuesAndAnEmptySlabAreBugReports)
{
    QelRenderSpec spec;
    EXPECT_EQ(CatchReport<AssertException>([&] { (void)spec.UndefinedPixelVal(); }).text,
              "QelRenderSpec::UndefinedPixelVal not set");
    EXPECT_EQ(CatchReport<AssertException>([&] { (void)spec.SlabCenterTransform(); }).text,
              "QelRenderSpec::SlabCenterTransform not set");
    EXPECT_EQ(CatchReport<AssertException>([&] { (void)spec.SlabMode(); }).text, "QelRenderSpec::SlabMode not set");
    EXPECT_EQ(CatchReport<AssertException>([&] { spec.SetSampleSliceNumber(0); }).text,
              "Error - slab thickness must be greater than 0");
    EXPECT_NO_THROW(spec.SetSampleSliceNumber(1));
}

TEST(QelRenderSpecTest, SlabModeOutsideTheNamedOnesIsKeptAndReducesAsTheMean)
{
    QelRenderSpec spec;
    const auto seven = static_cast<QelSlabMode::QelSlabModeEnum>(7);
    spec.SetSlabMode(seven);
    EXPECT_EQ(spec.SlabMode(), seven);
    EXPECT_EQ(QelSlabMode::Effective(seven), QelSlabMode::AVIP);
    EXPECT_EQ(QelSlabMode::Effective(static_cast<QelSlabMode::QelSlabModeEnum>(-1)), QelSlabMode::AVIP);
    EXPECT_EQ(QelSlabMode::Effective(QelSlabMode::MINIP), QelSlabMode::MINIP);
}

TEST(QelRenderSpecTest, EveryPriorityButCallerAndNormalIsBelowNormal)
{
    using P = QelThreadPriority;
    EXPECT_EQ(P::LevelOf(P::Caller, -2), -2);
    EXPECT_EQ(P::LevelOf(P::Normal, -2), 0);
    EXPECT_EQ(P::LevelOf(static_cast<P::QelThreadPriorityEnum>(5), 0), -1);
    EXPECT_EQ(P::LevelOf(static_cast<P::QelThreadPriorityEnum>(-1), 3), -1);
}

}  // namespace
