#include "threaded/QelTickCount.h"

#include <chrono>

std::uint32_t QelGetTickCount() noexcept
{
    const auto sinceStart = std::chrono::steady_clock::now().time_since_epoch();
    const auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(sinceStart).count();
    // Truncation keeps the low bits, which is exactly the wrapping counter.
    return static_cast<std::uint32_t>(ms);
}
