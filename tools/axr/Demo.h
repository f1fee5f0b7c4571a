#pragma once

#include <cstdint>
#include <filesystem>
#include <ostream>
#include <span>
#include <string>

namespace Axr {

struct DemoOptions {
    std::filesystem::path outputFolder = "demo-output";
    std::int32_t size = 256;
    std::int32_t threads = 0;  // generator and render threads; 0: all processors
    bool unevenSpacing = false;
};

/// The demo's options from its arguments; throws UsageError for anything else.
/// Sets `help` instead when --help is among them.
[[nodiscard]] DemoOptions ParseDemoArguments(std::span<const std::string> arguments, bool& help);

/// Makes the phantom, renders every demo view into `options.outputFolder` and
/// prints one line per picture. Returns the exit status.
[[nodiscard]] int RunDemo(const DemoOptions& options, std::ostream& out, std::ostream& err);

/// The `demo` command of the command table.
int DemoCommand(std::span<const std::string> arguments, std::ostream& out, std::ostream& err);

}  // namespace Axr
