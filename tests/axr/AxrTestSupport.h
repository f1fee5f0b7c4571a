#pragma once

// What the tool's tests share: a scratch folder per test, running the built tool,
// reading and writing whole files.

#include <gtest/gtest.h>

#include <sys/wait.h>
#include <unistd.h>

#include <cstddef>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <span>
#include <string>

namespace AxrTest {

[[nodiscard]] inline std::string Slurp(const std::filesystem::path& path)
{
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

template <typename Byte>
void WriteFile(const std::filesystem::path& path, std::span<const Byte> bytes)
{
    static_assert(sizeof(Byte) == 1);
    std::ofstream out(path, std::ios::binary);
    out.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
}

/// The exit status, stdout and stderr of one run of the built tool.
struct ToolRun {
    int status = -1;
    std::string out, err;
};

/// Runs the tool through the shell in `folder`, its streams captured in files there.
[[nodiscard]] inline ToolRun RunAxr(const std::string& arguments, const std::filesystem::path& folder)
{
    const auto outFile = folder / "stdout.txt", errFile = folder / "stderr.txt";
    const std::string command = "cd '" + folder.string() + "' && '" + AXR_EXECUTABLE + "' " + arguments + " >'" +
                                outFile.string() + "' 2>'" + errFile.string() + "'";
    const int raw = std::system(command.c_str());
    return {WIFEXITED(raw) ? WEXITSTATUS(raw) : -1, Slurp(outFile), Slurp(errFile)};
}

/// A fixture with an empty folder of its own for each test, gone afterwards.
class ScratchTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        m_scratch = std::filesystem::temp_directory_path() /
                    ("axr-test-" + std::to_string(getpid()) + "-" +
                     ::testing::UnitTest::GetInstance()->current_test_info()->test_suite_name() + "-" +
                     ::testing::UnitTest::GetInstance()->current_test_info()->name());
        std::filesystem::remove_all(m_scratch);
        std::filesystem::create_directories(m_scratch);
    }
    void TearDown() override { std::filesystem::remove_all(m_scratch); }

    std::filesystem::path m_scratch;
};

}  // namespace AxrTest
