#include "CommandLine.h"
#include "Demo.h"
#include "MaskCommands.h"
#include "VolumeCommands.h"

#include <iostream>
#include <string>
#include <vector>

namespace {

// A new command is one row here and a function of Command::run's shape.
constexpr Axr::Command kCommands[] = {
    {"demo", "render the built-in head phantom in several views and write PNGs", Axr::DemoCommand},
    {"info", "describe a volume: the phantom or a raw file", Axr::InfoCommand},
    {"mpr", "render one plane or slab of a volume into a PNG, PGM or raw file", Axr::MprCommand},
    {"mask", "make masks by threshold, combine, grow, describe and export them", Axr::MaskCommand},
};

}  // namespace

int main(int argc, char** argv)
{
    const std::vector<std::string> arguments(argv + 1, argv + argc);
    return Axr::RunCommandLine(kCommands, arguments, std::cout, std::cerr);
}
