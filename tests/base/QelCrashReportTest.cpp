#include "base/QelCrashReport.h"

#include <gtest/gtest.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

namespace {

namespace fs = std::filesystem;

class QelCrashReportTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        // No dots in the folder: the name rule would turn them into dashes.
        char pattern[] = "/tmp/axcrashXXXXXX";
        ASSERT_NE(mkdtemp(pattern), nullptr);
        m_folder = pattern;
    }
    void TearDown() override
    {
        QelSetDumpPathPrefix({});
        fs::remove_all(m_folder);
    }

    static std::string Slurp(const fs::path& path)
    {
        std::stringstream text;
        text << std::ifstream(path).rdbuf();
        return text.str();
    }

    fs::path m_folder;
};

// Without a prefix, or with one that leads nowhere, nothing is written or printed.
TEST_F(QelCrashReportTest, WithoutAUsablePrefixTheReportIsOnlyTheCodeKept)
{
    ::testing::internal::CaptureStdout();
    EXPECT_FALSE(QelCrashReport("QelTPIntLoopMgr::WkrThread::Go", nullptr, 0xC0000094, true));
    EXPECT_EQ(QelLastExceptionCode(), 0xC0000094u);
    QelSetDumpPathPrefix((m_folder / "missing" / "run").string());
    EXPECT_FALSE(QelCrashReport("CheckRasterImage", nullptr, 0xC0000005, true));
    EXPECT_EQ(::testing::internal::GetCapturedStdout(), "");
    EXPECT_TRUE(fs::is_empty(m_folder));
}

TEST_F(QelCrashReportTest, ReportsAreNumberedAndNamedAfterTheGuard)
{
    QelSetDumpPathPrefix((m_folder / "run").string());
    QelFaultRecord fault;
    fault.Code = 0xC0000005;
    fault.Signal = SIGSEGV;
    fault.Address = reinterpret_cast<const void*>(0x10);
    ::testing::internal::CaptureStdout();
    ASSERT_TRUE(QelCrashReport("QelTPIntLoopMgr::WkrThread::Go", &fault, fault.Code, true));
    ASSERT_TRUE(QelCrashReport("CheckQelArray", nullptr, 0xC0000094, false));
    EXPECT_EQ(::testing::internal::GetCapturedStdout(),
              "APPLICATION HAS CRASHED - DUMPING FULL MEMORY\r\nAPPLICATION HAS CRASHED - DUMPING MINI DUMP\r\n");

    const fs::path first = m_folder / "run_1_QelTPIntLoopMgr-WkrThread-Go.dmp";
    const fs::path second = m_folder / "run_2_CheckQelArray.dmp";
    ASSERT_TRUE(fs::exists(first));
    ASSERT_TRUE(fs::exists(second));
    const std::string report = Slurp(first);
    for (const char* part :
         {"Code: 0xC0000005 EXCEPTION_ACCESS_VIOLATION", "Signal: 11 (SIGSEGV)", "Address: 0x10", "Backtrace:\n"})
        EXPECT_NE(report.find(part), std::string::npos) << report;
    // With no fault record the report shows the stack of the caller.
    EXPECT_NE(Slurp(second).find("EXCEPTION_INT_DIVIDE_BY_ZERO"), std::string::npos);
}

// Access violations and integer division meet real faults in the fault guard's tests.
TEST(QelCrashNames, SignalsMapOntoTheFaultCodesTheirNamesDescribe)
{
    // The signal's code decides among the faults one signal stands for.
    EXPECT_EQ(QelExceptionCodeFromSignal(SIGBUS, BUS_ADRALN), 0x80000002u);
    EXPECT_EQ(QelExceptionCodeFromSignal(SIGBUS, BUS_ADRERR), 0xC0000006u);
    EXPECT_EQ(QelExceptionCodeFromSignal(SIGTERM, 0), 0u);
    EXPECT_STREQ(QelExceptionName(5), "Unknown exception");
    EXPECT_EQ(QelCleanDumpName("A::B:c.d"), "A-B-c-d");
    EXPECT_EQ(QelCleanDumpName(":::"), "--");
}

}  // namespace
