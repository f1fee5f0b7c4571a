#pragma once

#include <cstdint>

/// Milliseconds of a monotonic clock, cut to 32 bits: the counter wraps to 0 about
/// every 49.7 days, so a tick is only meaningful relative to another tick.
/// Safe from any thread.
[[nodiscard]] std::uint32_t QelGetTickCount() noexcept;

/// The farthest apart two ticks may be for QelTickBefore to order them: some 24.8 days.
inline constexpr std::uint32_t kQelLongestTickSpanMs = 0x7FFFFFFF;

/// Whether tick `a` comes before tick `b`, across a wrap of the counter.
/// A plain `a < b` is wrong whenever the counter wraps between the two ticks: a
/// deadline of 0x10 set at 0xFFFFFFF0 would look passed at once. The signed
/// difference measures the short way round the 32-bit circle instead, which is
/// right as long as the ticks are less than kQelLongestTickSpanMs apart.
[[nodiscard]] constexpr bool QelTickBefore(std::uint32_t a, std::uint32_t b) noexcept
{
    return static_cast<std::int32_t>(a - b) < 0;
}
