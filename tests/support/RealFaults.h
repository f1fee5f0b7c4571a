#pragma once

#include <cstddef>
#include <sys/mman.h>

// Genuine hardware faults for the guard tests, made so that no sanitizer check
// reports them first: the forbidden page is mapped, so address checks pass it, and
// the division is hidden from the undefined-behaviour checks.

inline volatile int* ForbiddenPage()
{
    static void* const page = mmap(nullptr, 4096, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    return static_cast<volatile int*>(page);
}

[[gnu::noinline]] inline void WriteToForbiddenPage()
{
    *ForbiddenPage() = 1;
}

[[gnu::noinline, gnu::no_sanitize("integer-divide-by-zero")]] inline int DivideByZero()
{
    volatile int zero = 0;
    volatile int seven = 7;
    return seven / zero;
}

inline volatile bool g_stopRecursion = false;

// Recurses until the stack runs out.
[[gnu::noinline]] inline int OverflowStack(int depth)
{
    volatile char frame[512];
    frame[0] = static_cast<char>(depth);
    if (g_stopRecursion)
        return frame[0];
    return OverflowStack(depth + 1) + frame[0];
}

// Whether `address` lies in the first bytes of `function`'s code: the faulting
// instruction of the small functions above does.
template <class Function>
bool IsInside(const void* address, Function* function, std::size_t bytes = 512)
{
    const auto* start = reinterpret_cast<const char*>(function);
    const auto* at = static_cast<const char*>(address);
    return at >= start && at < start + bytes;
}
