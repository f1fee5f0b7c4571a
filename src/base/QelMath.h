#pragma once

/// Numeric helpers without state.
class QelMath {
public:
    QelMath() = delete;

    /// |a - b| <= tolerance; false when either value is NaN.
    [[nodiscard]] static constexpr bool CloseEnough(double a, double b, double tolerance) noexcept
    {
        const double difference = a > b ? a - b : b - a;
        return difference <= tolerance;
    }
};
