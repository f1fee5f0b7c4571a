#pragma once

#include "base/QelArray.h"
#include "image_stack/QelImageStack.h"
#include "image_stack/QelImageStackFixedPointAccelerator.h"
#include "image_stack/QelImageStackSegmentationAccelerator.h"
#include "threaded/QelCriticalSection.h"

#include <atomic>
#include <cstdint>
#include <memory>

class QelMemoryManager;

/// The one stack behind QelImageStack::New. Included by its own source and by tests.
class QelImageStackImp final : public QelImageStack {
public:
    /// A new empty stack whose record array comes from `recordsManager` (the C heap
    /// when null). Null when memory runs out.
    [[nodiscard]] static std::unique_ptr<QelImageStackImp> New(QelMemoryManager* recordsManager);
    ~QelImageStackImp() override;

    void Reset() override;
    [[nodiscard]] bool ImportStack(const QelImageStack& other, float zScale, bool shortenBox) override;
    [[nodiscard]] bool InsertImage(QelRasterImage* image, float z, bool owned, bool isSigned) override;
    [[nodiscard]] bool ReplaceImage(QelRasterImage* image, float z, bool owned, bool isSigned) override;
    [[nodiscard]] bool RemoveImage(QelRasterImage* image, float z) override;
    [[nodiscard]] bool RemoveImageAt(std::int32_t index) override;
    void ClearChangedFlag() noexcept override { m_changed = false; }
    /// Set by every change since the last ClearChangedFlag.
    [[nodiscard]] bool IsChanged() const noexcept { return m_changed; }

    [[nodiscard]] std::int32_t SerialNumber() const noexcept override
    {
        return static_cast<std::int32_t>(m_serialNumber);
    }
    [[nodiscard]] std::int32_t ImageCount() const noexcept override
    {
        return static_cast<std::int32_t>(m_records->Length());
    }
    [[nodiscard]] QelImageRecord Image(std::int32_t index) const override;
    [[nodiscard]] const QelImageRecord* Records() const noexcept override { return m_records->Data(); }
    [[nodiscard]] QelVector3 MinPoint() const noexcept override { return m_minPoint; }
    [[nodiscard]] QelVector3 MaxPoint() const noexcept override { return m_maxPoint; }
    [[nodiscard]] std::int32_t Width() const noexcept override { return m_width; }
    [[nodiscard]] std::int32_t Height() const noexcept override { return m_height; }
    [[nodiscard]] QelIntBBox3 BoundingBox() const noexcept override { return m_box; }
    [[nodiscard]] std::int32_t BytesPerLine() const noexcept override { return m_bytesPerLine; }
    [[nodiscard]] std::int32_t BytesPerPixel() const noexcept override { return m_bytesPerPixel; }
    [[nodiscard]] std::int32_t PaddingValue() const noexcept override { return m_paddingValue; }
    void SetPaddingValue(std::int32_t value) noexcept override
    {
        m_paddingValue = value;
        m_hasPadding = true;
    }
    [[nodiscard]] bool HasPadding() const noexcept override { return m_hasPadding; }
    [[nodiscard]] bool IsSigned() const noexcept override { return m_signed; }

    [[nodiscard]] std::int32_t IndexAtZ(float z) const noexcept override;
    QelNeighborCodes NeighborsAtZ(float z, std::int32_t& lower, std::int32_t& upper) const noexcept override;
    QelNeighborCodes NeighborsAtFixedZ(std::int32_t fixedZ, std::int32_t& lower, std::int32_t& upper,
                                       std::int32_t& hint) const override;

    [[nodiscard]] const QelImageStackFixedPointAccelerator* FixedPointAccelerator() const override;
    [[nodiscard]] QelImageStackSegmentationAccelerator* SegmentationAccelerator() noexcept override
    {
        return m_segmentation.get();
    }
    [[nodiscard]] const QelImageStackSegmentationAccelerator* SegmentationAccelerator() const noexcept override
    {
        return m_segmentation.get();
    }
    void DropAccelerators() noexcept override
    {
        DropFixedPointAccelerator();
        m_segmentation->DropTables();
    }

    void SetValuePair(std::int32_t first, std::int32_t second) noexcept override;
    bool ValuePair(std::int32_t* first, std::int32_t* second) const noexcept override;
    void SetStoredRange(std::uint16_t low, std::uint16_t high) noexcept override;
    bool StoredRange(std::uint16_t* low, std::uint16_t* high) const noexcept override;

    [[nodiscard]] bool Verify(char* message, std::uint32_t size) const override;

    void SetDataMapping(float slope, float intercept) override;
    [[nodiscard]] const QelDataMapping* DataMapping() const noexcept override { return m_dataMapping.get(); }

private:
    explicit QelImageStackImp(QelMemoryManager* recordsManager) noexcept : m_recordsManager(recordsManager) {}
    [[nodiscard]] bool Init() noexcept;

    [[nodiscard]] QelImageRecord* RecordData() noexcept { return m_records->Data(); }
    // The smallest index whose z is not below `z`, or the last index when all are.
    // The stack must not be empty.
    [[nodiscard]] std::int32_t LowerBound(float z) const noexcept;
    [[nodiscard]] static bool IsZInRange(float z) noexcept { return z >= -kMaxAbsZ && z <= kMaxAbsZ; }
    void Changed() noexcept;
    void DeleteOwnedImages() noexcept;
    void ClearGeometry() noexcept;
    // What a failed resize of the records leaves: an empty stack whose records, and
    // the images they own, are lost to it.
    void LoseRecords() noexcept;
    void DropFixedPointAccelerator() noexcept;
    // For the changes that replace the whole stack at once: the segmentation accelerator
    // forgets its tables and takes the new box.
    void RebuildSegmentation() noexcept;
    // The body of Verify, run under the fault guard; it owns nothing, because a fault
    // leaves its frame without unwinding.
    [[nodiscard]] bool VerifyGuarded(char* message, std::uint32_t size) const;
    // Whether `origin` is pixel (0, 0) of a slice, searching from slice `hint`, which
    // is left at the slice found.
    [[nodiscard]] bool IsSliceOrigin(const std::uint8_t* origin, std::int32_t& hint) const noexcept;

    std::unique_ptr<QelArray<QelImageRecord>> m_records;  // never null once made
    std::int32_t m_count = 0;
    std::int32_t m_width = 0;
    std::int32_t m_height = 0;
    std::int32_t m_bytesPerLine = 0;
    std::int32_t m_bytesPerPixel = 0;
    QelVector3 m_minPoint{0.0f, 0.0f, 0.0f};
    QelVector3 m_maxPoint{0.0f, 0.0f, 0.0f};
    QelIntBBox3 m_box;
    bool m_signed = false;
    bool m_hasPadding = false;
    std::int32_t m_paddingValue = 0;
    // Built lazily by const callers on several threads: the owner is written only
    // under the lock, and the pointer is published through the atomic.
    mutable std::unique_ptr<QelImageStackFixedPointAccelerator> m_fixedPointOwner;
    mutable std::atomic<const QelImageStackFixedPointAccelerator*> m_fixedPoint{nullptr};
    std::unique_ptr<QelImageStackSegmentationAccelerator> m_segmentation;  // never null once made
    bool m_changed = false;
    std::uint32_t m_serialNumber = 0;  // wraps, as the count of stacks times 65536 may
    mutable QelCriticalSection m_acceleratorLock;
    bool m_hasValuePair = false;
    std::int32_t m_valuePair[2] = {0, 0};
    bool m_hasStoredRange = false;
    std::uint16_t m_storedRange[2] = {0, 65535};
    std::unique_ptr<QelDataMapping> m_dataMapping;
    QelMemoryManager* m_recordsManager;
};
