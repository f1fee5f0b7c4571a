#pragma once

#include <algorithm>
#include <cstdint>
#include <limits>

/// An inclusive range of 32-bit integers. Two bound values are reserved: the
/// lowest as Min means "no lower bound", the highest as Max "no upper bound", and
/// the pair (highest, lowest) is the one empty range.
struct QelIntRange {
    static constexpr std::int32_t kLowest = std::numeric_limits<std::int32_t>::min();
    static constexpr std::int32_t kHighest = std::numeric_limits<std::int32_t>::max();

    std::int32_t Min = kHighest;
    std::int32_t Max = kLowest;

    /// The empty range.
    constexpr QelIntRange() noexcept = default;
    constexpr QelIntRange(std::int32_t min, std::int32_t max) noexcept : Min(min), Max(max) {}
    /// The infinite range (no bounds at all); the flag only picks this form.
    constexpr explicit QelIntRange(bool /*infinite*/) noexcept : Min(kLowest), Max(kHighest) {}

    [[nodiscard]] static constexpr QelIntRange Empty() noexcept { return {}; }
    [[nodiscard]] static constexpr QelIntRange Infinite() noexcept { return QelIntRange(true); }

    [[nodiscard]] constexpr bool IsEmpty() const noexcept { return Min == kHighest && Max == kLowest; }
    [[nodiscard]] constexpr bool IsMinInf() const noexcept { return Min == kLowest; }
    [[nodiscard]] constexpr bool IsMaxInf() const noexcept { return Max == kHighest; }
    [[nodiscard]] constexpr bool IsInf() const noexcept { return IsMinInf() || IsMaxInf(); }

    /// 0 when empty, kHighest when infinite or when Max - Min + 1 doesn't fit.
    [[nodiscard]] constexpr std::int32_t Length() const noexcept
    {
        if (IsEmpty())
            return 0;
        if (IsInf())
            return kHighest;
        const std::int64_t length = std::int64_t{Max} - Min + 1;
        return length > kHighest ? kHighest : static_cast<std::int32_t>(length);
    }

    /// The intersection; the canonical empty range when nothing is shared.
    [[nodiscard]] constexpr QelIntRange And(const QelIntRange& other) const noexcept
    {
        if (IsEmpty() || other.IsEmpty())
            return {};
        const QelIntRange shared(std::max(Min, other.Min), std::min(Max, other.Max));
        return shared.Min > shared.Max ? QelIntRange{} : shared;
    }

    /// The smallest range holding both; an empty operand adds nothing.
    [[nodiscard]] constexpr QelIntRange Or(const QelIntRange& other) const noexcept
    {
        if (IsEmpty())
            return other;
        if (other.IsEmpty())
            return *this;
        return {std::min(Min, other.Min), std::max(Max, other.Max)};
    }

    [[nodiscard]] constexpr bool Contains(std::int32_t value) const noexcept
    {
        return !IsEmpty() && Min <= value && value <= Max;
    }
    /// Whether every value of `inner` lies in this range; an empty inner lies in any.
    [[nodiscard]] constexpr bool Contains(const QelIntRange& inner) const noexcept
    {
        return inner.IsEmpty() || (!IsEmpty() && Min <= inner.Min && inner.Max <= Max);
    }

    [[nodiscard]] constexpr bool Equals(const QelIntRange& other) const noexcept
    {
        return Min == other.Min && Max == other.Max;
    }
    friend constexpr bool operator==(const QelIntRange&, const QelIntRange&) noexcept = default;
};

/// Three ranges: a box of voxels. Left, Top and Front are the minima.
struct QelIntBBox3 {
    QelIntRange X, Y, Z;

    constexpr QelIntBBox3() noexcept = default;
    constexpr QelIntBBox3(const QelIntRange& x, const QelIntRange& y, const QelIntRange& z) noexcept
        : X(x), Y(y), Z(z) {}
    [[nodiscard]] static constexpr QelIntBBox3 Ranges(const QelIntRange& x, const QelIntRange& y,
                                                      const QelIntRange& z) noexcept
    {
        return {x, y, z};
    }

    [[nodiscard]] constexpr std::int32_t Left() const noexcept { return X.Min; }
    [[nodiscard]] constexpr std::int32_t Top() const noexcept { return Y.Min; }
    [[nodiscard]] constexpr std::int32_t Front() const noexcept { return Z.Min; }
    [[nodiscard]] constexpr std::int32_t Width() const noexcept { return X.Length(); }
    [[nodiscard]] constexpr std::int32_t Height() const noexcept { return Y.Length(); }
    [[nodiscard]] constexpr std::int32_t Depth() const noexcept { return Z.Length(); }

    [[nodiscard]] constexpr bool Equals(const QelIntBBox3& other) const noexcept
    {
        return X.Equals(other.X) && Y.Equals(other.Y) && Z.Equals(other.Z);
    }
    friend constexpr bool operator==(const QelIntBBox3&, const QelIntBBox3&) noexcept = default;
};
