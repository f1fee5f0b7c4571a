#pragma once

namespace Ax::Primitives {

/// A point or direction in 3-D space, in doubles.
struct Vector3 {
    double X = 0.0;
    double Y = 0.0;
    double Z = 0.0;

    constexpr Vector3() noexcept = default;
    constexpr Vector3(double x, double y, double z) noexcept : X(x), Y(y), Z(z) {}

    friend constexpr bool operator==(const Vector3&, const Vector3&) noexcept = default;
};

}  // namespace Ax::Primitives
