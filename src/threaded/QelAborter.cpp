#include "threaded/QelAborter.h"

#include "threaded/QelTickCount.h"

#include <limits>

namespace {

// From here on seconds x 1000 no longer fits the 32-bit millisecond counter.
constexpr double kLongestLimitSeconds = 4294967.0;

}  // namespace

QelAborter::QelAborter(bool withEvent) : m_noTimeLimit(true)
{
    MakeEvent(withEvent);
}

QelAborter::QelAborter(double seconds, bool withEvent)
{
    MakeEvent(withEvent);
    SetTimeLimit(seconds);
}

QelAborter::~QelAborter() = default;

void QelAborter::MakeEvent(bool withEvent)
{
    if (!withEvent)
        return;
    // Manual reset and open from the start: polls pass until somebody pauses.
    m_event = std::make_unique<QelSyncEvent>(true, true);
    m_hasEvent = m_event->IsValid();
    m_valid = m_hasEvent;
}

bool QelAborter::HasAborted() const
{
    if (m_aborted.load(std::memory_order_relaxed))
        return true;
    if (m_hasEvent)
        m_event->Wait();
    if (m_noTimeLimit)
        return false;
    // Unsigned difference: a wrap of the tick counter between start and now does no harm.
    return QelGetTickCount() - m_startTick > m_limitMs;
}

double QelAborter::TimeLeft() const
{
    if (m_noTimeLimit)
        return std::numeric_limits<double>::max();
    return (static_cast<double>(m_startTick) + static_cast<double>(m_limitMs) -
            static_cast<double>(QelGetTickCount())) /
           1000.0;
}

void QelAborter::SetTimeLimit(double seconds)
{
    if (seconds >= kLongestLimitSeconds) {
        m_noTimeLimit = true;
        m_limitMs = kNoLimitMs;
    } else {
        m_noTimeLimit = false;
        // A negative (or NaN) limit has passed already; it must not wrap to a long one.
        m_limitMs = seconds > 0.0 ? static_cast<std::uint32_t>(seconds * 1000.0) : 0;
    }
    m_startTick = QelGetTickCount();
}

void QelAborter::ClearTimeLimit()
{
    m_noTimeLimit = true;
    m_limitMs = kNoLimitMs;
}

void QelAborter::Abort()
{
    m_aborted.store(true, std::memory_order_relaxed);
}

void QelAborter::Reset()
{
    m_aborted.store(false, std::memory_order_relaxed);
}

bool QelAborter::Pause()
{
    return m_hasEvent && m_event->Reset();
}

bool QelAborter::Resume()
{
    return m_hasEvent && m_event->Set();
}
