#pragma once

#include "threaded/QelContinuation.h"

#include <cstdint>

class QelImageStack;
class QelRenderSpec;

/// A renderer that draws a whole image from a stack in one call.
class QelImageStackRenderer {
public:
    virtual ~QelImageStackRenderer() = default;
    virtual bool Draw(QelImageStack* stack, QelRenderSpec* spec) = 0;

protected:
    QelImageStackRenderer() = default;
    QelImageStackRenderer(const QelImageStackRenderer&) = default;
    QelImageStackRenderer& operator=(const QelImageStackRenderer&) = default;
};

/// A renderer that its caller drives step by step, so that the caller can stop it
/// between two steps: StartDraw once (false ends the render), then Step until
/// IsDone. Abort may come between steps; after the end or an Abort, StartDraw may
/// start afresh, with the same or another stack and record. All calls come from one
/// thread; the pool threads work only inside a step.
class QelImageStackSteppableRenderer : public QelImageStackRenderer, public QelRestartableContinuation {
public:
    virtual bool StartDraw(QelImageStack* stack, QelRenderSpec* spec) = 0;
    /// Whether the render stopped because an allocation failed.
    [[nodiscard]] virtual bool HasFailed() const { return false; }
    /// Copies the text of the last failure, cut to `size` bytes with its terminator,
    /// into `buffer`; false, writing nothing, when there is none.
    virtual bool GetErrorText(char* /*buffer*/, std::uint32_t /*size*/) const { return false; }
};
