#include "bittree/imp/QelBlockedBitTreeThresholderWkr.h"

#include "bittree/QelBlockedBitTree.h"
#include "bittree/QelBlockedBitTreeThresholder.h"
#include "image_stack/QelImageStack.h"
#include "image_stack/QelImageStackSegmentationAccelerator.h"

#include <algorithm>
#include <new>

namespace qel::threshold {

bool BiasedThreshold(std::int32_t threshold, bool isSigned, std::int16_t& biased) noexcept
{
    const std::int32_t low = isSigned ? -32768 : 0;
    const std::int32_t high = isSigned ? 32767 : 65535;
    if (threshold > high)
        return false;
    const std::int32_t clamped = std::max(threshold, low);
    biased = static_cast<std::int16_t>(isSigned ? clamped : clamped - 32768);
    return true;
}

void MergeShifted(const std::uint32_t* source, std::int32_t count, std::int32_t bitOffset, std::uint32_t* row,
                  std::int32_t rowWords) noexcept
{
    const std::int32_t first = bitOffset >> 5;
    const std::int32_t shift = bitOffset & 31;
    for (std::int32_t k = 0; k < count; ++k) {
        const std::int32_t at = first + k;
        if (at >= rowWords)
            return;
        row[at] |= source[k] << shift;
        if (shift != 0 && at + 1 < rowWords)
            row[at + 1] |= source[k] >> (32 - shift);
    }
}

}  // namespace qel::threshold

QelBlockedBitTreeThresholderWkr::QelBlockedBitTreeThresholderWkr(const QelBlockedBitTreeThresholder& owner) noexcept
    : m_owner(owner)
{
}

std::unique_ptr<QelBlockedBitTreeThresholderWkr> QelBlockedBitTreeThresholderWkr::New(
    const QelBlockedBitTreeThresholder& owner)
{
    std::unique_ptr<QelBlockedBitTreeThresholderWkr> worker(new (std::nothrow) QelBlockedBitTreeThresholderWkr(owner));
    if (!worker)
        return nullptr;
    const QelIntBBox3& box = owner.m_workerBox;
    worker->m_width = std::max(box.Width(), 0);
    worker->m_height = std::max(box.Height(), 0);
    worker->m_rowWords = (worker->m_width + 31) / 32;
    const std::size_t words = static_cast<std::size_t>(worker->m_rowWords) * static_cast<std::size_t>(worker->m_height);
    worker->m_slice.reset(new (std::nothrow) std::uint32_t[std::max<std::size_t>(words, 1)]);
    worker->m_shift.reset(new (std::nothrow) std::uint32_t[static_cast<std::size_t>(worker->m_rowWords) + 1]);
    if (!worker->m_slice || !worker->m_shift)
        return nullptr;
    return worker;
}

bool QelBlockedBitTreeThresholderWkr::Setup()
{
    const QelImageStack& stack = m_owner.m_stack;
    const QelImageStackSegmentationAccelerator& accelerator = m_owner.m_accelerator;
    const bool isSigned = stack.IsSigned();
    m_rowFn = QelThresholdRowFor(QelBestIsa());
    m_row = QelThresholdRow{};
    m_row.Bias = isSigned ? 0 : 0x8000;
    m_row.HasPadding = stack.HasPadding();
    m_row.Padding = static_cast<std::uint16_t>(stack.PaddingValue());
    m_nothingSet = !qel::threshold::BiasedThreshold(m_owner.m_threshold, isSigned, m_row.Threshold);

    // As the accelerator places the data: slice pixel (0, 0) at the data's low corner.
    const QelIntBBox3& box = accelerator.VolumeBox();
    const QelIntBBox3 data = stack.BoundingBox();
    std::int32_t offset[3];
    accelerator.DataOffset(&offset[0], &offset[1], &offset[2]);
    const std::int64_t dataX = std::int64_t{data.X.Min} + offset[0] - box.X.Min;
    const std::int64_t dataY = std::int64_t{data.Y.Min} + offset[1] - box.Y.Min;
    const std::int64_t dataZ = std::int64_t{data.Z.Min} + offset[2] - box.Z.Min;
    const auto clip = [](std::int64_t value, std::int32_t size) {
        return static_cast<std::int32_t>(std::clamp<std::int64_t>(value, 0, size));
    };
    m_dataX = static_cast<std::int32_t>(dataX);
    m_dataY = static_cast<std::int32_t>(dataY);
    m_xBegin = clip(dataX, m_width);
    m_xEnd = clip(dataX + stack.Width(), m_width);
    m_yBegin = clip(dataY, m_height);
    m_yEnd = clip(dataY + stack.Height(), m_height);
    const std::int32_t depth = std::max(box.Depth(), 0);
    const std::int32_t rowBegin = clip(dataZ, depth);
    const std::int32_t rowEnd = clip(dataZ + data.Depth(), depth);
    m_dataRows = rowBegin < rowEnd ? QelIntRange(rowBegin, rowEnd - 1) : QelIntRange::Empty();
    m_direct = dataX == 0 && m_xEnd == m_width;
    m_bytesPerLine = stack.BytesPerLine();
    // Buffers for another box would be overrun; the owner makes new workers first.
    return box.Width() == m_width && box.Height() == m_height;
}

bool QelBlockedBitTreeThresholderWkr::Fail() noexcept
{
    m_owner.m_failed.store(true, std::memory_order_relaxed);
    return false;
}

bool QelBlockedBitTreeThresholderWkr::Process(int index, int /*threadIndex*/)
{
    // Once a slice has failed, the rest are not worth the work.
    if (m_owner.m_failed.load(std::memory_order_relaxed))
        return false;
    if (!m_slice || !m_owner.m_tree)
        return Fail();
    std::fill_n(m_slice.get(), static_cast<std::size_t>(m_rowWords) * static_cast<std::size_t>(m_height), 0u);
    if (!m_nothingSet && m_dataRows.Contains(index)) {
        const std::uint8_t* above = nullptr;
        const std::uint8_t* below = nullptr;
        const std::uint16_t fraction = m_owner.m_accelerator.RowPlanes(index, above, below);
        if (!below)
            return Fail();
        m_row.First = above;
        m_row.Second = below;
        m_row.TwoPlanes = fraction != 0;
        m_row.Weight = fraction >> 2;
        PackSlice(index);
    }
    return CopyIntoTree(index);
}

void QelBlockedBitTreeThresholderWkr::PackSlice(std::int32_t z) noexcept
{
    QelThresholdRow row = m_row;
    for (std::int32_t y = m_yBegin; y < m_yEnd; ++y)
        PackRow(y, z, row, static_cast<std::ptrdiff_t>(y - m_dataY) * m_bytesPerLine);
}

void QelBlockedBitTreeThresholderWkr::PackRow(std::int32_t y, std::int32_t z, QelThresholdRow& row,
                                              std::ptrdiff_t line) noexcept
{
    std::uint32_t* words = m_slice.get() + static_cast<std::ptrdiff_t>(y) * m_rowWords;
    const auto at = [line](const std::uint8_t* plane, std::int32_t pixel) {
        return plane ? plane + line + 2 * static_cast<std::ptrdiff_t>(pixel) : nullptr;
    };
    if (!m_direct) {
        row.First = at(m_row.First, m_xBegin - m_dataX);
        row.Second = at(m_row.Second, m_xBegin - m_dataX);
        row.Pixels = m_xEnd - m_xBegin;
        if (row.Pixels <= 0)
            return;
        m_rowFn(row, m_shift.get());
        qel::threshold::MergeShifted(m_shift.get(), (row.Pixels + 31) / 32, m_xBegin, words, m_rowWords);
        return;
    }
    // Runs of block columns that may hold set voxels; the others stay 0 unread.
    const std::uint8_t* skip = m_owner.m_skip.get();
    const QelBlockedBitTree& tree = *m_owner.m_tree;
    const std::uint8_t* skipRow =
        skip ? skip + tree.GetBlockIndex(0, static_cast<std::uint32_t>(y), static_cast<std::uint32_t>(z)) : nullptr;
    std::int32_t w = 0;
    while (w < m_rowWords) {
        if (skipRow && skipRow[w]) {
            ++w;
            continue;
        }
        std::int32_t end = w + 1;
        while (end < m_rowWords && !(skipRow && skipRow[end]))
            ++end;
        row.First = at(m_row.First, 32 * w);
        row.Second = at(m_row.Second, 32 * w);
        row.Pixels = std::min(32 * end, m_width) - 32 * w;
        m_rowFn(row, words + w);
        w = end;
    }
}

bool QelBlockedBitTreeThresholderWkr::CopyIntoTree(std::int32_t z)
{
    QelBlockedBitTree& tree = *m_owner.m_tree;
    const auto plane = static_cast<std::uint32_t>(z) & 31u;
    for (std::int32_t y0 = 0; y0 < m_height; y0 += 32) {
        const std::int32_t y1 = std::min(y0 + 32, m_height);
        for (std::int32_t w = 0; w < m_rowWords; ++w) {
            const std::uint32_t i = tree.GetBlockIndex(32u * static_cast<std::uint32_t>(w),
                                                       static_cast<std::uint32_t>(y0), static_cast<std::uint32_t>(z));
            QelBlockedBitTree::Block* block = nullptr;
            const std::uint32_t* word = m_slice.get() + static_cast<std::ptrdiff_t>(y0) * m_rowWords + w;
            for (std::int32_t y = y0; y < y1; ++y, word += m_rowWords) {
                if (*word == 0)
                    continue;
                if (!block) {
                    block = tree.GetOrCreateBlock(i);
                    if (!block)
                        return Fail();
                    // Already all set; only a decided block is full, and none is read.
                    if (block == QelBlockedBitTree::FullBlock())
                        break;
                }
                const auto local = static_cast<std::uint32_t>(y) & 31u;
                block->StoreRowBits(local, plane, *word);
                block->SummaryY[plane] &= ~(1u << local);
            }
            if (block && block != QelBlockedBitTree::FullBlock())
                tree.CompleteBlockPlaneSummaryInX(i, plane);
        }
    }
    return true;
}
