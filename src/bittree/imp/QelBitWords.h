#pragma once

// Word-at-a-time helpers shared by the bit tree's implementation files. Blocks are
// read and written as little-endian 64-bit words of their bytes.

#include <bit>
#include <cstdint>
#include <cstring>

static_assert(std::endian::native == std::endian::little, "the word tricks read bytes as little-endian words");

namespace qel::bits {

inline constexpr std::uint64_t kByteLowBits = 0x0101010101010101ull;

[[nodiscard]] inline std::uint64_t Load64(const std::uint8_t* bytes) noexcept
{
    std::uint64_t word;
    std::memcpy(&word, bytes, sizeof word);
    return word;
}

inline void Store64(std::uint8_t* bytes, std::uint64_t word) noexcept
{
    std::memcpy(bytes, &word, sizeof word);
}

// Bits 0 to count-1 (all 32 from 32 on): the part of a row or column inside the volume.
[[nodiscard]] constexpr std::uint32_t LowMask(std::uint32_t count) noexcept
{
    return count >= 32 ? 0xFFFFFFFFu : (1u << count) - 1u;
}

// Blocks of 32 along an axis of `size` voxels.
[[nodiscard]] constexpr std::uint32_t BlocksFor(std::uint32_t size) noexcept
{
    return static_cast<std::uint32_t>((std::uint64_t{size} + 31) / 32);
}

}  // namespace qel::bits
