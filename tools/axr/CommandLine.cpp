#include "CommandLine.h"

#include <charconv>

namespace Axr {

namespace {

void PrintToolHelp(std::span<const Command> commands, std::ostream& out)
{
    out << "Usage: axr <command> [options]\n"
           "\n"
           "Renders medical image volumes on the CPU with the Ax Rendering library.\n"
           "\n"
           "Commands:\n";
    for (const Command& command : commands)
        out << "  " << command.name << std::string(command.name.size() < 10 ? 10 - command.name.size() : 1, ' ')
            << command.summary << '\n';
    out << "\n"
           "Run 'axr <command> --help' for a command's options.\n"
           "Exit status: 0 success, 1 the work failed, 2 wrong usage.\n";
}

}  // namespace

int RunCommandLine(std::span<const Command> commands, std::span<const std::string> arguments, std::ostream& out,
                   std::ostream& err)
{
    if (arguments.empty()) {
        err << "axr: no command given (see 'axr --help')\n";
        return kExitUsage;
    }
    const std::string& name = arguments.front();
    if (name == "--help" || name == "-h" || name == "help") {
        PrintToolHelp(commands, out);
        return kExitSuccess;
    }
    for (const Command& command : commands) {
        if (command.name != name)
            continue;
        try {
            return command.run(arguments.subspan(1), out, err);
        } catch (const UsageError& error) {
            err << error.what() << '\n';
            return kExitUsage;
        }
    }
    err << "axr: unknown command '" << name << "' (see 'axr --help')\n";
    return kExitUsage;
}

std::int32_t ParseIntOption(std::string_view context, std::string_view option, std::string_view text,
                            std::int32_t min, std::int32_t max)
{
    std::int32_t value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc{} || end != text.data() + text.size() || value < min || value > max)
        throw UsageError(std::string(context) + ": " + std::string(option) + " wants a whole number from " +
                         std::to_string(min) + " to " + std::to_string(max) + ", not '" + std::string(text) + "'");
    return value;
}

std::string NeedValue(std::string_view context, std::span<const std::string> arguments, std::size_t& i)
{
    if (i + 1 >= arguments.size())
        throw UsageError(std::string(context) + ": " + arguments[i] + " needs a value");
    return arguments[++i];
}

}  // namespace Axr
