#include "threaded/QelSystemInfo.h"

#include "threaded/imp/QelCpuTopology.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <tuple>
#include <vector>

namespace {

namespace fs = std::filesystem;

int ThreadsFor(std::uint32_t logical, std::uint32_t cores, std::int32_t cacheKB)
{
    QelSystemInfo::Facts facts;
    facts.LogicalCount = logical;
    facts.CoreCount = cores;
    facts.CacheSizeKB = cacheKB;
    return QelSystemInfo(facts).RenderThreadCount();
}

TEST(QelSystemInfoTest, HyperThreadsCountOnlyWithALargeCacheAndPinsNest)
{
    EXPECT_EQ(ThreadsFor(8, 4, 512), 8);
    EXPECT_EQ(ThreadsFor(8, 4, 256), 4);
    // Other vendors keep no cache size, so hyper-threading falls back to the cores.
    EXPECT_EQ(ThreadsFor(16, 8, 0), 8);

    const int machine = QelSystemInfo::Instance().RenderThreadCount();
    {
        const QelRenderThreadCountPin outer(machine + 2);
        const QelRenderThreadCountPin inner(machine + 1);
        EXPECT_EQ(QelSystemInfo::Instance().RenderThreadCount(), machine + 1);
    }
    EXPECT_EQ(QelSystemInfo::Instance().RenderThreadCount(), machine);
}

// A made-up kernel tree, laid out as the kernel does.
class FakeCpuTree : public ::testing::Test {
protected:
    void SetUp() override
    {
        char pattern[] = "/tmp/axcpusXXXXXX";
        ASSERT_NE(mkdtemp(pattern), nullptr);
        m_root = pattern;
    }
    void TearDown() override { fs::remove_all(m_root); }
    void Write(const std::string& relative, const std::string& text)
    {
        fs::create_directories((m_root / relative).parent_path());
        std::ofstream(m_root / relative) << text << "\n";
    }

    fs::path m_root;
};

TEST_F(FakeCpuTree, CoresAreDistinctPackageAndCorePairs)
{
    const int packageCore[][2] = {{0, 0}, {0, 0}, {1, 0}};  // core numbers repeat in each package
    for (int cpu = 0; cpu < 3; ++cpu) {
        Write("cpu" + std::to_string(cpu) + "/topology/physical_package_id", std::to_string(packageCore[cpu][0]));
        Write("cpu" + std::to_string(cpu) + "/topology/core_id", std::to_string(packageCore[cpu][1]));
    }
    const auto counts = [&](std::vector<int> cpus) {
        const QelProcessorCounts c = QelCountProcessors(m_root, cpus);
        return std::tuple(c.Logical, c.Cores, c.Packages);
    };
    EXPECT_EQ(counts({0, 1}), std::tuple(2u, 1u, 1u));
    // Processor 3 has no files: a core of its own in an unknown package.
    EXPECT_EQ(counts({0, 1, 2, 3}), std::tuple(4u, 3u, 3u));
}

TEST_F(FakeCpuTree, TheLastLevelIsTheHighestDataOrUnifiedCache)
{
    EXPECT_EQ(QelLastLevelCacheKB(m_root), 0);
    const char* caches[][3] = {{"1", "Data", "48K"}, {"3", "Unified", "30M"}, {"2", "Unified", "2048K"},
                               {"4", "Instruction", "64M"}};
    const char* files[] = {"level", "type", "size"};
    for (int index = 0; index < 4; ++index)
        for (int file = 0; file < 3; ++file)
            Write("cpu0/cache/index" + std::to_string(index) + "/" + files[file], caches[index][file]);
    EXPECT_EQ(QelLastLevelCacheKB(m_root), 30 * 1024);
}

}  // namespace
