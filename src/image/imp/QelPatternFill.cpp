#include "image/imp/QelPatternFill.h"

#include <cstring>

namespace {

constexpr std::size_t kBlock = 16;

}  // namespace

void QelPatternFill(std::uint8_t* destination, std::size_t bytes, const std::uint8_t* pattern,
                    std::size_t patternSize) noexcept
{
    // Every pattern size divides the block, so byte i of the stretch is block[i % 16].
    std::uint8_t block[kBlock];
    for (std::size_t i = 0; i < kBlock; ++i)
        block[i] = pattern[i % patternSize];

    // A scalar head up to the first 16-byte boundary, then aligned 16-byte stores of
    // the block turned to the head's phase, then a scalar tail.
    const auto address = reinterpret_cast<std::uintptr_t>(destination);
    std::size_t head = (kBlock - address % kBlock) % kBlock;
    if (head > bytes)
        head = bytes;
    std::size_t i = 0;
    for (; i < head; ++i)
        destination[i] = block[i % kBlock];

    std::uint8_t turned[kBlock];
    for (std::size_t j = 0; j < kBlock; ++j)
        turned[j] = block[(head + j) % kBlock];
    for (; i + kBlock <= bytes; i += kBlock)
        std::memcpy(destination + i, turned, kBlock);

    for (; i < bytes; ++i)
        destination[i] = block[i % kBlock];
}
