#pragma once

#include <cstdint>
#include <span>
#include <vector>

namespace Axr {

/// A display window on the Hounsfield scale: `centre` and `width` in HU, applied to
/// stored values that are HU + 1024.
struct Window {
    double centre = 40;
    double width = 400;

    [[nodiscard]] static constexpr Window SoftTissue() noexcept { return {40, 400}; }
    [[nodiscard]] static constexpr Window Bone() noexcept { return {300, 1500}; }
};

/// The 8-bit grey of `stored`: 0 at or below centre - width / 2, 255 at or above
/// centre + width / 2, linear and rounded to nearest between; `undefinedValue`
/// (the renderer's mark for pixels without data) is 0. Caller ensures width > 0.
[[nodiscard]] std::uint8_t ApplyWindow(const Window& window, std::uint16_t stored, std::uint16_t undefinedValue) noexcept;

/// ApplyWindow over a whole picture, row by row.
[[nodiscard]] std::vector<std::uint8_t> ApplyWindow(const Window& window, std::span<const std::uint16_t> stored,
                                                    std::uint16_t undefinedValue);

}  // namespace Axr
