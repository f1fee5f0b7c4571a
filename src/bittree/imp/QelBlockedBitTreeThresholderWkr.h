#pragma once

#include "base/QelIntRange.h"
#include "base/QelNoncopyable.h"
#include "bittree/imp/QelThresholdRow.h"
#include "threaded/QelMTIntLoopWkr.h"

#include <cstdint>
#include <memory>

class QelBlockedBitTreeThresholder;

namespace qel::threshold {

/// `threshold` on the signed scale of QelThresholdRow (biased by -32768 for an
/// unsigned stack), clamped into the pixel range; false when it lies above the range,
/// so that no pixel can reach it.
[[nodiscard]] bool BiasedThreshold(std::int32_t threshold, bool isSigned, std::int16_t& biased) noexcept;

/// ORs `count` source words into `row` from bit `bitOffset` on. Bits that would land
/// past `rowWords` words are dropped.
void MergeShifted(const std::uint32_t* source, std::int32_t count, std::int32_t bitOffset, std::uint32_t* row,
                  std::int32_t rowWords) noexcept;

}  // namespace qel::threshold

/// One thread's slices: packs a slice into its bit buffer, a row at a time, and
/// copies the non-zero words into the owner's tree. Its buffers are made with it, for
/// the volume box the owner had then.
class QelBlockedBitTreeThresholderWkr final : public QelMTIntLoopWkr, QelNoncopyable {
public:
    /// Null when a buffer can't be had.
    [[nodiscard]] static std::unique_ptr<QelBlockedBitTreeThresholderWkr> New(const QelBlockedBitTreeThresholder& owner);

    bool Setup() override;
    bool Process(int index, int threadIndex) override;
    bool Finish() override { return true; }

private:
    explicit QelBlockedBitTreeThresholderWkr(const QelBlockedBitTreeThresholder& owner) noexcept;

    void PackSlice(std::int32_t z) noexcept;
    void PackRow(std::int32_t y, std::int32_t z, QelThresholdRow& row, std::ptrdiff_t line) noexcept;
    [[nodiscard]] bool CopyIntoTree(std::int32_t z);
    bool Fail() noexcept;

    const QelBlockedBitTreeThresholder& m_owner;
    std::int32_t m_width = 0;
    std::int32_t m_height = 0;
    std::int32_t m_rowWords = 0;              // ceil(width / 32)
    std::unique_ptr<std::uint32_t[]> m_slice;  // rowWords x height, row y from word y x rowWords
    std::unique_ptr<std::uint32_t[]> m_shift;  // rowWords + 1, when the data lies offset in the box

    // Taken from the stack and the accelerator in Setup.
    QelThresholdRowFn m_rowFn = nullptr;
    QelThresholdRow m_row;        // the per-stack fields; the planes are set per slice
    bool m_nothingSet = false;    // the threshold lies above the pixel range
    std::int32_t m_dataX = 0;     // the data's place in the box
    std::int32_t m_dataY = 0;
    QelIntRange m_dataRows;       // rows of the box that hold data
    std::int32_t m_xBegin = 0;    // columns and lines of the box that hold data
    std::int32_t m_xEnd = 0;
    std::int32_t m_yBegin = 0;
    std::int32_t m_yEnd = 0;
    bool m_direct = false;        // the data fills each row of the box from x 0: no shift buffer
    std::ptrdiff_t m_bytesPerLine = 0;
};
