#include "image/QelMemoryRasterImage.h"

#include "base/QelDebug.h"
#include "base/QelMemoryManager.h"
#include "image/QelRgbColorSpec.h"

#include <cstdlib>
#include <limits>
#include <new>

namespace {

// Whether a non-empty range has at least one value; a reversed pair such as (0, -1)
// is not the canonical empty range but has no length either.
bool HasPixels(const QelIntRange& range) noexcept
{
    return !range.IsEmpty() && range.Length() >= 1;
}

}  // namespace

std::unique_ptr<QelMemoryRasterImage> QelMemoryRasterImage::New(QelMemoryManager* manager)
{
    return std::unique_ptr<QelMemoryRasterImage>(new (std::nothrow) QelMemoryRasterImage(manager));
}

QelMemoryRasterImage::~QelMemoryRasterImage()
{
    FreeOwnedBuffer();
}

bool QelMemoryRasterImage::AreReasonable(std::int32_t bytesPerPixel, const QelIntRange& sizeX,
                                         const QelIntRange& sizeY, const QelIntRange& scratchX,
                                         const QelIntRange& scratchY, const QelIntRange& safetyX,
                                         const QelIntRange& safetyY) noexcept
{
    if (bytesPerPixel <= 0 || !HasPixels(sizeX) || !HasPixels(sizeY))
        return false;
    return safetyX.Contains(sizeX) && scratchX.Contains(sizeX) && safetyY.Contains(sizeY) &&
           scratchY.Contains(sizeY);
}

bool QelMemoryRasterImage::Resize(std::int32_t bytesPerPixel, const QelIntRange& sizeX, const QelIntRange& sizeY,
                                  const QelIntRange& scratchX, const QelIntRange& scratchY,
                                  const QelIntRange& safetyX, const QelIntRange& safetyY)
{
    if (!AreReasonable(bytesPerPixel, sizeX, sizeY, scratchX, scratchY, safetyX, safetyY)) {
        QEL_ASSERT(false, "QelMemoryRasterImage::Resize: Unreasonable arguments\n");
        return false;
    }
    const QelIntRange unionX = scratchX.Or(safetyX);
    const QelIntRange unionY = scratchY.Or(safetyY);
    const std::int64_t lineBytes = std::int64_t{unionX.Length()} * bytesPerPixel;
    const std::int64_t total = lineBytes * unionY.Length();

    FreeOwnedBuffer();
    // A pitch beyond 32 bits can't be described; that is as hopeless as no memory.
    const bool fits = lineBytes <= std::numeric_limits<std::int32_t>::max() &&
                      static_cast<std::uint64_t>(total) <= std::numeric_limits<std::size_t>::max();
    void* handle = nullptr;
    void* block = nullptr;
    if (fits) {
        const auto bytes = static_cast<std::size_t>(total);
        if (m_memoryManager)
            block = m_memoryManager->AllocAligned(bytes, &handle);
        else
            block = handle = std::malloc(bytes);
    }
    if (!block) {
        MakeEmpty();
        return false;
    }

    Adopt(static_cast<std::uint8_t*>(block), handle, true, bytesPerPixel, static_cast<std::int32_t>(lineBytes),
          sizeX, sizeY, scratchX, scratchY, unionX, unionY);
    return true;
}

void QelMemoryRasterImage::Adopt(std::uint8_t* buffer, void* allocationHandle, bool owns, std::int32_t bytesPerPixel,
                                 std::int32_t bytesPerLine, const QelIntRange& sizeX, const QelIntRange& sizeY,
                                 const QelIntRange& scratchX, const QelIntRange& scratchY, const QelIntRange& unionX,
                                 const QelIntRange& unionY) noexcept
{
    m_buffer = buffer;
    m_allocationHandle = allocationHandle;
    m_ownsBuffer = owns;
    m_bytesPerPixel = bytesPerPixel;
    m_bytesPerLine = bytesPerLine;
    m_xRange = sizeX;
    m_yRange = sizeY;
    m_scratchXRange = scratchX;
    m_scratchYRange = scratchY;
    m_safetyXRange = unionX;
    m_safetyYRange = unionY;
    // The buffer starts at the union's corner, which may lie left of or above pixel (0, 0);
    // a caller's empty image has no corner and keeps its buffer as the origin.
    m_origin = unionX.IsEmpty() || unionY.IsEmpty()
                   ? buffer
                   : OffsetAddress(buffer, -(std::ptrdiff_t{unionY.Min} * bytesPerLine) -
                                               std::ptrdiff_t{unionX.Min} * bytesPerPixel);
}

bool QelMemoryRasterImage::Resize(std::int32_t bytesPerPixel, const QelIntRange& sizeX, const QelIntRange& sizeY)
{
    return Resize(bytesPerPixel, sizeX, sizeY, sizeX, sizeY, sizeX, sizeY);
}

void QelMemoryRasterImage::SetBuffer(std::int32_t width, std::int32_t height, std::int32_t bytesPerPixel,
                                     std::int32_t bytesPerLine, std::uint8_t* buffer, bool takeOwnership)
{
    if (width < 0) {
        QEL_ASSERT(false, "QelMemoryRasterImage::SetBuffer()\nWidth was negative (%d)\n", width);
        return;
    }
    if (height < 0) {
        QEL_ASSERT(false, "QelMemoryRasterImage::SetBuffer()\nHeight was negative (%d)\n", height);
        return;
    }
    const std::int64_t minimum = std::int64_t{width} * bytesPerPixel;
    if (bytesPerLine < minimum) {
        QEL_ASSERT(false,
                   "QelMemoryRasterImage::SetBuffer()\nGiven a width of %d and %d bytes per pixel,\n"
                   "bytes per line must be at least %lld. It was %d.\n",
                   width, bytesPerPixel, static_cast<long long>(minimum), bytesPerLine);
        return;
    }
    if (!buffer) {
        QEL_ASSERT(false, "QelMemoryRasterImage::SetBuffer()\nNULL pointer trapped (buffer)");
        return;
    }

    const QelIntRange x = width == 0 ? QelIntRange::Empty() : QelIntRange(0, width - 1);
    const QelIntRange y = height == 0 ? QelIntRange::Empty() : QelIntRange(0, height - 1);
    FreeOwnedBuffer();
    Adopt(buffer, buffer, takeOwnership, bytesPerPixel, bytesPerLine, x, y, x, y, x, y);
}

void QelMemoryRasterImage::SetBuffer(std::int32_t bytesPerPixel, std::int32_t bytesPerLine, const QelIntRange& sizeX,
                                     const QelIntRange& sizeY, const QelIntRange& scratchX,
                                     const QelIntRange& scratchY, const QelIntRange& safetyX,
                                     const QelIntRange& safetyY, std::uint8_t* buffer, bool takeOwnership)
{
    if (!buffer) {
        QEL_ASSERT(false, "QelMemoryRasterImage::SetBuffer()\nNULL pointer trapped (buffer)");
        return;
    }
    if (!AreReasonable(bytesPerPixel, sizeX, sizeY, scratchX, scratchY, safetyX, safetyY) ||
        std::int64_t{safetyX.Length()} * bytesPerPixel > bytesPerLine) {
        QEL_ASSERT(false, "QelMemoryRasterImage::SetBuffer: Unreasonable arguments\n");
        return;
    }

    FreeOwnedBuffer();
    Adopt(buffer, buffer, takeOwnership, bytesPerPixel, bytesPerLine, sizeX, sizeY, scratchX, scratchY,
          scratchX.Or(safetyX), scratchY.Or(safetyY));
}

void QelMemoryRasterImage::HoldRgbColorSpec(std::unique_ptr<QelRgbColorSpec> spec)
{
    if (!spec) {
        QEL_ASSERT(false, "QelMemoryRasterImage::SetRgbColorSpec()\nNULL pointer trapped (c_spec)\n");
        return;
    }
    if (spec.get() == m_colorSpec.get()) {
        // Already ours: the caller's second owner must not delete it.
        (void)spec.release();
        return;
    }
    m_colorSpec = std::move(spec);
}

void QelMemoryRasterImage::FreeOwnedBuffer() noexcept
{
    if (m_ownsBuffer && m_buffer) {
        if (m_memoryManager)
            m_memoryManager->Free(m_allocationHandle);
        else
            std::free(m_allocationHandle);
    }
    m_buffer = nullptr;
    m_allocationHandle = nullptr;
    m_ownsBuffer = false;
}

void QelMemoryRasterImage::MakeEmpty() noexcept
{
    m_xRange = m_yRange = QelIntRange::Empty();
    m_scratchXRange = m_scratchYRange = QelIntRange::Empty();
    m_safetyXRange = m_safetyYRange = QelIntRange::Empty();
    m_origin = nullptr;
    m_buffer = nullptr;
    m_allocationHandle = nullptr;
    m_ownsBuffer = false;
}
