#include "Window.h"

#include <array>
#include <cmath>

namespace Axr {

namespace {

constexpr double kHounsfieldOffset = 1024.0;

}  // namespace

std::uint8_t ApplyWindow(const Window& window, std::uint16_t stored, std::uint16_t undefinedValue) noexcept
{
    if (stored == undefinedValue)
        return 0;
    const double low = window.centre - window.width / 2;
    const double fraction = (stored - kHounsfieldOffset - low) / window.width;
    if (fraction <= 0.0)
        return 0;
    if (fraction >= 1.0)
        return 255;
    return static_cast<std::uint8_t>(std::floor(fraction * 255.0 + 0.5));
}

std::vector<std::uint8_t> ApplyWindow(const Window& window, std::span<const std::uint16_t> stored,
                                      std::uint16_t undefinedValue)
{
    // A table over every stored value costs less than the arithmetic on a 512 x 512 picture.
    std::vector<std::uint8_t> table(65536);
    for (std::uint32_t v = 0; v < table.size(); ++v)
        table[v] = ApplyWindow(window, static_cast<std::uint16_t>(v), undefinedValue);
    std::vector<std::uint8_t> grey(stored.size());
    for (std::size_t i = 0; i < stored.size(); ++i)
        grey[i] = table[stored[i]];
    return grey;
}

}  // namespace Axr
