#pragma once

#include <cstdint>

namespace Ax::Primitives {

/// A width and a height in pixels.
struct Size {
    std::int32_t Width = 0;
    std::int32_t Height = 0;

    constexpr Size() noexcept = default;
    constexpr Size(std::int32_t width, std::int32_t height) noexcept : Width(width), Height(height) {}

    [[nodiscard]] constexpr bool IsEmpty() const noexcept { return Width == 0 && Height == 0; }

    friend constexpr bool operator==(const Size&, const Size&) noexcept = default;
};

}  // namespace Ax::Primitives
