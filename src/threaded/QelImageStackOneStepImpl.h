#pragma once

#include "threaded/QelImageStackRenderer.h"

/// Makes a steppable renderer of one that can only Draw: the whole Draw is its one
/// step, so it can be stopped only before that step.
class QelImageStackOneStepImpl : public QelImageStackSteppableRenderer {
public:
    bool StartDraw(QelImageStack* stack, QelRenderSpec* spec) override;
    /// Draws once; true without drawing again when the draw is done.
    bool Step() override;
    [[nodiscard]] bool IsDone() const override { return m_finished; }
    /// A one-step draw has nothing to give up between steps.
    void Abort() override {}

private:
    QelRenderSpec* m_spec = nullptr;
    QelImageStack* m_stack = nullptr;
    bool m_finished = false;
};
