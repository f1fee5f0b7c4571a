#include "base/QelSize2.h"

#include "base/QelDebug.h"

#include <algorithm>
#include <cmath>
#include <limits>

namespace {

constexpr double kSmallestProportions = 0x1p-52;

// Truncation toward zero, clamped to 32 bits so that absurd proportions give a
// size that the constructor rejects instead of an undefined conversion.
std::int32_t TruncateToInt32(double value) noexcept
{
    constexpr double kLowest = std::numeric_limits<std::int32_t>::min();
    constexpr double kHighest = std::numeric_limits<std::int32_t>::max();
    return static_cast<std::int32_t>(std::clamp(std::trunc(value), kLowest, kHighest));
}

}  // namespace

QelSize2::QelSize2(std::int32_t width, std::int32_t height)
{
    if (width < 0 || height < 0)
        QEL_ERROR("QelSize2::QelSize2: Negative size");
    // A handler that lets the report return gets an empty side, not a negative one.
    m_width = std::max(width, 0);
    m_height = std::max(height, 0);
}

QelSize2 QelSize2::MaximalSubset(double proportions) const
{
    // Negated so that NaN is rejected too.
    if (!(std::abs(proportions) > kSmallestProportions)) {
        QEL_ERROR("QelSize2::MaximalSubset:Invalid proportions: %f", proportions);
        return *this;
    }
    const double height = m_height;
    const double width = m_width;
    if (height / width < proportions)
        return {TruncateToInt32(height / proportions), m_height};
    return {m_width, TruncateToInt32(width * proportions)};
}

QelSize2 QelSize2::MaximalSubset(const QelSize2& proportions) const
{
    if (proportions.m_width == 0 || proportions.m_height == 0) {
        QEL_ERROR("QelSize2::MaximumalSubset: Invalid proportions: %dx%d", proportions.m_width,
                  proportions.m_height);
        return *this;
    }
    return MaximalSubset(static_cast<double>(proportions.m_height) / proportions.m_width);
}
