#include "image/QelMemCpy2D.h"

#include <cstdint>
#include <cstring>

void QelMemCpy2D(void* destination, std::ptrdiff_t destinationPitch, const void* source,
                 std::ptrdiff_t sourcePitch, std::ptrdiff_t bytesPerRow, std::ptrdiff_t rows) noexcept
{
    if (bytesPerRow <= 0 || rows <= 0)
        return;
    if (destinationPitch == bytesPerRow && sourcePitch == bytesPerRow) {
        std::memcpy(destination, source, static_cast<std::size_t>(bytesPerRow * rows));
        return;
    }
    auto* to = static_cast<std::uint8_t*>(destination);
    const auto* from = static_cast<const std::uint8_t*>(source);
    for (std::ptrdiff_t row = 0; row < rows; ++row)
        std::memcpy(to + row * destinationPitch, from + row * sourcePitch, static_cast<std::size_t>(bytesPerRow));
}
