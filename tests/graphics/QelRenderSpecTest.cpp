#include "graphics/QelRenderSpec.h"

#include "support/BaseTestSupport.h"

#include <gtest/gtest.h>

namespace {

TEST(QelRenderSpecTest, UnsetValuesAndAnEmptySlabAreBugReportsAndTheSerialNumberSkipsZero)
{
    QelRenderSpec spec;
    const auto text = [](auto call) { return CatchReport<QelThrowBugHandler::AssertException>(call).text; };
    EXPECT_EQ(text([&] { (void)spec.UndefinedPixelVal(); }), "QelRenderSpec::UndefinedPixelVal not set");
    EXPECT_EQ(text([&] { (void)spec.SlabCenterTransform(); }), "QelRenderSpec::SlabCenterTransform not set");
    EXPECT_EQ(text([&] { (void)spec.SlabMode(); }), "QelRenderSpec::SlabMode not set");
    EXPECT_EQ(text([&] { spec.SetSampleSliceNumber(0); }), "Error - slab thickness must be greater than 0");
    EXPECT_NO_THROW(spec.SetSampleSliceNumber(1));
    spec.SetTablesSerialNum(0);
    EXPECT_EQ(spec.TablesSerialNum(), 1u);
    spec.SetTablesSerialNum(0xFFFFFFFF);
    spec.RaiseTablesSerialNum();
    EXPECT_EQ(spec.TablesSerialNum(), 1u);
}

// The public layer passes these on as plain integers, so any value can arrive.
TEST(QelRenderSpecTest, UnnamedSlabModesReduceAsTheMeanAndUnnamedPrioritiesRunBelowNormal)
{
    using P = QelThreadPriority;
    EXPECT_EQ(QelSlabMode::Effective(static_cast<QelSlabMode::QelSlabModeEnum>(-1)), QelSlabMode::AVIP);
    EXPECT_EQ(P::LevelOf(P::Normal, -2), 0);
    EXPECT_EQ(P::LevelOf(static_cast<P::QelThreadPriorityEnum>(5), 0), -1);
    EXPECT_EQ(P::LevelOf(static_cast<P::QelThreadPriorityEnum>(-1), 3), -1);
}

}  // namespace
