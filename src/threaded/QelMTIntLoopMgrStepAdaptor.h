#pragma once

#include "base/QelIntRange.h"
#include "threaded/QelContinuation.h"

#include <cstdint>
#include <memory>

class QelTPIntLoopMgr;

/// Runs the loop of a loop manager in blocks of indices, one block per Step, so
/// that a renderer built on one long loop can be stopped between blocks. Across the
/// steps of a run each worker sees one Setup, its shares of every block, then one
/// Finish: the workers' state lives on from block to block.
class QelMTIntLoopMgrStepAdaptor : public QelContinuation, public QelProgress {
public:
    /// Null, after an assertion, for a null manager. The manager is not owned.
    [[nodiscard]] static std::unique_ptr<QelMTIntLoopMgrStepAdaptor> New(QelTPIntLoopMgr* manager);

    /// Indices per step; strictly positive.
    void SetBlockSize(std::int32_t blockSize);
    /// The indices of the next run; only between runs.
    void SetLoopRange(const QelIntRange& range);
    [[nodiscard]] const QelIntRange& LoopRange() const noexcept { return m_loopRange; }

    /// The whole loop in one call; only between runs.
    bool Go() override;
    /// The next block; the first step of a run starts it. False when the manager's
    /// loop failed.
    bool Step() override;
    /// True between runs: no index of the current run is left.
    [[nodiscard]] bool IsDone() const override { return m_remaining.IsEmpty(); }
    [[nodiscard]] const QelProgress* GetProgress() const override { return this; }
    /// Gives up the current run; the next Step starts a new one.
    void Abort() noexcept { m_remaining = QelIntRange::Empty(); }

    [[nodiscard]] int Kind() const override { return 1; }
    /// The share of the run's indices done: 1.0 between runs.
    [[nodiscard]] double Fraction() const override;

private:
    explicit QelMTIntLoopMgrStepAdaptor(QelTPIntLoopMgr& manager) noexcept : m_manager(manager) {}
    // The next block, taken off the remaining indices.
    QelIntRange NextBlock() noexcept;

    QelTPIntLoopMgr& m_manager;
    QelIntRange m_loopRange;
    QelIntRange m_remaining;
    std::int32_t m_blockSize = 20;
};
