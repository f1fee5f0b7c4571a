#include "threaded/QelMTIntLoopMgrStepAdaptor.h"

#include "base/QelDebug.h"
#include "threaded/QelTPIntLoopMgr.h"

#include <algorithm>

std::unique_ptr<QelMTIntLoopMgrStepAdaptor> QelMTIntLoopMgrStepAdaptor::New(QelTPIntLoopMgr* manager)
{
    if (!manager) {
        QEL_ASSERT(false, "QelMTIntLoopMgrStepAdaptor::QelMTIntLoopMgrStepAdaptor()\n  Null loop manager\n");
        return nullptr;
    }
    return std::unique_ptr<QelMTIntLoopMgrStepAdaptor>(new QelMTIntLoopMgrStepAdaptor(*manager));
}

void QelMTIntLoopMgrStepAdaptor::SetBlockSize(std::int32_t blockSize)
{
    if (blockSize <= 0) {
        QEL_ASSERT(false, "QelMTIntLoopMgrStepAdaptor::SetBlockSize()\n  Blocksize must be strictly positive\n");
        return;
    }
    m_blockSize = blockSize;
}

void QelMTIntLoopMgrStepAdaptor::SetLoopRange(const QelIntRange& range)
{
    if (!IsDone()) {
        QEL_ASSERT(false,
                   "QelMTIntLoopMgrStepAdaptor::SetLoopRange()\n  This method must not be called while stepping\n");
        return;
    }
    m_loopRange = range;
}

bool QelMTIntLoopMgrStepAdaptor::Go()
{
    if (!IsDone()) {
        QEL_ASSERT(false, "QelMTIntLoopMgrStepAdaptor::Go()\n  This method must not be called while stepping\n");
        return false;
    }
    return m_manager.DoLoop(m_loopRange);
}

QelIntRange QelMTIntLoopMgrStepAdaptor::NextBlock() noexcept
{
    // In 64 bits: a block may reach past the largest index.
    const std::int64_t blockEnd = std::int64_t{m_remaining.Min} + m_blockSize - 1;
    const QelIntRange block =
        QelIntRange(m_remaining.Min, static_cast<std::int32_t>(std::min<std::int64_t>(blockEnd, QelIntRange::kHighest)))
            .And(m_loopRange);
    if (block.Max >= m_loopRange.Max)
        m_remaining = QelIntRange::Empty();
    else
        m_remaining.Min = block.Max + 1;
    return block;
}

bool QelMTIntLoopMgrStepAdaptor::Step()
{
    if (m_loopRange.IsEmpty()) {
        if (!IsDone())
            QEL_ASSERT(false, "QelMTIntLoopMgrStepAdaptor::Step()\n  Internal error\n");
        return true;
    }
    const bool first = IsDone();
    if (first) {
        m_remaining = m_loopRange;
        m_manager.SetSkipSetup(false);
        m_manager.SetSkipFinish(false);
    }
    if (IsDone()) {
        QEL_ASSERT(false, "QelMTIntLoopMgrStepAdaptor::NextStepRange()\n  Internal error\n");
        return false;
    }

    const QelIntRange block = NextBlock();
    const bool last = IsDone();
    if (first && last)
        return m_manager.DoLoop(block);
    if (first) {
        // Setup now, but Finish only after the last block.
        m_manager.SetSkipFinish(true);
        const bool result = m_manager.DoLoop(block);
        m_manager.SetSkipSetup(true);
        return result;
    }
    if (!last)
        return m_manager.DoLoop(block);
    m_manager.SetSkipFinish(false);
    const bool result = m_manager.DoLoop(block);
    m_manager.SetSkipSetup(false);
    return result;
}

double QelMTIntLoopMgrStepAdaptor::Fraction() const
{
    if (m_remaining.IsEmpty() || m_loopRange.IsEmpty())
        return 1.0;
    const double total = m_loopRange.Length();
    return (total - m_remaining.Length()) / total;
}
