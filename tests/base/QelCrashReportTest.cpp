#include "base/QelCrashReport.h"

#include <gtest/gtest.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

namespace {

namespace fs = std::filesystem;

std::string Slurp(const fs::path& path)
{
    std::stringstream text;
    text << std::ifstream(path).rdbuf();
    return text.str();
}

// Without a prefix, or with one that leads nowhere, a report is only the code kept.
TEST(QelCrashReportTest, ReportsAreNumberedAndNamedAfterTheGuardWhenThePrefixLeadsSomewhere)
{
    char pattern[] = "/tmp/axcrashXXXXXX";  // no dots: the name rule would turn them into dashes
    ASSERT_NE(mkdtemp(pattern), nullptr);
    const fs::path folder = pattern;
    ::testing::internal::CaptureStdout();
    EXPECT_FALSE(QelCrashReport("QelTPIntLoopMgr::WkrThread::Go", nullptr, 0xC0000094, true));
    EXPECT_EQ(QelLastExceptionCode(), 0xC0000094u);
    QelSetDumpPathPrefix((folder / "missing" / "run").string());
    EXPECT_FALSE(QelCrashReport("CheckRasterImage", nullptr, 0xC0000005, true));
    EXPECT_EQ(::testing::internal::GetCapturedStdout(), "");

    QelSetDumpPathPrefix((folder / "run").string());
    const QelFaultRecord fault{.Code = 0xC0000005, .Signal = SIGSEGV, .Address = reinterpret_cast<const void*>(0x10)};
    ::testing::internal::CaptureStdout();
    EXPECT_TRUE(QelCrashReport("QelTPIntLoopMgr::WkrThread::Go", &fault, fault.Code, true));
    EXPECT_TRUE(QelCrashReport("CheckQelArray", nullptr, 0xC0000094, false));
    EXPECT_EQ(::testing::internal::GetCapturedStdout(),
              "APPLICATION HAS CRASHED - DUMPING FULL MEMORY\r\nAPPLICATION HAS CRASHED - DUMPING MINI DUMP\r\n");
    QelSetDumpPathPrefix({});

    const std::string report = Slurp(folder / "run_1_QelTPIntLoopMgr-WkrThread-Go.dmp");
    for (const char* part :
         {"Code: 0xC0000005 EXCEPTION_ACCESS_VIOLATION", "Signal: 11 (SIGSEGV)", "Address: 0x10", "Backtrace:\n"})
        EXPECT_NE(report.find(part), std::string::npos) << report;
    // With no fault record the report shows the stack of the caller.
    EXPECT_NE(Slurp(folder / "run_2_CheckQelArray.dmp").find("EXCEPTION_INT_DIVIDE_BY_ZERO"), std::string::npos);
    fs::remove_all(folder);
}

}  // namespace
