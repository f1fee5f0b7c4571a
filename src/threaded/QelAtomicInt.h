#pragma once

#include "base/QelNoncopyable.h"

#include <atomic>
#include <cstdint>

/// A 32-bit signed counter shared between threads, such as the next row of a
/// loop. Each operation is one atomic read-modify-write with full ordering, and
/// the arithmetic wraps at the ends of the 32-bit range.
class QelAtomicInt : public QelNoncopyable {
public:
    explicit QelAtomicInt(std::int32_t value = 0) noexcept : m_value(value) {}

    /// Stores `value`; returns the value before.
    std::int32_t Exchange(std::int32_t value) noexcept { return m_value.exchange(value); }
    /// Returns the value after the increment.
    std::int32_t Increment() noexcept { return Wrapped(m_value.fetch_add(1), 1); }
    /// Returns the value after the decrement.
    std::int32_t Decrement() noexcept { return Wrapped(m_value.fetch_sub(1), -1); }

private:
    // The atomic operation wraps; the value handed back must wrap the same way,
    // which signed arithmetic doesn't promise.
    static std::int32_t Wrapped(std::int32_t before, std::int32_t step) noexcept
    {
        return static_cast<std::int32_t>(static_cast<std::uint32_t>(before) + static_cast<std::uint32_t>(step));
    }

    static_assert(std::atomic<std::int32_t>::is_always_lock_free);
    static_assert(alignof(std::atomic<std::int32_t>) == 4);
    std::atomic<std::int32_t> m_value;
};
