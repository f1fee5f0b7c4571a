#pragma once

#include <cstdint>

/// A width and a height in pixels, both at least 0.
class QelSize2 {
public:
    /// 0 by 0.
    constexpr QelSize2() noexcept = default;
    /// Reports an error when either value is negative.
    QelSize2(std::int32_t width, std::int32_t height);

    [[nodiscard]] constexpr std::int32_t Width() const noexcept { return m_width; }
    [[nodiscard]] constexpr std::int32_t Height() const noexcept { return m_height; }

    /// The largest size inside this one whose height / width is `proportions`,
    /// the other side truncated. Reports an error when |proportions| <= 2^-52.
    [[nodiscard]] QelSize2 MaximalSubset(double proportions) const;
    /// As above with the height / width of `proportions`, which must have no zero
    /// side.
    [[nodiscard]] QelSize2 MaximalSubset(const QelSize2& proportions) const;

    friend constexpr bool operator==(const QelSize2&, const QelSize2&) noexcept = default;

private:
    std::int32_t m_width = 0;
    std::int32_t m_height = 0;
};
