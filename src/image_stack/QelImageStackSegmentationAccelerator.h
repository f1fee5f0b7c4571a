#pragma once

#include "base/QelArray.h"
#include "base/QelIntRange.h"
#include "base/QelMatrix34.h"
#include "base/QelNoncopyable.h"
#include "threaded/QelCriticalSection.h"

#include <atomic>
#include <cstdint>
#include <memory>

class QelImageStack;

/// One integer z row of the volume: the two slices around it and the blend weight of
/// the upper one. Walked by hand in the loops that read the table: keep the members
/// and their order.
struct qel_seg_data {
    const std::uint8_t* Above;  // pixel origin of the next slice above the row's z
    const std::uint8_t* Below;  // pixel origin of the slice at or below the row's z
    std::uint16_t Fraction;     // weight of Above in 1/65536 of the gap; 0 when both are one slice
};

/// Per-row and per-block tables over a stack, for code that walks the volume by whole
/// z rows: the slices around each row with their blend weight, the slice nearest to
/// each row, and the lowest and highest value in each block of 32^3 voxels.
///
/// It owns no pixel data: the tables hold slice origins that are valid only while the
/// stack is unchanged. The stack owns one, empties it at every change and tells it of
/// the new box; the tables are filled on demand, each when it is first asked for after
/// a change. A table whose stack has moved on to another serial number is rebuilt when
/// it is next asked for, so an accelerator that hears of no changes stays correct as
/// long as the stack's box does.
///
/// Render threads call the const operations at once. A thread that finds the row table
/// fresh takes no lock; one thread builds a stale table while the others wait for it.
/// The change notes and the drops run only while no render uses the stack.
class QelImageStackSegmentationAccelerator : QelNoncopyable {
public:
    static constexpr std::int32_t kBlockShift = 5;
    static constexpr std::int32_t kBlockSize = 1 << kBlockShift;  // voxels along each side of a block

    /// All tables empty, over the stack's present box. Null when memory runs out.
    [[nodiscard]] static std::unique_ptr<QelImageStackSegmentationAccelerator> New(const QelImageStack& stack);
    ~QelImageStackSegmentationAccelerator();

    /// The slices around `row` (counted from the low end of the volume box and clamped
    /// to its rows) and the weight of `above`, after building the row table when it is
    /// missing or stale. Rows beyond the stack's ends give the end slice twice. Null
    /// planes and 0 for a stack without rows, or when the table can't be had.
    std::uint16_t RowPlanes(std::int32_t row, const std::uint8_t*& above, const std::uint8_t*& below) const;
    /// RowPlanes without the freshness test and the clamp, for callers that already
    /// hold a fresh table: 0 <= row < the box's depth.
    std::uint16_t RowAt(std::int32_t row, const std::uint8_t*& above, const std::uint8_t*& below) const noexcept
    {
        const qel_seg_data& record = m_rows.Data()[row];
        above = record.Above;
        below = record.Below;
        return record.Fraction;
    }
    [[nodiscard]] bool HasRowTable() const noexcept { return m_rows.Count() != 0; }
    /// Records of the row table as built; 0 without one.
    [[nodiscard]] std::int32_t RowCount() const noexcept { return m_rows.Count(); }

    /// The slice nearest to `row` (clamped as in RowPlanes), built on demand like the
    /// row table; null for a stack without rows.
    [[nodiscard]] const std::uint8_t* NearestPlane(std::int32_t row) const;

    /// Two values per block, lowest then highest (16-bit patterns, ordered as signed
    /// values on a signed stack), and in `paddingFlags` one byte per block, 1 where the
    /// block holds the padding value. Block (bx, by, bz) is element
    /// (bz * BlocksY() + by) * BlocksX() + bx. A block without data keeps lowest above
    /// highest. With `force` the tables are built first when missing or stale. Null,
    /// with null flags, when there are none: the caller works without them. Only stacks
    /// of 2-byte pixels have them.
    [[nodiscard]] const std::uint16_t* BlockValues(bool force, const std::uint8_t*& paddingFlags) const;
    [[nodiscard]] std::int32_t BlocksX() const noexcept { return BlockCount(m_box.Width()); }
    [[nodiscard]] std::int32_t BlocksY() const noexcept { return BlockCount(m_box.Height()); }
    [[nodiscard]] std::int32_t BlocksZ() const noexcept { return BlockCount(m_depth); }

    /// Where the stack's data lies in the volume; any pointer may be null.
    void DataOffset(std::int32_t* x, std::int32_t* y, std::int32_t* z) const noexcept;
    [[nodiscard]] const QelMatrix34& VolumeTransform() const noexcept { return m_volumeTransform; }
    /// The stack's box when it last told of a change.
    [[nodiscard]] const QelIntBBox3& VolumeBox() const noexcept { return m_box; }

    /// Deletes the block tables and the row table, each under its lock.
    void DropTables() noexcept;
    /// Deletes the row table without a lock: only while nobody reads it.
    void DropRowTable() noexcept;

    // The stack's notes of a change. The serial needs no keeping: freshness is tested
    // against the stack's own serial number.
    void ImageInserted(float z, std::int32_t index, std::int32_t serial) noexcept;
    void ImageReplaced(float z, std::int32_t index, std::int32_t serial) noexcept;
    void Rebuild(std::int32_t serial) noexcept;

private:
    // One table of T per integer z row, published by the stack's serial number it was
    // built for, stored last with release ordering: a reader that sees the present
    // serial sees the whole table. Written only under the row lock; a stale table is
    // overwritten only when nobody may read it, since no reader passes the serial test
    // for it.
    template <class T>
    class RowTable {
    public:
        // The table when built for `serial` with `depth` rows, else null; no lock.
        [[nodiscard]] const T* Fresh(std::int32_t serial, std::int32_t depth) const noexcept
        {
            if (m_serial.load(std::memory_order_acquire) != serial)
                return nullptr;
            const T* rows = m_data.load(std::memory_order_relaxed);
            return rows && m_count.load(std::memory_order_relaxed) == depth ? rows : nullptr;
        }
        // `depth` rows, cleared, handed to fill(rows) and published for `serial`; null
        // when memory runs out.
        template <class Fill>
        const T* Publish(std::int32_t serial, std::int32_t depth, Fill fill);
        [[nodiscard]] const T* Data() const noexcept { return m_data.load(std::memory_order_relaxed); }
        [[nodiscard]] std::int32_t Count() const noexcept
        {
            return m_data.load(std::memory_order_acquire) ? m_count.load(std::memory_order_relaxed) : 0;
        }
        void Drop() noexcept;

    private:
        std::unique_ptr<QelArray<T>> m_table;
        std::atomic<const T*> m_data{nullptr};
        std::atomic<std::int32_t> m_count{0};
        std::atomic<std::int32_t> m_serial{0};
    };

    explicit QelImageStackSegmentationAccelerator(const QelImageStack& stack) noexcept;

    [[nodiscard]] static std::int32_t BlockCount(std::int32_t voxels) noexcept
    {
        return voxels <= 0 ? 0 : (voxels + kBlockSize - 1) >> kBlockShift;
    }
    void TakeStackBox() noexcept;

    // The tables when fresh for the stack's present serial number, else null; no lock.
    [[nodiscard]] const qel_seg_data* FreshRows() const noexcept;
    [[nodiscard]] const std::uint8_t* const* FreshNearest() const noexcept;
    // Build under the row lock unless another thread did meanwhile; null when there
    // are no rows or no memory.
    [[nodiscard]] const qel_seg_data* BuildRows() const;
    [[nodiscard]] const std::uint8_t* const* BuildNearest() const;
    // Calls visit(row, above, below, fraction) for each row of the box that the stack
    // covers; none for an empty stack.
    template <class Visit>
    void WalkRows(std::int32_t depth, Visit visit) const;

    [[nodiscard]] bool BlocksFresh() const noexcept;
    // Under the block lock. False, with both tables gone, when they can't be had.
    [[nodiscard]] bool BuildBlocks() const;
    void DropBlockTables() const noexcept;

    // Written only under the block lock.
    mutable std::unique_ptr<QelArray<std::uint16_t>> m_blockValues;
    mutable std::unique_ptr<QelArray<std::uint8_t>> m_blockPadding;
    mutable std::int32_t m_blockSerial = 0;
    mutable RowTable<qel_seg_data> m_rows;
    mutable RowTable<const std::uint8_t*> m_nearest;
    mutable QelCriticalSection m_rowLock;
    mutable QelCriticalSection m_blockLock;
    const QelImageStack* m_stack;
    QelIntBBox3 m_box;
    std::int32_t m_depth = 0;  // rows of m_box; negative for a broken box, which the table reports
    std::int32_t m_dataOffset[3] = {0, 0, 0};
    QelMatrix34 m_volumeTransform;
};
