#include "MaskFile.h"

#include "axr/AxrTestSupport.h"

#include "ax/rendering/BitVolume.h"
#include "ax/system/SerializationInfo.h"

#include <gtest/gtest.h>

namespace {

using namespace AxrTest;
using Ax::Rendering::BitVolume;

// The voxels, through the persisted form: the bits beyond a mask's edges, which an
// inversion sets and a file doesn't keep, play no part.
bool SameVoxels(const BitVolume& a, const BitVolume& b)
{
    Ax::System::SerializationInfo first, second;
    a.GetObjectData(first);
    b.GetObjectData(second);
    return a.ToString() == b.ToString() && first.GetBitArray("Data") == second.GetBitArray("Data");
}

class MaskCommandsTest : public ScratchTest {
protected:
    // The tool's run, which must succeed, and the mask it wrote.
    std::shared_ptr<BitVolume> Run(const std::string& arguments, const std::string& output)
    {
        const auto run = RunAxr(arguments + " --quiet --out " + output, m_scratch);
        EXPECT_EQ(run.status, 0) << arguments << ": " << run.err;
        return Axr::ReadMaskFile(m_scratch / output);
    }
};

TEST_F(MaskCommandsTest, OperationsWriteTheLibrarysMasks)
{
    const auto phantom = Load("phantom:48");
    const auto bone = Run("mask threshold phantom:48 --hu 300", "bone.axm");
    EXPECT_GT(Axr::Summarize(*bone).setVoxels, 1000);
    EXPECT_TRUE(SameVoxels(*bone, BitVolume(*phantom.stack, 48, 1324)));
    const auto body = Run("mask threshold phantom:48 --min 700 --depth 30", "body.axm");
    EXPECT_TRUE(SameVoxels(*body, BitVolume(*phantom.stack, 30, 700)));

    EXPECT_TRUE(SameVoxels(*Run("mask union bone.axm body.axm", "u.axm"), *bone->Union(*body)));
    EXPECT_TRUE(SameVoxels(*Run("mask intersect bone.axm body.axm", "i.axm"), *bone->Intersection(*body)));
    EXPECT_TRUE(SameVoxels(*Run("mask xor bone.axm body.axm", "x.axm"), *bone->Xor(*body)));
    EXPECT_TRUE(SameVoxels(*Run("mask invert bone.axm", "n.axm"), *bone->Invert()));
    EXPECT_TRUE(SameVoxels(*Run("mask dilate bone.axm --by 2", "d.axm"), *bone->CubicDilate(2)));

    const auto info = RunAxr("mask info bone.axm", m_scratch);
    ASSERT_EQ(info.status, 0) << info.err;
    EXPECT_EQ(info.out.substr(0, info.out.find(',')), "bone.axm  48 x 48 x 48");
    EXPECT_TRUE(Holds(info.out, std::to_string(Axr::Summarize(*bone).setVoxels) + " voxels set"));

    // The NRRD export reads back as zeros and ones.
    ASSERT_EQ(RunAxr("mask threshold phantom:48 --hu 300 --out bone.nrrd", m_scratch).status, 0);
    const Axr::Volume exported = Load(m_scratch / "bone.nrrd");
    ASSERT_EQ(exported.stack->NumberOfImages(), 48);
    EXPECT_DOUBLE_EQ(exported.columnSpacing, 256.0 / 48);
    std::int64_t wrong = 0;
    for (std::int32_t i = 0; i < 48 * 48 * 48; ++i) {
        const std::int32_t x = i % 48, y = i / 48 % 48, z = i / (48 * 48);
        wrong += Voxel(*exported.stack, z, x, y) != (bone->IsSet(x, y, z) ? 1 : 0);
    }
    EXPECT_EQ(wrong, 0);
}

TEST_F(MaskCommandsTest, BadMasksAndUsageGiveOneLineAndNoFile)
{
    ASSERT_EQ(RunAxr("mask threshold phantom:48 --min 1300 --quiet --out a.axm", m_scratch).status, 0);
    ASSERT_EQ(RunAxr("mask threshold phantom:32 --min 1300 --quiet --out small.axm", m_scratch).status, 0);
    const std::string good = Slurp(m_scratch / "a.axm");
    WriteFile(m_scratch / "cut.axm", good.substr(0, good.size() - 1));
    const std::pair<const char*, const char*> cases[] = {
        {"mask union a.axm cut.axm --out r.axm", "axr mask union: cut.axm: The persisted form ends inside a bit array.\n"},
        {"mask xor a.axm small.axm --out r.axm",
         "axr mask xor: a.axm is [Width=48, Height=48, Depth=48] but small.axm is [Width=32, Height=32, Depth=32]\n"},
        {"mask invert missing.axm --out r.axm", "axr mask invert: missing.axm: cannot open the mask file\n"},
        {"mask dilate a.axm --by 5 --out r.axm", "axr mask dilate: --by wants a whole number from 1 to 4, not '5'\n"},
        {"mask threshold phantom:48 --out r.axm", "axr mask threshold: give the threshold as either --min or --hu\n"},
        {"mask union a.axm --out r.axm", "axr mask union wants two masks, not 1 (see 'axr mask --help')\n"},
        {"mask invert a.axm", "axr mask invert: --out FILE is missing\n"},
        {"mask carve a.axm", "axr mask: unknown operation 'carve' (see 'axr mask --help')\n"},
        {"mask invert a.axm --hu 3 --out r.axm", "axr mask invert: --hu doesn't apply here (see 'axr mask --help')\n"},
    };
    for (const auto& [arguments, message] : cases) {
        const auto run = RunAxr(arguments, m_scratch);
        EXPECT_EQ(run.status, 2) << arguments;
        EXPECT_EQ(run.err, message) << arguments;
        EXPECT_FALSE(std::filesystem::exists(m_scratch / "r.axm")) << arguments;
    }
}

}  // namespace
