#include "threaded/imp/QelTPIntLoopMgrWkrThread.h"

#include "base/QelDebug.h"
#include "threaded/QelFaultGuard.h"
#include "threaded/imp/QelSpinWait.h"

#include <algorithm>

QelTPIntLoopMgr::WkrThread::WkrThread(QelTPIntLoopMgr* manager, int index) : m_manager(manager), m_index(index)
{
    QEL_ASSERT(manager != nullptr, "QelTPIntLoopMgr::WkrThread\n  NULL manager\n");
}

QelTPIntLoopMgr::WkrThread::~WkrThread()
{
    if (!m_exited)
        m_done.Wait();
    const std::lock_guard lastSignal(m_signalling);
}

void QelTPIntLoopMgr::WkrThread::RunQueued(void* context) noexcept
{
    static_cast<WkrThread*>(context)->Go();
}

bool QelTPIntLoopMgr::WkrThread::Go()
{
    m_failed = false;
    m_thrown = nullptr;
    try {
        QelFaultRecord fault;
        if (!QelRunGuarded("QelTPIntLoopMgr::WkrThread::Go", [this] { Act(); }, fault)) {
            m_exceptionCode = fault.Code;
            m_exceptionAddress = fault.Address;
            m_failed = true;
        }
    } catch (...) {
        // Handed to the manager, which throws it again on its caller's thread.
        m_thrown = std::current_exception();
        m_failed = true;
    }
    // Once Done is set the manager may go on and delete this object.
    const bool succeeded = !m_failed;
    SignalDone();
    return succeeded;
}

void QelTPIntLoopMgr::WkrThread::SignalDone()
{
    const std::lock_guard signalling(m_signalling);
    m_ending.store(true, std::memory_order_relaxed);
    m_done.Set();
}

// Done alone gives the ordering; the flag only spares the waiter a blocking
// hand-off when the run ends soon. Cleared after Done has been taken, which
// orders it after the store of this run.
void QelTPIntLoopMgr::WkrThread::WaitDone()
{
    QelSpinUntil([this] { return m_ending.load(std::memory_order_relaxed); });
    m_done.Wait();
    m_ending.store(false, std::memory_order_relaxed);
}

// After each report the code goes on as a handler that returns expects, with the
// run marked failed, so that the manager's caller learns of it.
void QelTPIntLoopMgr::WkrThread::Act()
{
    switch (m_manager->m_action) {
    case Action::CreateWorker:
        MakeWorker();
        return;
    case Action::Setup:
        if (HasWorker())
            m_worker->Setup();
        return;
    case Action::Run:
        if (HasWorker())
            RunShare();
        return;
    case Action::Finish:
        if (HasWorker())
            m_worker->Finish();
        return;
    case Action::Exit:
        m_worker.reset();
        m_exited = true;
        return;
    case Action::None:
        break;
    }
    QEL_ASSERT(false, "QelTPIntLoopMgr::WkrThread::Go()\n  Invalid action\n");
    m_failed = true;
}

void QelTPIntLoopMgr::WkrThread::MakeWorker()
{
    QelMTIntLoopWkrFactory* const factory = m_manager->m_factory;
    if (!factory) {
        QEL_ASSERT(false, "QelTPIntLoopMgr::WkrThread::Go()\n  Factory not set (SetFactory not called?)\n");
        m_failed = true;
        return;
    }
    m_worker.reset();
    m_worker = factory->CreateWorker();
    if (!m_worker) {
        QEL_ASSERT(false, "QelTPIntLoopMgr::WkrThread::Go()\n  Failed to create worker from factory\n");
        m_failed = true;
    }
}

bool QelTPIntLoopMgr::WkrThread::HasWorker()
{
    if (m_worker)
        return true;
    QEL_ASSERT(false, "QelTPIntLoopMgr::WkrThread::Go()\n  Worker not set (CreateWorkers not called?)\n");
    m_failed = true;
    return false;
}

// Indices are worked out in 64 bits, so that a range that ends at either end of
// the 32-bit integers neither overflows nor wraps round into a second pass.
void QelTPIntLoopMgr::WkrThread::RunShare()
{
    const QelTPIntLoopMgr& manager = *m_manager;
    QelMTIntLoopWkr& worker = *m_worker;
    const std::int64_t min = manager.m_range.Min;
    const std::int64_t max = manager.m_range.Max;
    const auto n = static_cast<std::int64_t>(manager.m_threads.size());
    const std::int64_t t = m_index;
    const auto process = [&](std::int64_t index) { worker.Process(static_cast<int>(index), m_index); };

    switch (manager.m_mode) {
    case kDynamic: {
        // The counter runs past max by one take per thread; measured as an offset
        // from min it can't wrap back into the range.
        const auto count = static_cast<std::uint64_t>(max - min) + 1;
        for (;;) {
            const std::int32_t index = m_manager->m_nextIndex.Increment();
            const std::uint32_t offset = static_cast<std::uint32_t>(index) - static_cast<std::uint32_t>(min);
            if (offset >= count)
                return;
            process(index);
        }
    }
    case kInterleaved:
        for (std::int64_t index = min + t; index <= max; index += n)
            process(index);
        return;
    case kChunked: {
        const std::int64_t chunk = std::max(manager.m_chunkSize, 1);
        for (std::int64_t start = min + t * chunk; start <= max; start += n * chunk) {
            const std::int64_t end = std::min(start + chunk - 1, max);
            for (std::int64_t index = start; index <= end; ++index)
                process(index);
        }
        return;
    }
    case kSplit: {
        const std::int64_t share = (max + 1 - min) / n;
        const std::int64_t first = min + share * t;
        const std::int64_t last = t == n - 1 ? max : first + share - 1;
        for (std::int64_t index = first; index <= last; ++index)
            process(index);
        return;
    }
    default:
        break;
    }
    QEL_ASSERT(false, "QelTPIntLoopMgr::WkrThread::Go()\n  Invalid mode\n");
    m_failed = true;
}
