#pragma once

#include "base/QelIntRange.h"
#include "base/QelVector.h"

#include <cstdint>
#include <memory>
#include <new>

class QelRasterImage;
class QelImageStackFixedPointAccelerator;
class QelImageStackSegmentationAccelerator;

/// One slice of a stack. With `Owned` the stack deletes the image when the slice
/// goes; otherwise the image belongs to the caller, who keeps it alive.
struct QelImageRecord {
    QelRasterImage* Image;
    float Z;
    bool Owned;
};

/// Where a z lies among the slices: the result of NeighborsAtZ.
enum QelNeighborCodes {
    BothNeighbors = 0,      // a slice at or below z and a slice above z exist
    LowerNeighborOnly = 1,  // z is at or above the last slice
    UpperNeighborOnly = 2,  // z is below the first slice
    NoNeighbors = 3         // the stack is empty
};

/// How stored values map to the caller's units (value x slope + intercept). The stack
/// keeps one for the caller and copies it between stacks; no renderer applies it.
class QelDataMapping {
public:
    QelDataMapping() noexcept = default;
    QelDataMapping(float slope, float intercept) noexcept : Slope(slope), Intercept(intercept) {}
    virtual ~QelDataMapping() = default;

    /// A copy of the same dynamic type; null when memory runs out.
    [[nodiscard]] virtual std::unique_ptr<QelDataMapping> Clone() const
    {
        return std::unique_ptr<QelDataMapping>(new (std::nothrow) QelDataMapping(*this));
    }

    float Slope = 1.0f;
    float Intercept = 0.0f;

protected:
    QelDataMapping(const QelDataMapping&) = default;
    QelDataMapping& operator=(const QelDataMapping&) = default;
};

/// The volume: slices of one size and pixel size at strictly increasing float z,
/// at most kMaxImages of them, z within +-kMaxAbsZ. The slices need not be evenly
/// spaced nor share one block of memory.
///
/// Renderers call the const operations from many threads at once without a lock;
/// the fixed-point accelerator is built on first demand under a lock of the stack's
/// own. Changes must not overlap a render: that is the caller's duty. Every change
/// raises SerialNumber(), so that a renderer that keeps results per stack sees that
/// they are stale, and drops the accelerators.
class QelImageStack {
public:
    static constexpr std::int32_t kMaxImages = 16384;
    static constexpr float kMaxAbsZ = 1000000.0f;

    /// A new empty stack, or null when memory runs out.
    [[nodiscard]] static std::unique_ptr<QelImageStack> New();

    QelImageStack(const QelImageStack&) = delete;
    QelImageStack& operator=(const QelImageStack&) = delete;
    virtual ~QelImageStack() = default;

    /// Deletes the owned slices and empties the stack. Padding, value pair, stored
    /// range and data mapping stay.
    virtual void Reset() = 0;
    /// Makes this stack a copy of `other` with every z divided by `zScale`; the slices
    /// are shared, never owned. With `shortenBox` the box ends one slice lower in z.
    /// False when memory runs out: the stack is then empty.
    [[nodiscard]] virtual bool ImportStack(const QelImageStack& other, float zScale, bool shortenBox) = 0;

    /// Puts `image` at `z` in z order. False, with nothing changed, for a z that is
    /// taken or out of range, a full stack, or an image whose size, pixel size or
    /// signedness differs from the first slice's. A null image is a bug report.
    [[nodiscard]] virtual bool InsertImage(QelRasterImage* image, float z, bool owned, bool isSigned) = 0;
    /// Puts `image` in place of the slice at `z`, deleting the old one when owned.
    /// Its size is not tested here; Verify reports a mismatch.
    [[nodiscard]] virtual bool ReplaceImage(QelRasterImage* image, float z, bool owned, bool isSigned) = 0;
    /// Removes the slice at `z`; `image` must not be null but plays no further part.
    [[nodiscard]] virtual bool RemoveImage(QelRasterImage* image, float z) = 0;
    [[nodiscard]] virtual bool RemoveImageAt(std::int32_t index) = 0;
    virtual void ClearChangedFlag() noexcept = 0;

    [[nodiscard]] virtual std::int32_t SerialNumber() const noexcept = 0;
    [[nodiscard]] virtual std::int32_t ImageCount() const noexcept = 0;
    /// The slice at `index`; out of range is a bug report and gives an empty record.
    [[nodiscard]] virtual QelImageRecord Image(std::int32_t index) const = 0;
    /// ImageCount() records in increasing z, for loops that copy what they need once.
    [[nodiscard]] virtual const QelImageRecord* Records() const noexcept = 0;
    /// (0, 0, first z); (0, 0, 0) when empty.
    [[nodiscard]] virtual QelVector3 MinPoint() const noexcept = 0;
    /// (width, height, last z): sizes in x and y, not last indices. (0, 0, 1) after the
    /// last slice was removed.
    [[nodiscard]] virtual QelVector3 MaxPoint() const noexcept = 0;
    [[nodiscard]] virtual std::int32_t Width() const noexcept = 0;
    [[nodiscard]] virtual std::int32_t Height() const noexcept = 0;
    /// x 0..width-1, y 0..height-1, z from the first to the last z truncated toward 0.
    [[nodiscard]] virtual QelIntBBox3 BoundingBox() const noexcept = 0;
    /// Of the slice inserted last.
    [[nodiscard]] virtual std::int32_t BytesPerLine() const noexcept = 0;
    [[nodiscard]] virtual std::int32_t BytesPerPixel() const noexcept = 0;
    /// The value that marks a voxel without data; meaningful when HasPadding().
    [[nodiscard]] virtual std::int32_t PaddingValue() const noexcept = 0;
    virtual void SetPaddingValue(std::int32_t value) noexcept = 0;
    [[nodiscard]] virtual bool HasPadding() const noexcept = 0;
    [[nodiscard]] virtual bool IsSigned() const noexcept = 0;

    /// The index of the slice exactly at `z`, or -1.
    [[nodiscard]] virtual std::int32_t IndexAtZ(float z) const noexcept = 0;
    /// `lower` is the last slice at or below `z` and `upper` the next one; -1 for a side
    /// that is missing. A z on the last slice gives LowerNeighborOnly.
    virtual QelNeighborCodes NeighborsAtZ(float z, std::int32_t& lower, std::int32_t& upper) const noexcept = 0;
    /// The same on the fixed-point scale, walking from `hint` (kept per caller). A
    /// missing side takes the other side's index, and the result is then
    /// BothNeighbors; an empty stack gives -1, -1 and NoNeighbors.
    virtual QelNeighborCodes NeighborsAtFixedZ(std::int32_t fixedZ, std::int32_t& lower, std::int32_t& upper,
                                               std::int32_t& hint) const = 0;

    /// Built on first demand and kept until the next change; null for an empty stack
    /// or when memory runs out. Safe to call from several threads at once.
    [[nodiscard]] virtual const QelImageStackFixedPointAccelerator* FixedPointAccelerator() const = 0;
    /// Made with the stack and never null; its tables are emptied at every change and
    /// filled again on demand.
    [[nodiscard]] virtual QelImageStackSegmentationAccelerator* SegmentationAccelerator() noexcept = 0;
    [[nodiscard]] virtual const QelImageStackSegmentationAccelerator* SegmentationAccelerator() const noexcept = 0;
    /// Deletes the fixed-point accelerator and empties the segmentation accelerator.
    virtual void DropAccelerators() noexcept = 0;

    // Kept for the caller and copied by ImportStack; nothing else reads them.
    virtual void SetValuePair(std::int32_t first, std::int32_t second) noexcept = 0;
    /// Either pointer may be null. Whether a pair was set.
    virtual bool ValuePair(std::int32_t* first, std::int32_t* second) const noexcept = 0;
    virtual void SetStoredRange(std::uint16_t low, std::uint16_t high) noexcept = 0;
    /// Either pointer may be null. Whether a range was set; until then 0 and 65535.
    virtual bool StoredRange(std::uint16_t* low, std::uint16_t* high) const noexcept = 0;

    /// Checks the invariants and reads each slice's first, middle and last byte under
    /// a fault guard. False, with the reason in `message` (may be null; `size` bytes
    /// with its terminator), for the first broken one.
    [[nodiscard]] virtual bool Verify(char* message, std::uint32_t size) const = 0;

    /// Replaces the mapping; when memory runs out the old one stays.
    virtual void SetDataMapping(float slope, float intercept) = 0;
    [[nodiscard]] virtual const QelDataMapping* DataMapping() const noexcept = 0;

protected:
    QelImageStack() = default;
};
