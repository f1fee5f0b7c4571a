#pragma once

#include "base/QelNoncopyable.h"
#include "threaded/QelSyncEvent.h"

#include <atomic>
#include <cstdint>
#include <memory>

/// What stops a render: a flag anybody may raise, and a clock that runs out. The
/// workers of a render poll HasAborted from all their threads at once; Abort and
/// Reset may come from any thread meanwhile. The time limit is set between renders.
class QelAborter : public QelNoncopyable {
public:
    /// Without a time limit.
    explicit QelAborter(bool withEvent);
    /// With a limit of `seconds` from now; see SetTimeLimit.
    QelAborter(double seconds, bool withEvent);
    virtual ~QelAborter();

    /// True once Abort was called or the time limit has passed. With the pause gate
    /// closed (Pause), blocks the polling thread until Resume.
    [[nodiscard]] virtual bool HasAborted() const;
    /// Seconds until the limit, negative once it has passed; the largest double
    /// without a limit.
    [[nodiscard]] virtual double TimeLeft() const;
    /// Starts the clock. A limit of 4294967 seconds or more is no limit, since the
    /// tick counter can't tell such a span from a short one.
    virtual void SetTimeLimit(double seconds);
    virtual void ClearTimeLimit();
    virtual void Abort();
    /// Lowers the flag; the clock runs on from where it was started.
    virtual void Reset();
    /// Closes the pause gate; false, doing nothing, without one.
    virtual bool Pause();
    /// Opens the pause gate; false, doing nothing, without one.
    virtual bool Resume();
    [[nodiscard]] virtual bool HasEvent() const { return m_hasEvent; }
    [[nodiscard]] virtual bool Valid() const { return m_valid; }

    static constexpr std::uint32_t kNoLimitMs = 0xFFFFFFFF;

private:
    void MakeEvent(bool withEvent);

    std::atomic<bool> m_aborted{false};
    bool m_noTimeLimit = false;
    bool m_hasEvent = false;
    bool m_valid = true;
    std::uint32_t m_limitMs = kNoLimitMs;
    std::uint32_t m_startTick = 0;
    std::unique_ptr<QelSyncEvent> m_event;
};
