#pragma once

#include <cstddef>
#include <cstdint>

/// Fills `bytes` bytes from `destination` with a pattern of 2, 4 or 8 bytes repeated
/// from its first byte; the last repetition may be cut short. Any alignment of
/// `destination` is fine.
void QelPatternFill(std::uint8_t* destination, std::size_t bytes, const std::uint8_t* pattern,
                    std::size_t patternSize) noexcept;
