#pragma once

#include <cstdint>
#include <ostream>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>

namespace Axr {

/// Exit statuses of every command.
inline constexpr int kExitSuccess = 0;
inline constexpr int kExitFailure = 1;  // the work failed: a render, a file
inline constexpr int kExitUsage = 2;    // the command line was wrong

/// A wrong command line; the text is one complete line for the user, without the
/// newline.
class UsageError : public std::invalid_argument {
public:
    using std::invalid_argument::invalid_argument;
};

/// One subcommand of the tool. `run` gets the arguments after the command's name and
/// returns the exit status; it may throw UsageError.
struct Command {
    std::string_view name;
    std::string_view summary;
    int (*run)(std::span<const std::string> arguments, std::ostream& out, std::ostream& err);
};

/// Dispatches `arguments` (argv without the program name) to the command it names,
/// handles the tool's own --help and turns a UsageError into one line on `err` and
/// status 2.
[[nodiscard]] int RunCommandLine(std::span<const Command> commands, std::span<const std::string> arguments,
                                 std::ostream& out, std::ostream& err);

/// The whole number in `text`, for the option `option`, within min .. max; throws
/// UsageError naming `context` (e.g. "axr demo") otherwise.
[[nodiscard]] std::int32_t ParseIntOption(std::string_view context, std::string_view option, std::string_view text,
                                          std::int32_t min, std::int32_t max);

/// The value after the option at arguments[i], moving i onto it; throws UsageError
/// naming `context` when the option is the last argument.
[[nodiscard]] std::string NeedValue(std::string_view context, std::span<const std::string> arguments, std::size_t& i);

}  // namespace Axr
