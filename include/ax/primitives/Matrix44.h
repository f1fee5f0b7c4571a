#pragma once

namespace Ax::Primitives {

/// A 4 by 4 matrix of doubles, indexed by row and column; points are column
/// vectors, so column 3 of rows 0 to 2 is the translation.
class Matrix44 {
public:
    /// The identity.
    constexpr Matrix44() noexcept : m_m{1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1} {}

    [[nodiscard]] static constexpr Matrix44 Identity() noexcept { return {}; }

    // Caller ensures 0 <= row < 4 and 0 <= column < 4.
    [[nodiscard]] constexpr double operator()(int row, int column) const noexcept { return m_m[4 * row + column]; }
    [[nodiscard]] constexpr double& operator()(int row, int column) noexcept { return m_m[4 * row + column]; }

    friend constexpr bool operator==(const Matrix44&, const Matrix44&) noexcept = default;

private:
    double m_m[16];
};

}  // namespace Ax::Primitives
