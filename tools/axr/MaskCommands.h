#pragma once

#include <ostream>
#include <span>
#include <string>

namespace Axr {

/// The `mask` command: make masks by threshold, combine them, grow them, describe
/// them, and export them as NRRD.
int MaskCommand(std::span<const std::string> arguments, std::ostream& out, std::ostream& err);

}  // namespace Axr
