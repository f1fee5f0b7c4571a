#include "image/QelRasterImage.h"

#include "image/QelMemCpy2D.h"
#include "image/QelRgbColorSpec.h"
#include "image/imp/QelPatternFill.h"

#include <cstring>

QelRasterImage::QelRasterImage() = default;

QelRasterImage::~QelRasterImage() = default;

bool QelRasterImage::Copy(const QelRasterImage& source) noexcept
{
    const QelIntRange x = m_scratchXRange.And(source.m_scratchXRange);
    const QelIntRange y = m_scratchYRange.And(source.m_scratchYRange);
    if (x.IsEmpty() || y.IsEmpty())
        return false;
    // Onto itself the copy would change nothing, and the areas would overlap.
    if (&source == this)
        return true;
    QelMemCpy2D(PixelAddress(x.Min, y.Min), m_bytesPerLine, source.PixelAddress(x.Min, y.Min),
                source.m_bytesPerLine, std::ptrdiff_t{x.Length()} * m_bytesPerPixel, y.Length());
    return true;
}

void QelRasterImage::Clear(bool hasValue, std::uint32_t value) noexcept
{
    if (m_scratchXRange.IsEmpty() || m_scratchYRange.IsEmpty())
        return;
    const std::ptrdiff_t step = m_bytesPerLine;
    const std::ptrdiff_t rowBytes = std::ptrdiff_t{m_scratchXRange.Length()} * m_bytesPerPixel;
    std::ptrdiff_t rows = m_scratchYRange.Length();
    std::ptrdiff_t lineBytes = rowBytes;
    // Lines without padding between them are one stretch.
    if (rowBytes == step) {
        lineBytes = rowBytes * rows;
        rows = 1;
    }
    std::uint8_t* const start = PixelAddress(m_scratchXRange.Min, m_scratchYRange.Min);

    if (!hasValue || m_bytesPerPixel == 1) {
        const int fill = hasValue ? static_cast<int>(value & 0xFF) : 0;
        for (std::ptrdiff_t row = 0; row < rows; ++row)
            std::memset(OffsetAddress(start, row * step), fill, static_cast<std::size_t>(lineBytes));
        return;
    }

    // The pattern is the pixel as it lies in memory.
    std::uint8_t pattern[8];
    std::size_t patternSize = 0;
    switch (m_bytesPerPixel) {
    case 2: {
        const auto low = static_cast<std::uint16_t>(value);
        std::memcpy(pattern, &low, 2);
        patternSize = 2;
        break;
    }
    case 4:
        std::memcpy(pattern, &value, 4);
        patternSize = 4;
        break;
    case 8:
        std::memcpy(pattern, &value, 4);
        std::memcpy(pattern + 4, &value, 4);
        patternSize = 8;
        break;
    default:
        // A value has no defined layout in other pixel sizes; those images are cleared
        // only without a value.
        return;
    }
    for (std::ptrdiff_t row = 0; row < rows; ++row)
        QelPatternFill(OffsetAddress(start, row * step), static_cast<std::size_t>(lineBytes), pattern,
                       patternSize);
}
