#include "AxrTestSupport.h"

namespace {

using namespace AxrTest;
using CommandLineTest = ScratchTest;

TEST_F(CommandLineTest, DemoWritesEveryPictureAndOneLineEach)
{
    const auto folder = m_scratch / "pictures";
    const ToolRun run = RunAxr("demo --size 64 --threads 1 --out '" + folder.string() + "'", m_scratch);
    ASSERT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(run.err, "");
    for (const char* name : {"axial", "coronal", "sagittal", "oblique", "slab-mip", "slab-minip", "slab-mean"}) {
        const auto path = folder / (std::string(name) + ".png");
        EXPECT_TRUE(std::filesystem::is_regular_file(path)) << path;
        EXPECT_TRUE(Holds(run.out, path.string()));
    }
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(folder), {}), 7);

    // A folder that cannot be made is a failure, not a usage error.
    const ToolRun blocked = RunAxr("demo --size 16 --out 'pictures/axial.png/sub'", m_scratch);
    EXPECT_EQ(blocked.status, 1);
    EXPECT_TRUE(Holds(blocked.err, "cannot make"));
}

TEST_F(CommandLineTest, HelpExitsZeroWithExamples)
{
    EXPECT_TRUE(Holds(RunAxr("--help", m_scratch).out, "demo"));
    for (const char* command : {"demo", "mpr", "info", "mask"}) {
        const ToolRun run = RunAxr(std::string(command) + " --help", m_scratch);
        EXPECT_EQ(run.status, 0) << command;
        EXPECT_TRUE(Holds(run.out, "Examples:")) << command;
    }
}

// Wrong usage and unreadable input exit 2 with one line on stderr, nothing on stdout
// and no output file.
TEST_F(CommandLineTest, BadUsageAndBadInputExitTwoWithOneLineAndNoFile)
{
    WriteFile(m_scratch / "short.raw", std::string(100, '\7'));
    const std::string mpr = "mpr phantom:16 --out out.png ";
    for (const std::string& arguments : std::initializer_list<std::string>{
             "", "nonsense", "demo --size", "demo --size 8", "demo --size 64x", "demo --threads 0", "demo --threads 5000",
             "demo --bogus", "mpr phantom:16", "mpr --out out.png", "mpr volume.raw --out o.png",
             "mpr volume.raw --dims 2x2 --type u16 --out o.png", "info missing.raw --dims 2x2x2 --type u16",
             "info phantom:8", "info", mpr + "--view top", mpr + "--mode avg", mpr + "--size 0x5", mpr + "--size 5",
             mpr + "--size x5", mpr + "--window 40", mpr + "--window 40/0", mpr + "--position 16", mpr + "--slices 0",
             mpr + "--spacing -1", mpr + "--bits 12", mpr + "--dims 4x4x4", mpr + "--out out.jpg",
             mpr + "--thickness 5 --slices 3", mpr + "--normal 0,0,1 --view axial", mpr + "--up 0,0,1",
             mpr + "--matrix 1,0,0,0,0,1,0,0,0,0,1", mpr + "--matrix 1,0,0,0,0,1,0,0,1,0,0,0", mpr + "--normal 0,0,0",
             mpr + "--normal 0,0,1 --up 0,0,-2", mpr + "--threads 0", mpr + "--threads 100000", mpr + "--out"}) {
        SCOPED_TRACE(arguments);
        const ToolRun run = RunAxr(arguments, m_scratch);
        EXPECT_EQ(run.status, 2);
        EXPECT_EQ(run.out, "");
        ASSERT_FALSE(run.err.empty());
        EXPECT_EQ(run.err.find('\n'), run.err.size() - 1) << run.err;
        EXPECT_EQ(FileCount(), 3);  // short.raw and the captured streams
    }
    // Samples that fall short are found before the writer opens its file.
    const ToolRun run = RunAxr("mpr short.raw --dims 8x8x1 --type u16 --out out.png", m_scratch);
    EXPECT_EQ(run.status, 2);
    EXPECT_TRUE(Holds(run.err, "short.raw: 100 bytes of samples, expected 128 for 8x8x1 u16\n"));
    EXPECT_EQ(FileCount(), 3);
}

}  // namespace
