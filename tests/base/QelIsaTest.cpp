#include "base/QelIsa.h"

#include "support/BaseTestSupport.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <sstream>
#include <string>

namespace {

constexpr QelIsa kAllIsas[] = {QelIsa::Scalar, QelIsa::Sse2, QelIsa::Avx2, QelIsa::Avx512};

// The kernel reports AVX2 and AVX-512 only when the processor has them and the
// operating system saves their registers: the same conditions as ours.
TEST(QelIsaTest, DetectionAgreesWithTheOperatingSystemAndLevelsRiseWithoutGaps)
{
    std::ifstream cpuinfo("/proc/cpuinfo");
    std::string line;
    while (std::getline(cpuinfo, line) && line.rfind("flags", 0) != 0) {
    }
    if (line.empty())
        GTEST_SKIP() << "no processor flags to compare with";
    std::istringstream flags(line.substr(line.find(':') + 1));
    bool hasSse2 = false, hasAvx2 = false;
    int avx512Parts = 0;
    for (std::string flag; flags >> flag;) {
        hasSse2 = hasSse2 || flag == "sse2";
        hasAvx2 = hasAvx2 || flag == "avx2";
        avx512Parts += flag == "avx512f" || flag == "avx512bw" || flag == "avx512dq";
    }
    EXPECT_EQ(QelIsaSupported(QelIsa::Sse2), hasSse2);
    EXPECT_EQ(QelIsaSupported(QelIsa::Avx2), hasAvx2);
    EXPECT_EQ(QelIsaSupported(QelIsa::Avx512), hasAvx2 && avx512Parts == 3);
    // Levels rise from scalar without gaps.
    const std::vector<QelIsa> isas = QelSupportedIsas();
    EXPECT_EQ(isas, std::vector<QelIsa>(std::begin(kAllIsas), std::begin(kAllIsas) + isas.size()));
}

// An inner limit never raises an outer one, and each restores the cap it found.
TEST(QelIsaTest, LimitsCapTheBestIsaForTheirScopeOnly)
{
    const QelIsa unlimited = QelBestIsa();
    EXPECT_EQ(unlimited, QelSupportedIsas().back());
    {
        const QelIsaLimit outer(QelIsa::Sse2);
        const QelIsa outerCap = std::min(unlimited, QelIsa::Sse2);
        EXPECT_EQ(QelBestIsa(), outerCap);
        {
            const QelIsaLimit inner(QelIsa::Avx2);
            EXPECT_EQ(QelBestIsa(), outerCap);
        }
        {
            const QelIsaLimit inner(QelIsa::Scalar);
            EXPECT_EQ(QelBestIsa(), QelIsa::Scalar);
            // What the processor can run is still reported, so tests reach every body.
            EXPECT_EQ(QelSupportedIsas().back(), unlimited);
        }
        EXPECT_EQ(QelBestIsa(), outerCap);
    }
    EXPECT_EQ(QelBestIsa(), unlimited);
}

}  // namespace
