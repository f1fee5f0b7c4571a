#include "image_stack/QelImageStackSegmentationAccelerator.h"

#include "image_stack/QelImageStack.h"
#include "image_stack/QelImageStackFixedPointAccelerator.h"
#include "threaded/QelFunctionThreader.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstring>
#include <new>

namespace {

// A row's fixed z, rounded as the fixed-point accelerator rounds its slices, so that a
// row on a slice lands on it. Rows far outside a densely spaced stack would leave the
// 32-bit range; held at its ends they still lie beyond the end slice.
std::int32_t RowFixedZ(double fixedZ) noexcept
{
    const double rounded = std::floor(fixedZ + 0.5);
    return static_cast<std::int32_t>(std::clamp(rounded, -2147483648.0, 2147483647.0));
}

// What one slab of 32 rows needs to widen its blocks' ranges; every range is in voxels
// relative to the low corner of the volume box.
struct SlabScan {
    const QelImageStackSegmentationAccelerator* Accelerator;
    std::uint16_t* Values;
    std::uint8_t* Padding;
    std::int32_t BlocksX;
    std::int32_t BlocksY;
    std::int32_t LastBlockSpan;  // voxels of the last x block
    QelIntRange Rows;            // rows that hold data
    QelIntRange Ys;
    QelIntRange Xs;
    std::int32_t PixelX0;  // slice pixel of volume x 0, and of volume y 0
    std::int32_t PixelY0;
    std::ptrdiff_t BytesPerLine;
    bool HasPadding;
    std::uint16_t PaddingValue;
};

// Values are compared as Value (signed or unsigned 16 bits) and stored as bit patterns.
template <class Value>
void ScanSlab(int bz, void* argument)
{
    constexpr std::int32_t kShift = QelImageStackSegmentationAccelerator::kBlockShift;
    constexpr std::int32_t kSize = QelImageStackSegmentationAccelerator::kBlockSize;
    const SlabScan& scan = *static_cast<const SlabScan*>(argument);
    const std::int32_t firstRow = std::max(bz << kShift, scan.Rows.Min);
    const std::int32_t lastRow = std::min((bz << kShift) + kSize - 1, scan.Rows.Max);
    const std::int32_t lastBlock = scan.BlocksX - 1;

    for (std::int32_t row = firstRow; row <= lastRow; ++row) {
        const std::uint8_t* planes[2];
        (void)scan.Accelerator->RowAt(row, planes[0], planes[1]);
        if (!planes[0] || !planes[1])
            continue;
        // A slice blended with itself adds nothing the first reading didn't.
        const int planeCount = planes[0] == planes[1] ? 1 : 2;
        for (std::int32_t y = scan.Ys.Min; y <= scan.Ys.Max; ++y) {
            const std::ptrdiff_t block0 =
                (std::ptrdiff_t{bz} * scan.BlocksY + (y >> kShift)) * std::ptrdiff_t{scan.BlocksX};
            std::uint16_t* values = scan.Values + 2 * block0;
            std::uint8_t* padding = scan.Padding + block0;
            const std::ptrdiff_t line = std::ptrdiff_t{y + scan.PixelY0} * scan.BytesPerLine;
            for (std::int32_t bx = 0; bx <= lastBlock; ++bx) {
                const std::int32_t x0 = bx << kShift;
                const std::int32_t begin = std::max(x0, scan.Xs.Min);
                const std::int32_t end = std::min(x0 + (bx == lastBlock ? scan.LastBlockSpan : kSize), scan.Xs.Max + 1);
                if (begin >= end)
                    continue;
                auto low = static_cast<Value>(values[2 * bx]);
                auto high = static_cast<Value>(values[2 * bx + 1]);
                bool padded = false;
                for (int p = 0; p < planeCount; ++p) {
                    const std::uint8_t* pixels = planes[p] + line + std::ptrdiff_t{scan.PixelX0} * 2;
                    for (std::int32_t x = begin; x < end; ++x) {
                        std::uint16_t raw;
                        std::memcpy(&raw, pixels + std::ptrdiff_t{x} * 2, sizeof raw);
                        // Padding is compared as 16 bits, as the samplers compare it.
                        if (scan.HasPadding && raw == scan.PaddingValue) {
                            padded = true;
                            continue;
                        }
                        const auto value = static_cast<Value>(raw);
                        low = std::min(low, value);
                        high = std::max(high, value);
                    }
                }
                values[2 * bx] = static_cast<std::uint16_t>(low);
                values[2 * bx + 1] = static_cast<std::uint16_t>(high);
                if (padded)
                    padding[bx] = 1;
            }
        }
    }
}

// Volume-relative voxels [first, first + length) clipped to [0, size).
QelIntRange Clip(std::int64_t first, std::int64_t length, std::int32_t size) noexcept
{
    const std::int64_t begin = std::max<std::int64_t>(first, 0);
    const std::int64_t end = std::min<std::int64_t>(first + length, size);
    return begin < end ? QelIntRange(static_cast<std::int32_t>(begin), static_cast<std::int32_t>(end - 1))
                       : QelIntRange::Empty();
}

}  // namespace

std::unique_ptr<QelImageStackSegmentationAccelerator> QelImageStackSegmentationAccelerator::New(
    const QelImageStack& stack)
{
    return std::unique_ptr<QelImageStackSegmentationAccelerator>(new (std::nothrow)
                                                                     QelImageStackSegmentationAccelerator(stack));
}

QelImageStackSegmentationAccelerator::QelImageStackSegmentationAccelerator(const QelImageStack& stack) noexcept
    : m_stack(&stack)
{
    TakeStackBox();
}

QelImageStackSegmentationAccelerator::~QelImageStackSegmentationAccelerator() = default;

void QelImageStackSegmentationAccelerator::TakeStackBox() noexcept
{
    m_box = m_stack->BoundingBox();
    // Not QelIntRange::Length, which would hide a box turned inside out as an empty one.
    const std::int64_t depth = m_box.Z.IsEmpty() ? 0 : std::int64_t{m_box.Z.Max} - m_box.Z.Min + 1;
    m_depth = static_cast<std::int32_t>(std::clamp<std::int64_t>(depth, QelIntRange::kLowest, QelIntRange::kHighest));
}

void QelImageStackSegmentationAccelerator::DataOffset(std::int32_t* x, std::int32_t* y, std::int32_t* z) const noexcept
{
    if (x)
        *x = m_dataOffset[0];
    if (y)
        *y = m_dataOffset[1];
    if (z)
        *z = m_dataOffset[2];
}

// ---- Rows ----

template <class Visit>
void QelImageStackSegmentationAccelerator::WalkRows(std::int32_t depth, Visit visit) const
{
    const QelImageStackFixedPointAccelerator* fixedPoint =
        m_stack->ImageCount() > 0 ? m_stack->FixedPointAccelerator() : nullptr;
    if (!fixedPoint)
        return;
    std::int32_t hint = 0;  // rows climb, so the pair is found one step from the last
    for (std::int32_t row = 0; row < depth; ++row) {
        const std::int64_t z = std::int64_t{m_box.Z.Min} - m_dataOffset[2] + row;
        const std::int32_t fixedZ = RowFixedZ(fixedPoint->ToFixed(static_cast<double>(z)));
        std::int32_t index = -1;
        const std::uint8_t* above = nullptr;
        const std::uint8_t* below = nullptr;
        std::int32_t aboveFixedZ = -1;
        std::int32_t belowFixedZ = -1;
        fixedPoint->FindSlices(fixedZ, hint, index, above, aboveFixedZ, below, belowFixedZ);
        // Beyond the ends the end slice stands in for the missing side.
        if (!above)
            above = below;
        if (!below)
            below = above;
        if (index < 0)
            index = 0;
        std::uint16_t fraction = 0;
        if (above != below) {
            // 32-bit unsigned on purpose: the product of a position inside the gap and
            // the gap's reciprocal stays below 2^32, and its top half is the weight.
            const std::uint32_t inGap = static_cast<std::uint32_t>(fixedZ) - static_cast<std::uint32_t>(belowFixedZ);
            fraction = static_cast<std::uint16_t>((inGap * fixedPoint->Record(index).GapReciprocal) >> 16);
        }
        visit(row, above, below, fraction);
    }
}

template <class T>
template <class Fill>
const T* QelImageStackSegmentationAccelerator::RowTable<T>::Publish(std::int32_t serial, std::int32_t depth, Fill fill)
{
    if (!m_table || m_table->Length() != depth) {
        std::unique_ptr<QelArray<T>> table = QelArray<T>::New(depth, T{}, nullptr);
        if (!table)
            return nullptr;
        m_data.store(nullptr, std::memory_order_relaxed);
        m_table = std::move(table);
    } else {
        std::fill_n(m_table->Data(), depth, T{});
    }
    T* rows = m_table->Data();
    fill(rows);
    m_data.store(rows, std::memory_order_relaxed);
    m_count.store(depth, std::memory_order_relaxed);
    m_serial.store(serial, std::memory_order_release);
    return rows;
}

template <class T>
void QelImageStackSegmentationAccelerator::RowTable<T>::Drop() noexcept
{
    m_data.store(nullptr, std::memory_order_relaxed);
    m_count.store(0, std::memory_order_relaxed);
    m_table.reset();
}

const qel_seg_data* QelImageStackSegmentationAccelerator::FreshRows() const noexcept
{
    return m_rows.Fresh(m_stack->SerialNumber(), m_depth);
}

const qel_seg_data* QelImageStackSegmentationAccelerator::BuildRows() const
{
    QelAutoLockCriticalSection lock(m_rowLock);
    if (const qel_seg_data* rows = FreshRows())
        return rows;
    const std::int32_t depth = m_depth;
    return m_rows.Publish(m_stack->SerialNumber(), depth, [this, depth](qel_seg_data* rows) {
        WalkRows(depth, [rows](std::int32_t row, const std::uint8_t* above, const std::uint8_t* below,
                               std::uint16_t fraction) { rows[row] = {above, below, fraction}; });
    });
}

std::uint16_t QelImageStackSegmentationAccelerator::RowPlanes(std::int32_t row, const std::uint8_t*& above,
                                                              const std::uint8_t*& below) const
{
    const qel_seg_data* rows = FreshRows();
    if (!rows)
        rows = BuildRows();
    if (!rows) {
        above = below = nullptr;
        return 0;
    }
    const qel_seg_data& record = rows[std::clamp(row, 0, m_depth - 1)];
    above = record.Above;
    below = record.Below;
    return record.Fraction;
}

const std::uint8_t* const* QelImageStackSegmentationAccelerator::FreshNearest() const noexcept
{
    return m_nearest.Fresh(m_stack->SerialNumber(), m_depth);
}

const std::uint8_t* const* QelImageStackSegmentationAccelerator::BuildNearest() const
{
    QelAutoLockCriticalSection lock(m_rowLock);
    if (const std::uint8_t* const* nearest = FreshNearest())
        return nearest;
    const std::int32_t depth = m_depth;
    return m_nearest.Publish(m_stack->SerialNumber(), depth, [this, depth](const std::uint8_t** nearest) {
        WalkRows(depth, [nearest](std::int32_t row, const std::uint8_t* above, const std::uint8_t* below,
                                  std::uint16_t fraction) { nearest[row] = fraction > 0x7FFF ? above : below; });
    });
}

const std::uint8_t* QelImageStackSegmentationAccelerator::NearestPlane(std::int32_t row) const
{
    const std::uint8_t* const* nearest = FreshNearest();
    if (!nearest)
        nearest = BuildNearest();
    return nearest ? nearest[std::clamp(row, 0, m_depth - 1)] : nullptr;
}

// ---- Blocks ----

bool QelImageStackSegmentationAccelerator::BlocksFresh() const noexcept
{
    return m_blockValues && m_blockPadding && m_blockSerial == m_stack->SerialNumber();
}

void QelImageStackSegmentationAccelerator::DropBlockTables() const noexcept
{
    m_blockValues.reset();
    m_blockPadding.reset();
}

bool QelImageStackSegmentationAccelerator::BuildBlocks() const
{
    DropBlockTables();
    const std::int32_t serial = m_stack->SerialNumber();
    if (m_stack->ImageCount() == 0 || m_stack->BytesPerPixel() != 2)
        return false;
    const std::int64_t blocks = std::int64_t{BlocksX()} * BlocksY() * BlocksZ();
    if (blocks <= 0 || 2 * blocks > QelIntRange::kHighest)
        return false;

    const bool isSigned = m_stack->IsSigned();
    // Lowest above highest: a block without data holds no value.
    const std::uint16_t lowest = isSigned ? 0x7FFF : 0xFFFF;
    const std::uint16_t highest = isSigned ? 0x8000 : 0x0000;
    std::unique_ptr<QelArray<std::uint16_t>> values =
        QelArray<std::uint16_t>::New(static_cast<int>(2 * blocks), highest, nullptr);
    std::unique_ptr<QelArray<std::uint8_t>> padding =
        QelArray<std::uint8_t>::New(static_cast<int>(blocks), 0, nullptr);
    if (!values || !padding)
        return false;
    std::uint16_t* value = values->Data();
    for (std::int64_t block = 0; block < blocks; ++block)
        value[2 * block] = lowest;

    // The slabs read the row table without its lock, so it must stand before they run.
    const std::uint8_t* above = nullptr;
    const std::uint8_t* below = nullptr;
    (void)RowPlanes(0, above, below);
    if (!FreshRows())
        return false;

    const QelIntBBox3 data = m_stack->BoundingBox();
    const std::int32_t width = m_box.Width();
    SlabScan scan{};
    scan.Accelerator = this;
    scan.Values = value;
    scan.Padding = padding->Data();
    scan.BlocksX = BlocksX();
    scan.BlocksY = BlocksY();
    scan.LastBlockSpan = (width & (kBlockSize - 1)) != 0 ? (width & (kBlockSize - 1)) : kBlockSize;
    // The data's place in the volume box; slice pixel (0, 0) lies at the data's low corner.
    const std::int64_t dataX = std::int64_t{data.X.Min} + m_dataOffset[0] - m_box.X.Min;
    const std::int64_t dataY = std::int64_t{data.Y.Min} + m_dataOffset[1] - m_box.Y.Min;
    const std::int64_t dataZ = std::int64_t{data.Z.Min} + m_dataOffset[2] - m_box.Z.Min;
    scan.Xs = Clip(dataX, m_stack->Width(), width);
    scan.Ys = Clip(dataY, m_stack->Height(), m_box.Height());
    scan.Rows = Clip(dataZ, data.Depth(), m_depth);
    scan.PixelX0 = static_cast<std::int32_t>(-dataX);
    scan.PixelY0 = static_cast<std::int32_t>(-dataY);
    scan.BytesPerLine = m_stack->BytesPerLine();
    scan.HasPadding = m_stack->HasPadding();
    scan.PaddingValue = static_cast<std::uint16_t>(m_stack->PaddingValue());
    if (scan.Xs.IsEmpty() || scan.Ys.IsEmpty() || scan.Rows.IsEmpty())
        return false;

    // Each slab writes the blocks of its own z, so the threads share nothing.
    std::unique_ptr<QelFunctionThreader> threader = QelFunctionThreader::New(0);
    if (!threader)
        return false;
    const QelThreadedFunction job = isSigned ? ScanSlab<std::int16_t> : ScanSlab<std::uint16_t>;
    if (!threader->DoJob(job, &scan, QelIntRange(0, BlocksZ() - 1)))
        return false;

    m_blockValues = std::move(values);
    m_blockPadding = std::move(padding);
    m_blockSerial = serial;
    return true;
}

const std::uint16_t* QelImageStackSegmentationAccelerator::BlockValues(bool force,
                                                                       const std::uint8_t*& paddingFlags) const
{
    QelAutoLockCriticalSection lock(m_blockLock);
    paddingFlags = nullptr;
    if (!BlocksFresh() && !(force && BuildBlocks()))
        return nullptr;
    paddingFlags = m_blockPadding->Data();
    return m_blockValues->Data();
}

// ---- Changes ----

void QelImageStackSegmentationAccelerator::DropTables() noexcept
{
    {
        QelAutoLockCriticalSection lock(m_blockLock);
        DropBlockTables();
    }
    QelAutoLockCriticalSection lock(m_rowLock);
    DropRowTable();
}

void QelImageStackSegmentationAccelerator::DropRowTable() noexcept
{
    m_rows.Drop();
}

void QelImageStackSegmentationAccelerator::ImageInserted(float /*z*/, std::int32_t /*index*/,
                                                         std::int32_t /*serial*/) noexcept
{
    TakeStackBox();
    DropRowTable();
}

void QelImageStackSegmentationAccelerator::ImageReplaced(float /*z*/, std::int32_t /*index*/,
                                                         std::int32_t /*serial*/) noexcept
{
    // z and the box stay, and the drop before the change emptied the tables.
}

void QelImageStackSegmentationAccelerator::Rebuild(std::int32_t /*serial*/) noexcept
{
    TakeStackBox();
}
