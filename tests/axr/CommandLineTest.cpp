#include "AxrTestSupport.h"

#include <filesystem>
#include <string>

namespace {

using AxrTest::RunAxr;
using AxrTest::ToolRun;
using CommandLineTest = AxrTest::ScratchTest;

TEST_F(CommandLineTest, DemoWritesEveryPictureAndOneLineEach)
{
    const auto folder = m_scratch / "pictures";
    const ToolRun run = RunAxr("demo --size 64 --threads 1 --out '" + folder.string() + "'", m_scratch);
    ASSERT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(run.err, "");
    for (const char* name : {"axial", "coronal", "sagittal", "oblique", "slab-mip", "slab-minip", "slab-mean"}) {
        const auto path = folder / (std::string(name) + ".png");
        EXPECT_TRUE(std::filesystem::is_regular_file(path)) << path;
        EXPECT_NE(run.out.find(path.string()), std::string::npos) << run.out;
    }
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(folder), {}), 7);
}

TEST_F(CommandLineTest, BadUsageExitsTwoWithOneLine)
{
    for (const char* arguments : {"", "nonsense", "demo --size", "demo --size 8", "demo --size 64x", "demo --threads 0", "demo --threads 5000",
                                  "demo --bogus"}) {
        SCOPED_TRACE(arguments);
        const ToolRun run = RunAxr(arguments, m_scratch);
        EXPECT_EQ(run.status, 2);
        EXPECT_EQ(run.out, "");
        ASSERT_FALSE(run.err.empty());
        EXPECT_EQ(run.err.find('\n'), run.err.size() - 1) << run.err;
    }
}

TEST_F(CommandLineTest, HelpExitsZeroAndListsTheDemo)
{
    const ToolRun tool = RunAxr("--help", m_scratch);
    EXPECT_EQ(tool.status, 0);
    EXPECT_NE(tool.out.find("demo"), std::string::npos);
    const ToolRun demo = RunAxr("demo --help", m_scratch);
    EXPECT_EQ(demo.status, 0);
    EXPECT_NE(demo.out.find("Examples:"), std::string::npos);
}

TEST_F(CommandLineTest, AnOutputFolderThatCannotBeMadeIsAFailureNotAUsageError)
{
    std::ofstream(m_scratch / "file") << "in the way";
    const ToolRun run = RunAxr("demo --size 16 --out '" + (m_scratch / "file" / "sub").string() + "'", m_scratch);
    EXPECT_EQ(run.status, 1);
    EXPECT_NE(run.err.find("cannot make"), std::string::npos) << run.err;
}

}  // namespace
