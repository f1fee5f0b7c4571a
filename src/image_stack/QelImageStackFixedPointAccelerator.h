#pragma once

#include "base/QelArray.h"
#include "base/QelNoncopyable.h"

#include <cstdint>
#include <memory>

class QelImageStack;
class QelRasterImage;

/// One slice as the render loops see it. The loops walk these records by hand, so
/// the layout is part of the contract: keep the members and their order.
struct QelFixedPointSliceRecord {
    float Z;                     // the stack's z
    float ZToByteScale;          // 16383 / (next z - z); 0 for equal z and in the last record
    std::int32_t FixedZ;         // floor(z * scale + offset + 0.5)
    std::uint32_t GapReciprocal; // 2^32 / (next fixed z - fixed z), clamped; 0 in the last record
    const std::uint8_t* Origin;  // pixel (0, 0) of the slice; null without an image
    std::int32_t BytesPerLine;   // 0 without an image
};

/// z of a stack on an integer scale on which the largest gap between neighbouring
/// slices is exactly 65536, so that a loop steps through z in 16.16 fixed point and
/// finds the two slices around a position by walking from a hint instead of
/// searching. The first slice lies at fixed z 0; with at most 16384 slices the last
/// lies at or below 2^30.
///
/// It holds raw slice origins, so it is valid only while its stack is unchanged; the
/// stack deletes it at every change. Read-only once built: any number of threads may
/// look up at once, each with a hint of its own.
class QelImageStackFixedPointAccelerator : QelNoncopyable {
public:
    /// Records for the slices of `stack`, which must hold at least one image.
    /// Null when memory runs out.
    [[nodiscard]] static std::unique_ptr<QelImageStackFixedPointAccelerator> New(const QelImageStack& stack);
    /// Records at the given increasing z values, without images; they are filled later
    /// with UpdateRecord. At least one value.
    [[nodiscard]] static std::unique_ptr<QelImageStackFixedPointAccelerator> New(const QelArray<float>& zValues);
    /// `count` records without images from `firstZ` on, (lastZ - firstZ) / count apart.
    [[nodiscard]] static std::unique_ptr<QelImageStackFixedPointAccelerator> New(float firstZ, float lastZ,
                                                                                 std::int32_t count);

    ~QelImageStackFixedPointAccelerator();

    /// Sets the origin and pitch of record `index` from `image`; null clears them.
    /// The first image given decides BytesPerPixel. An index outside the records is a
    /// bug report.
    void UpdateRecord(std::int32_t index, const QelRasterImage* image);
    /// As above, and moves the record to `z`: the scale and every record are worked
    /// out again. The z values must stay increasing.
    void UpdateRecord(std::int32_t index, const QelRasterImage* image, float z);

    /// A position on the fixed scale, unrounded. A vector between two positions
    /// scales with Scale() alone.
    [[nodiscard]] double ToFixed(double z) const noexcept { return z * m_scale + m_offset; }
    [[nodiscard]] double Offset() const noexcept { return m_offset; }
    [[nodiscard]] double Scale() const noexcept { return m_scale; }
    [[nodiscard]] double InverseScale() const noexcept { return m_inverseScale; }
    /// Fixed z of the last slice.
    [[nodiscard]] std::int32_t LastFixedZ() const noexcept { return m_lastFixedZ; }
    /// Of the first image given; 0 until one is known.
    [[nodiscard]] std::int32_t BytesPerPixel() const noexcept { return m_bytesPerPixel; }
    [[nodiscard]] std::int32_t Count() const noexcept { return m_count; }
    [[nodiscard]] std::int32_t LastIndex() const noexcept { return m_lastIndex; }
    /// Count() records in increasing z.
    [[nodiscard]] const QelFixedPointSliceRecord* Records() const noexcept { return m_records.get(); }
    /// Unchecked: 0 <= i < Count().
    [[nodiscard]] const QelFixedPointSliceRecord& Record(std::int32_t i) const noexcept { return m_records[i]; }

    /// The gap that holds `fixedZ`. `index` is the hint on entry (0 is used when it is
    /// not below Count()) and the gap's lower slice on return, with the fixed z of its
    /// two slices; on a slice both fixed z are that slice's. -1 when `fixedZ` lies
    /// below the first slice, or at or above the last one as reached by walking up:
    /// a caller that stands in the last gap tests its own range first.
    void FindPair(std::int32_t fixedZ, std::int32_t& index, std::int32_t& upperFixedZ,
                  std::int32_t& lowerFixedZ) const noexcept;

    /// The slice origins around `fixedZ`, walking from `hint` (clamped to
    /// 0 .. Count() - 2), which is left at the gap found. `index` is the gap, or -1
    /// outside the slices and on the last slice; a missing side has a null image and
    /// fixed z -1. On the last slice both sides are the last slice.
    void FindSlices(std::int32_t fixedZ, std::int32_t& hint, std::int32_t& index,
                    const std::uint8_t*& upperImage, std::int32_t& upperFixedZ,
                    const std::uint8_t*& lowerImage, std::int32_t& lowerFixedZ) const noexcept;

    /// FindSlices for the indices alone: -1 for a missing side.
    void FindIndices(std::int32_t fixedZ, std::int32_t& hint, std::int32_t& upperIndex,
                     std::int32_t& lowerIndex) const noexcept;

private:
    QelImageStackFixedPointAccelerator() noexcept = default;

    // Room for `count` records, all empty; false when no memory can be had.
    // Every factory: `count` records, their z filled in by `fillZ`, then computed.
    template <class FillZ>
    [[nodiscard]] static std::unique_ptr<QelImageStackFixedPointAccelerator> Make(std::int64_t count, FillZ fillZ);
    [[nodiscard]] bool Allocate(std::int32_t count) noexcept;
    // Scale, offset and every record's fixed values from the records' z. False when
    // the z values break the fixed scale, which has been reported.
    [[nodiscard]] bool Compute();

    // Where fixedZ lies relative to the slices, walking from slice `i`: the gap's
    // lower index, or -1 below the first slice, or Count() - 1 at or above the last.
    [[nodiscard]] std::int32_t Locate(std::int32_t fixedZ, std::int32_t i) const noexcept;

    double m_offset = 0.0;
    double m_scale = 65536.0;
    double m_inverseScale = 1.0 / 65536.0;
    std::int32_t m_lastFixedZ = -1;
    std::int32_t m_bytesPerPixel = 0;
    std::int32_t m_count = 0;
    std::int32_t m_lastIndex = -1;
    std::unique_ptr<QelFixedPointSliceRecord[]> m_records;
};
