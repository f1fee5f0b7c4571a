#include "MaskFile.h"
#include "VolumeInput.h"

#include "axr/AxrTestSupport.h"

#include "ax/rendering/BitVolume.h"
#include "ax/rendering/ImageStack.h"
#include "ax/system/SerializationInfo.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <filesystem>
#include <memory>
#include <string>

namespace {

using Ax::Rendering::BitVolume;
using AxrTest::RunAxr;

// The voxels, through the persisted form: the bits beyond a mask's edges, which an
// inversion sets and a file doesn't keep, play no part.
bool SameVoxels(const BitVolume& a, const BitVolume& b)
{
    Ax::System::SerializationInfo first, second;
    a.GetObjectData(first);
    b.GetObjectData(second);
    return a.ToString() == b.ToString() && first.GetBitArray("Data") == second.GetBitArray("Data");
}

class MaskCommandsTest : public AxrTest::ScratchTest {
protected:
    // The tool's run, which must succeed, and the mask it wrote.
    std::shared_ptr<BitVolume> Run(const std::string& arguments, const std::string& output)
    {
        const auto run = RunAxr(arguments + " --quiet --out " + output, m_scratch);
        EXPECT_EQ(run.status, 0) << arguments << ": " << run.err;
        return Axr::ReadMaskFile(m_scratch / output);
    }

    static Axr::Volume Load(const std::string& input)
    {
        Axr::VolumeSource source;
        source.input = input;
        return Axr::LoadVolume("test", source);
    }

    static std::shared_ptr<BitVolume> LibraryThreshold(std::int32_t threshold, std::int32_t depth = 48)
    {
        const Axr::Volume phantom = Load("phantom:48");
        return std::make_shared<BitVolume>(*phantom.stack, depth, threshold);
    }
};

// Every operation writes what the library computes from the same inputs.
TEST_F(MaskCommandsTest, OperationsWriteTheLibrarysMasks)
{
    const auto bone = Run("mask threshold phantom:48 --hu 300", "bone.axm");
    EXPECT_GT(Axr::Summarize(*bone).setVoxels, 1000);
    EXPECT_TRUE(SameVoxels(*bone, *LibraryThreshold(1324)));
    const auto body = Run("mask threshold phantom:48 --min 700 --depth 30", "body.axm");
    EXPECT_TRUE(SameVoxels(*body, *LibraryThreshold(700, 30)));
    EXPECT_FALSE(body->IsSet(24, 24, 30));

    EXPECT_TRUE(SameVoxels(*Run("mask union bone.axm body.axm", "u.axm"), *bone->Union(*body)));
    EXPECT_TRUE(SameVoxels(*Run("mask intersect bone.axm body.axm", "i.axm"), *bone->Intersection(*body)));
    EXPECT_TRUE(SameVoxels(*Run("mask xor bone.axm body.axm", "x.axm"), *bone->Xor(*body)));
    EXPECT_TRUE(SameVoxels(*Run("mask invert bone.axm", "n.axm"), *bone->Invert()));
    EXPECT_TRUE(SameVoxels(*Run("mask dilate bone.axm --by 2", "d.axm"), *bone->CubicDilate(2)));

    const auto info = RunAxr("mask info bone.axm", m_scratch);
    ASSERT_EQ(info.status, 0) << info.err;
    EXPECT_EQ(info.out.substr(0, info.out.find(',')), "bone.axm  48 x 48 x 48");
    EXPECT_NE(info.out.find(std::to_string(Axr::Summarize(*bone).setVoxels) + " voxels set"), std::string::npos);
}

TEST_F(MaskCommandsTest, TheNrrdExportReadsBackAsZerosAndOnes)
{
    const auto run = RunAxr("mask threshold phantom:48 --hu 300 --out bone.nrrd", m_scratch);
    ASSERT_EQ(run.status, 0) << run.err;
    const auto bone = LibraryThreshold(1324);
    const Axr::Volume exported = Load((m_scratch / "bone.nrrd").string());
    const Ax::Rendering::ImageStack& stack = *exported.stack;
    ASSERT_EQ(stack.NumberOfImages(), 48);
    EXPECT_DOUBLE_EQ(exported.columnSpacing, 256.0 / 48);
    std::int64_t wrong = 0;
    for (std::int32_t z = 0; z < 48; ++z) {
        const auto& image = *stack[z].Image();
        for (std::int32_t y = 0; y < 48; ++y)
            for (std::int32_t x = 0; x < 48; ++x) {
                std::uint16_t value;
                std::memcpy(&value, image.GetPixelAddress(x, y), sizeof value);
                wrong += value != (bone->IsSet(x, y, z) ? 1 : 0);
            }
    }
    EXPECT_EQ(wrong, 0);
}

TEST_F(MaskCommandsTest, BadMasksAndUsageGiveOneLineAndNoFile)
{
    ASSERT_EQ(RunAxr("mask threshold phantom:48 --min 1300 --quiet --out a.axm", m_scratch).status, 0);
    ASSERT_EQ(RunAxr("mask threshold phantom:32 --min 1300 --quiet --out small.axm", m_scratch).status, 0);
    const std::string good = AxrTest::Slurp(m_scratch / "a.axm");
    AxrTest::WriteFile(m_scratch / "cut.axm", std::span(good.data(), good.size() - 1));
    AxrTest::WriteFile(m_scratch / "text.axm", std::span<const char>("hello", 5));

    struct Case {
        std::string arguments;
        int status;
        std::string message;
    };
    const Case cases[] = {
        {"mask union a.axm cut.axm --out r.axm", 2,
         "axr mask union: cut.axm: The persisted form ends inside a bit array.\n"},
        {"mask invert text.axm --out r.axm", 2,
         "axr mask invert: text.axm: This is not a persisted form: it doesn't start with \"AXKV\".\n"},
        {"mask xor a.axm small.axm --out r.axm", 2,
         "axr mask xor: a.axm is [Width=48, Height=48, Depth=48] but small.axm is [Width=32, Height=32, "
         "Depth=32]\n"},
        {"mask invert missing.axm --out r.axm", 2, "axr mask invert: missing.axm: cannot open the mask file\n"},
        {"mask dilate a.axm --by 5 --out r.axm", 2,
         "axr mask dilate: --by wants a whole number from 1 to 4, not '5'\n"},
        {"mask threshold phantom:48 --out r.axm", 2, "axr mask threshold: give the threshold as either --min or --hu\n"},
        {"mask union a.axm --out r.axm", 2, "axr mask union wants two masks, not 1 (see 'axr mask --help')\n"},
        {"mask invert a.axm", 2, "axr mask invert: --out FILE is missing\n"},
        {"mask carve a.axm", 2, "axr mask: unknown operation 'carve' (see 'axr mask --help')\n"},
        {"mask invert a.axm --hu 3 --out r.axm", 2,
         "axr mask invert: --hu doesn't apply here (see 'axr mask --help')\n"},
    };
    for (const Case& c : cases) {
        const auto run = RunAxr(c.arguments, m_scratch);
        EXPECT_EQ(run.status, c.status) << c.arguments;
        EXPECT_EQ(run.err, c.message) << c.arguments;
        EXPECT_FALSE(std::filesystem::exists(m_scratch / "r.axm")) << c.arguments;
    }
    const auto help = RunAxr("mask --help", m_scratch);
    EXPECT_EQ(help.status, 0);
    EXPECT_NE(help.out.find("Examples:"), std::string::npos);
}

}  // namespace
