#pragma once

#include <cstddef>

/// Copies `rows` rows of `bytesPerRow` bytes, stepping the destination and the source
/// by their own pitches. When both pitches equal the row size the rows are one block
/// and go in a single copy. The two areas must not overlap.
void QelMemCpy2D(void* destination, std::ptrdiff_t destinationPitch, const void* source,
                 std::ptrdiff_t sourcePitch, std::ptrdiff_t bytesPerRow, std::ptrdiff_t rows) noexcept;
