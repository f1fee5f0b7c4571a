#pragma once

#include <chrono>
#include <thread>

/// Watches `done` for a short while before the caller blocks in the operating
/// system. The phases of a parallel loop follow each other within microseconds,
/// while a blocked thread takes tens of microseconds to wake on a busy or virtual
/// machine; a watcher that sees the change itself saves that hand-off. Yields
/// between looks, so that on a loaded machine the threads being waited for get
/// the processor. Does nothing on a single processor, where watching only delays
/// the thread that would make the change. Returns done().
template <class Done>
bool QelSpinUntil(Done done)
{
    constexpr auto kPatience = std::chrono::microseconds(100);
    static const bool worthwhile = std::thread::hardware_concurrency() > 1;
    if (!worthwhile)
        return done();
    const auto deadline = std::chrono::steady_clock::now() + kPatience;
    do {
        for (int look = 0; look < 32; ++look) {
            if (done())
                return true;
            __builtin_ia32_pause();
        }
        std::this_thread::yield();
    } while (std::chrono::steady_clock::now() < deadline);
    return done();
}
