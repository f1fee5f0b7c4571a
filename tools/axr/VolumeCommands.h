#pragma once

#include <ostream>
#include <span>
#include <string>

namespace Axr {

/// The `info` command: what a volume input holds.
int InfoCommand(std::span<const std::string> arguments, std::ostream& out, std::ostream& err);

/// The `mpr` command: one plane or slab of a volume input into a picture file.
int MprCommand(std::span<const std::string> arguments, std::ostream& out, std::ostream& err);

}  // namespace Axr
