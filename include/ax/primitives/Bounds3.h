#pragma once

namespace Ax::Primitives {

/// An axis-aligned box, in doubles: Left to Right along x, Top to Bottom along y,
/// Front to Back along z.
struct Bounds3 {
    double Left = 0.0;
    double Right = 0.0;
    double Top = 0.0;
    double Bottom = 0.0;
    double Front = 0.0;
    double Back = 0.0;

    constexpr Bounds3() noexcept = default;
    /// The box with its left, top, front corner at (x, y, z) and the given extents.
    constexpr Bounds3(double x, double y, double z, double width, double height, double depth) noexcept
        : Left(x), Right(x + width), Top(y), Bottom(y + height), Front(z), Back(z + depth)
    {
    }

    friend constexpr bool operator==(const Bounds3&, const Bounds3&) noexcept = default;
};

}  // namespace Ax::Primitives
