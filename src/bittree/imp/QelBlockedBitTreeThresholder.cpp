#include "bittree/QelBlockedBitTreeThresholder.h"

#include "bittree/imp/QelBlockedBitTreeThresholderWkr.h"
#include "image_stack/QelImageStack.h"
#include "image_stack/QelImageStackSegmentationAccelerator.h"
#include "threaded/QelTPIntLoopMgr.h"

#include <algorithm>
#include <new>

QelBlockedBitTreeThresholder::QelBlockedBitTreeThresholder(const QelImageStack& stack,
                                                           const QelImageStackSegmentationAccelerator& accelerator,
                                                           std::int32_t threshold, std::int32_t rangeLow,
                                                           std::int32_t rangeHigh) noexcept
    : m_stack(stack),
      m_accelerator(accelerator),
      m_threshold(threshold),
      m_rangeLow(rangeLow),
      m_rangeHigh(rangeHigh),
      m_workerBox(accelerator.VolumeBox())
{
}

QelBlockedBitTreeThresholder::~QelBlockedBitTreeThresholder() = default;

std::unique_ptr<QelBlockedBitTreeThresholder> QelBlockedBitTreeThresholder::New(
    const QelImageStack& stack, const QelImageStackSegmentationAccelerator& accelerator, std::int32_t threshold,
    float scale, std::int32_t rangeLow, std::int32_t rangeHigh, bool classifyNow, int threadCount)
{
    // A rescaled copy would need a resampling operation the stack doesn't offer.
    if (scale != 1.0f)
        return nullptr;
    if (stack.ImageCount() > 0 && stack.BytesPerPixel() != 2)
        return nullptr;
    std::unique_ptr<QelBlockedBitTreeThresholder> thresholder(
        new (std::nothrow) QelBlockedBitTreeThresholder(stack, accelerator, threshold, rangeLow, rangeHigh));
    if (!thresholder)
        return nullptr;
    thresholder->m_loop = QelTPIntLoopMgr::New(QelTPIntLoopMgr::kDynamic, threadCount);
    if (!thresholder->m_loop)
        return nullptr;
    thresholder->m_loop->SetFactory(thresholder.get());
    if (!thresholder->m_loop->CreateWorkers())
        return nullptr;
    if (classifyNow && !thresholder->Classify())
        return nullptr;
    return thresholder;
}

std::unique_ptr<QelMTIntLoopWkr> QelBlockedBitTreeThresholder::CreateWorker()
{
    return QelBlockedBitTreeThresholderWkr::New(*this);
}

std::unique_ptr<std::uint8_t[]> QelBlockedBitTreeThresholder::Decide(bool force, bool forFull) const
{
    const std::uint8_t* padding = nullptr;
    const std::uint16_t* values = m_accelerator.BlockValues(force, padding);
    if (!values || !padding)
        return nullptr;
    const QelIntBBox3& box = m_accelerator.VolumeBox();
    const std::int32_t blocksX = m_accelerator.BlocksX();
    const std::int32_t blocksY = m_accelerator.BlocksY();
    const std::int32_t blocksZ = m_accelerator.BlocksZ();
    const std::size_t count = static_cast<std::size_t>(blocksX) * static_cast<std::size_t>(blocksY) *
                              static_cast<std::size_t>(blocksZ);
    std::unique_ptr<std::uint8_t[]> decisions(new (std::nothrow) std::uint8_t[std::max<std::size_t>(count, 1)]);
    if (!decisions)
        return nullptr;

    const bool isSigned = m_stack.IsSigned();
    const std::uint16_t bias = isSigned ? 0 : 0x8000;
    std::int16_t threshold = 0;
    const bool reachable = qel::threshold::BiasedThreshold(m_threshold, isSigned, threshold);
    // A full block is only sound where the data fills it: voxels outside the data
    // stay clear whatever their neighbours hold.
    std::int32_t offset[3];
    m_accelerator.DataOffset(&offset[0], &offset[1], &offset[2]);
    const QelIntBBox3 data = m_stack.BoundingBox();
    const bool dataFillsBox = offset[0] == 0 && offset[1] == 0 && offset[2] == 0 && data.X.Equals(box.X) &&
                              data.Y.Equals(box.Y) && data.Z.Equals(box.Z);
    // The slab that sticks out of the volume is left to the first test alone.
    const std::int32_t partialSlab = box.Depth() % 32 != 0 ? blocksZ - 1 : -1;

    for (std::size_t i = 0; i < count; ++i) {
        // On the row body's signed scale: every blend of a block's rows lies between
        // its lowest and highest sample, so the ranges bound the blended values too.
        const auto low = static_cast<std::int16_t>(values[2 * i] ^ bias);
        const auto high = static_cast<std::int16_t>(values[2 * i + 1] ^ bias);
        const bool decidable = static_cast<std::int32_t>(i / (static_cast<std::size_t>(blocksX) * blocksY)) !=
                               partialSlab;
        std::uint8_t decision = kUndecided;
        if (low > high)
            decision = kDecidedEmpty;  // padding or no data only
        else if (decidable && (!reachable || high < threshold))
            decision = kDecidedEmpty;
        else if (decidable && forFull && dataFillsBox && low >= threshold && padding[i] == 0)
            decision = kDecidedFull;
        decisions[i] = decision;
    }
    return decisions;
}

bool QelBlockedBitTreeThresholder::Classify()
{
    std::unique_ptr<std::uint8_t[]> decisions = Decide(true, true);
    if (!decisions)
        return true;  // without block ranges every block is read
    std::unique_ptr<QelBlockedBitTree> candidates = QelBlockedBitTree::New(m_accelerator.VolumeBox(), m_treeManager);
    if (!candidates)
        return false;
    for (std::uint32_t i = 0; i < candidates->GetBlockCount(); ++i) {
        if (decisions[i] == kUndecided)
            candidates->Blocks()[i].store(QelBlockedBitTree::FullBlock(), std::memory_order_relaxed);
    }
    candidates->ComputeBlockEmptiness();
    m_candidates = std::move(candidates);
    m_decisions = std::move(decisions);
    m_classified = true;
    m_classifiedSerial = m_stack.SerialNumber();
    return true;
}

void QelBlockedBitTreeThresholder::PlanSkips(QelBlockedBitTree& tree, std::int32_t firstSlice,
                                             std::int32_t lastSlice)
{
    m_skip.reset();
    std::unique_ptr<std::uint8_t[]> proven;
    // Without a pre-classification, ranges that happen to be at hand still spare
    // the reads of blocks that can't reach the threshold; no block is made full, so
    // the tree holds exactly what the compare gives.
    // The pre-classification holds for the stack it was made from: after any change
    // its decisions may be wrong or too few for the tree.
    const bool classified = m_classified && m_stack.SerialNumber() == m_classifiedSerial;
    const std::uint8_t* decisions = classified ? m_decisions.get() : (proven = Decide(false, false)).get();
    if (!decisions)
        return;
    const std::uint32_t count = tree.GetBlockCount();
    std::unique_ptr<std::uint8_t[]> skip(new (std::nothrow) std::uint8_t[std::max<std::uint32_t>(count, 1)]);
    if (!skip)
        return;  // the workers read everything instead
    const auto lastRow = static_cast<std::uint32_t>(tree.Depth() - 1);
    for (std::uint32_t i = 0; i < count; ++i) {
        std::uint8_t skipIt = 0;
        if (decisions[i] == kDecidedEmpty) {
            skipIt = 1;
        } else if (decisions[i] == kDecidedFull) {
            // Full only when all its slices are thresholded in this call.
            std::uint32_t x0, y0, z0;
            tree.GetBlockOrigin(i, x0, y0, z0);
            const std::uint32_t z1 = std::min(z0 + 31, lastRow);
            if (z0 >= static_cast<std::uint32_t>(firstSlice) && z1 <= static_cast<std::uint32_t>(lastSlice)) {
                tree.Blocks()[i].store(QelBlockedBitTree::FullBlock(), std::memory_order_relaxed);
                skipIt = 1;
            }
        }
        skip[i] = skipIt;
    }
    m_skip = std::move(skip);
}

std::unique_ptr<QelBlockedBitTree> QelBlockedBitTreeThresholder::Threshold(std::int32_t firstSlice,
                                                                         std::int32_t lastSlice)
{
    const QelIntBBox3 box = m_accelerator.VolumeBox();
    std::unique_ptr<QelBlockedBitTree> tree = QelBlockedBitTree::New(box, m_treeManager);
    if (!tree)
        return nullptr;
    if (m_stack.ImageCount() > 0 && m_stack.BytesPerPixel() != 2)
        return nullptr;
    // The workers' buffers are sized for the box; a stack that has grown needs new ones.
    if (!box.Equals(m_workerBox)) {
        m_workerBox = box;
        if (!m_loop->CreateWorkers())
            return nullptr;
    }
    firstSlice = std::max(firstSlice, 0);
    lastSlice = static_cast<std::int32_t>(std::min<std::int64_t>(lastSlice, std::int64_t{tree->Depth()} - 1));
    std::int16_t threshold = 0;
    if (firstSlice > lastSlice || tree->Width() == 0 || tree->Height() == 0 ||
        !qel::threshold::BiasedThreshold(m_threshold, m_stack.IsSigned(), threshold))
        return tree;
    // The workers find the row table built, so none of them waits for another's build.
    const std::uint8_t* above = nullptr;
    const std::uint8_t* below = nullptr;
    (void)m_accelerator.RowPlanes(0, above, below);
    if (!below)
        return nullptr;
    PlanSkips(*tree, firstSlice, lastSlice);

    m_tree = tree.get();
    m_failed.store(false, std::memory_order_relaxed);
    const bool finished = m_loop->DoLoop(QelIntRange(firstSlice, lastSlice));
    m_tree = nullptr;
    m_skip.reset();
    if (!finished || m_failed.load(std::memory_order_relaxed))
        return nullptr;
    return tree;
}
