#pragma once

#include "image/QelRasterImage.h"

#include <cstdint>
#include <memory>

class QelMemoryManager;

/// A raster image over one block of memory: its own, allocated by Resize from a memory
/// manager (or the C heap when it has none), or a caller's buffer given by SetBuffer.
/// Storage the image allocates is (safety columns) x bytes per pixel x (safety rows)
/// bytes, lines without padding; a caller's buffer may have any pitch at or above the
/// row size. Owned storage is freed by the destructor, the next Resize and the next
/// SetBuffer; a buffer taken without ownership is never freed here.
class QelMemoryRasterImage : public QelRasterImage {
public:
    /// An empty image that owns nothing yet. `manager` may be null (C heap) and must
    /// outlive the image. Null when memory runs out.
    [[nodiscard]] static std::unique_ptr<QelMemoryRasterImage> New(QelMemoryManager* manager);

    /// New uninitialised storage. Reports a bug, and changes nothing, unless bytes per
    /// pixel is above 0 and the size is a non-empty rectangle inside both the scratch
    /// and the safety rectangle. The safety ranges become their union with the scratch
    /// ranges. False when no memory can be had: the image is then empty.
    [[nodiscard]] bool Resize(std::int32_t bytesPerPixel, const QelIntRange& sizeX, const QelIntRange& sizeY,
                              const QelIntRange& scratchX, const QelIntRange& scratchY,
                              const QelIntRange& safetyX, const QelIntRange& safetyY) override;
    ~QelMemoryRasterImage() override;
    /// Resize with the size as scratch and safety rectangle.
    [[nodiscard]] virtual bool Resize(std::int32_t bytesPerPixel, const QelIntRange& sizeX,
                                      const QelIntRange& sizeY);
    /// Uses `buffer` as pixel (0, 0) onwards; all ranges become 0..width-1 and
    /// 0..height-1 (empty for 0). With `takeOwnership` the buffer must come from this
    /// image's memory manager (or the C heap when it has none). Reports a bug, and
    /// changes nothing, for a negative width or height, a pitch below the row size or
    /// a null buffer.
    virtual void SetBuffer(std::int32_t width, std::int32_t height, std::int32_t bytesPerPixel,
                           std::int32_t bytesPerLine, std::uint8_t* buffer, bool takeOwnership);
    /// Uses `buffer` as the pixel at (safety x min, safety y min), with the ranges of
    /// Resize. Reports a bug, and changes nothing, for a null buffer or when the
    /// ranges fail the checks of Resize or the safety columns don't fit the pitch.
    void SetBuffer(std::int32_t bytesPerPixel, std::int32_t bytesPerLine, const QelIntRange& sizeX,
                   const QelIntRange& sizeY, const QelIntRange& scratchX, const QelIntRange& scratchY,
                   const QelIntRange& safetyX, const QelIntRange& safetyY, std::uint8_t* buffer,
                   bool takeOwnership);

    /// Takes `spec` and deletes the one held before. Reports a bug for null; the one
    /// already held changes nothing.
    void HoldRgbColorSpec(std::unique_ptr<QelRgbColorSpec> spec);

    [[nodiscard]] std::uint8_t* Buffer() const noexcept { return m_buffer; }
    [[nodiscard]] bool OwnsBuffer() const noexcept { return m_ownsBuffer; }
    [[nodiscard]] QelMemoryManager* MemoryManager() const noexcept { return m_memoryManager; }

private:
    explicit QelMemoryRasterImage(QelMemoryManager* manager) noexcept : m_memoryManager(manager) {}

    [[nodiscard]] static bool AreReasonable(std::int32_t bytesPerPixel, const QelIntRange& sizeX,
                                            const QelIntRange& sizeY, const QelIntRange& scratchX,
                                            const QelIntRange& scratchY, const QelIntRange& safetyX,
                                            const QelIntRange& safetyY) noexcept;
    void FreeOwnedBuffer() noexcept;
    void Adopt(std::uint8_t* buffer, void* allocationHandle, bool owns, std::int32_t bytesPerPixel,
               std::int32_t bytesPerLine, const QelIntRange& sizeX, const QelIntRange& sizeY,
               const QelIntRange& scratchX, const QelIntRange& scratchY, const QelIntRange& unionX,
               const QelIntRange& unionY) noexcept;
    void MakeEmpty() noexcept;

    std::uint8_t* m_buffer = nullptr;  // the pixel at (safety x min, safety y min)
    bool m_ownsBuffer = false;
    QelMemoryManager* m_memoryManager = nullptr;
    void* m_allocationHandle = nullptr;  // what the manager wants back in Free
};
