#pragma once

#include "base/QelIntRange.h"
#include "base/QelNoncopyable.h"
#include "bittree/QelBlockedBitTree.h"
#include "threaded/QelMTIntLoopWkr.h"

#include <atomic>
#include <cstdint>
#include <memory>

class QelImageStack;
class QelImageStackSegmentationAccelerator;
class QelMemoryManager;
class QelTPIntLoopMgr;
class QelBlockedBitTreeThresholderWkr;

/// Turns a stack of 16-bit pixels into a QelBlockedBitTree: a voxel is set when its
/// value reaches the threshold and it isn't padding. Each integer z row of the
/// accelerator's volume box is one slice, blended from the two stack slices around
/// it as the accelerator's row table says; the workers of a loop manager take
/// slices one at a time, pack them into bits with the processor's vector body and
/// copy the non-zero words into the tree. A block comes into being at its first set
/// bit, so empty space costs nothing.
///
/// The table mode (a colour/opacity source in place of the compare) is left out: the
/// library has no such source type yet. A scale other than 1.0 would threshold a
/// resampled copy of the stack, and QelImageStack has no resampling operation, so
/// New refuses it with null.
///
/// One thread drives a thresholder. The stack and the accelerator must outlive it
/// and stay unchanged while Threshold runs.
class QelBlockedBitTreeThresholder final : public QelMTIntLoopWkrFactory, QelNoncopyable {
public:
    /// An unset table-mode limit.
    static constexpr std::int32_t kUnsetLimit = INT32_MIN;

    /// `threadCount` 0 = the library's render thread count, -1 = the calling thread
    /// alone (as QelTPIntLoopMgr::New takes it). `rangeLow` and `rangeHigh` are the
    /// table mode's limits (kUnsetLimit when unset): kept for that mode, they change
    /// nothing in the compare.
    ///
    /// With `classifyNow` the accelerator's per-block value ranges are built and
    /// each block decided from them where they allow: empty, or full (every voxel
    /// reaches the threshold, no padding). Decided blocks cost no pixel reads, and a
    /// full one becomes a FullBlock() entry when all its slices are thresholded, so
    /// its bits past the volume's edges count as set. The undecided blocks make up
    /// CandidateTree(). Without it, ranges the accelerator already holds still spare
    /// the reads of blocks that can't reach the threshold, and the tree is exactly
    /// what the compare gives.
    ///
    /// Null when memory runs out, a worker can't be made, `scale` isn't 1.0, or the
    /// stack's pixels aren't 16 bits.
    [[nodiscard]] static std::unique_ptr<QelBlockedBitTreeThresholder> New(
        const QelImageStack& stack, const QelImageStackSegmentationAccelerator& accelerator, std::int32_t threshold,
        float scale, std::int32_t rangeLow, std::int32_t rangeHigh, bool classifyNow, int threadCount = 0);
    ~QelBlockedBitTreeThresholder() override;

    /// A new tree the size of the accelerator's volume box, with slices firstSlice
    /// to lastSlice (z rows of that box, clipped to it) thresholded and every other
    /// slice clear. The caller owns it and still has to run CompleteSummaryInX,
    /// CompleteSummaryInY and ComputeBlockEmptiness. Null when a worker failed (no
    /// memory for a block, no row table, a fault); the tree made is destroyed then.
    [[nodiscard]] std::unique_ptr<QelBlockedBitTree> Threshold(std::int32_t firstSlice, std::int32_t lastSlice);

    /// Where the blocks, table and flags of later trees come from; null (the
    /// start) = the library's block manager. Not owned.
    void SetTreeMemoryManager(QelMemoryManager* manager) noexcept { m_treeManager = manager; }

    /// After a pre-classification: the blocks it left undecided as full entries,
    /// their emptiness computed; null otherwise.
    [[nodiscard]] const QelBlockedBitTree* CandidateTree() const noexcept { return m_candidates.get(); }
    /// Whether the pre-classification has run.
    [[nodiscard]] bool IsClassified() const noexcept { return m_classified; }

    [[nodiscard]] std::unique_ptr<QelMTIntLoopWkr> CreateWorker() override;

private:
    friend class QelBlockedBitTreeThresholderWkr;

    // Per-block decisions of the pre-classification.
    enum Decision : std::uint8_t { kUndecided = 0, kDecidedEmpty = 1, kDecidedFull = 2 };

    QelBlockedBitTreeThresholder(const QelImageStack& stack, const QelImageStackSegmentationAccelerator& accelerator,
                                 std::int32_t threshold, std::int32_t rangeLow, std::int32_t rangeHigh) noexcept;

    // Decides what the accelerator's block ranges allow into m_decisions and builds
    // the candidate tree. False only when memory ran out; without block ranges
    // nothing is decided.
    [[nodiscard]] bool Classify();
    // The block decisions the value ranges prove; `forFull` allows full ones. Null
    // without fresh ranges.
    [[nodiscard]] std::unique_ptr<std::uint8_t[]> Decide(bool force, bool forFull) const;
    // Into m_skip the blocks the workers of this call needn't read, full ones
    // already stored in `tree`; null when they must read everything.
    void PlanSkips(QelBlockedBitTree& tree, std::int32_t firstSlice, std::int32_t lastSlice);

    std::unique_ptr<QelTPIntLoopMgr> m_loop;
    std::unique_ptr<QelBlockedBitTree> m_candidates;
    const QelImageStack& m_stack;
    const QelImageStackSegmentationAccelerator& m_accelerator;
    std::int32_t m_threshold;
    std::int32_t m_rangeLow;
    std::int32_t m_rangeHigh;
    QelIntBBox3 m_workerBox;  // the box the workers' buffers were made for
    QelMemoryManager* m_treeManager = nullptr;
    std::unique_ptr<std::uint8_t[]> m_decisions;
    bool m_classified = false;
    std::int32_t m_classifiedSerial = 0;  // the stack's serial number when classified

    // State of the running Threshold, read by the workers.
    QelBlockedBitTree* m_tree = nullptr;
    std::unique_ptr<std::uint8_t[]> m_skip;
    mutable std::atomic<bool> m_failed{false};  // written by workers, only ever to true
};
