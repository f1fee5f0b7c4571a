#include "threaded/QelTPIntLoopMgr.h"

#include "base/QelDebug.h"
#include "threaded/QelSystemInfo.h"
#include "threaded/imp/QelTPIntLoopMgrWkrThread.h"
#include "threaded/imp/QelThreadPool.h"

#include <exception>
#include <new>
#include <utility>

// Pool items carry no preferred processor: Linux has no soft hint of that kind,
// and pinning shared pool threads would be wrong for the other work they run.
// The scheduler spreads busy threads over the processors by itself.

QelTPIntLoopMgr::QelTPIntLoopMgr(int mode) noexcept : m_mode(mode) {}

std::unique_ptr<QelTPIntLoopMgr> QelTPIntLoopMgr::New(int mode, int numThreads)
{
    if (numThreads == 0) {
        numThreads = QelSystemInfo::Instance().RenderThreadCount();
        if (numThreads < 2)
            mode = kSerial;
    } else if (numThreads == -1) {
        mode = kSerial;
    }
    std::unique_ptr<QelTPIntLoopMgr> manager(new (std::nothrow) QelTPIntLoopMgr(mode));
    if (!manager)
        return nullptr;
    if (mode != kSerial && !manager->CreateThreads(numThreads))
        return nullptr;
    return manager;
}

QelTPIntLoopMgr::~QelTPIntLoopMgr()
{
    // The workers go on this thread, not through the pool: destruction must not
    // depend on the pool taking work.
    if (!m_threads.empty()) {
        m_action = Action::Exit;
        for (const std::unique_ptr<WkrThread>& thread : m_threads) {
            if (thread)
                thread->Go();
        }
    }
    m_threads.clear();
    m_serialWorker.reset();
}

bool QelTPIntLoopMgr::CreateThreads(int n)
{
    try {
        if (n < 0)
            throw std::bad_array_new_length();
        m_threads.resize(static_cast<std::size_t>(n));
    } catch (const std::exception&) {
        QEL_ASSERT(false, "QelTPIntLoopMgr::CreateThreads()\n  Failed to to allocate threads array\n");
        return false;
    }
    for (int i = 0; i < n; ++i) {
        m_threads[static_cast<std::size_t>(i)].reset(new (std::nothrow) WkrThread(this, i));
        if (!m_threads[static_cast<std::size_t>(i)]) {
            QEL_ASSERT(false, "QelTPIntLoopMgr::CreateThreads()\n  Failed to construct worker thread\n");
            return false;
        }
    }
    return true;
}

void QelTPIntLoopMgr::SetFactory(QelMTIntLoopWkrFactory* factory)
{
    if (!factory) {
        QEL_ASSERT(false, "QelTPIntLoopMgr::SetFactory()\n  Null factory argument\n");
        return;
    }
    m_factory = factory;
}

bool QelTPIntLoopMgr::CreateWorkers()
{
    if (!m_factory) {
        QEL_ASSERT(false, "QelTPIntLoopMgr::CreateWorkers()\n  Factory not set (SetFactory not called?)\n");
        return false;
    }
    if (m_mode == kSerial) {
        m_serialWorker.reset();
        m_serialWorker = m_factory->CreateWorker();
        return m_serialWorker != nullptr;
    }
    return RunPhase(Action::CreateWorker);
}

bool QelTPIntLoopMgr::DoLoop(const QelIntRange& range)
{
    m_range = range;
    if (range.IsEmpty())
        return true;
    if (range.Max < range.Min) {
        QEL_ASSERT(false, "QelTPIntLoopMgr::DoLoop()\n  Invalid loop range\n");
        return false;
    }
    if (m_mode == kSerial)
        return RunSerial(range);
    if (m_mode < kSerial || m_mode > kSplit) {
        QEL_ASSERT(false, "QelTPIntLoopMgr::DoLoop()\n  Unknown mode\n");
        return false;
    }
    // min - 1 wraps for the lowest min, and the first increment wraps back.
    m_nextIndex.Exchange(static_cast<std::int32_t>(static_cast<std::uint32_t>(range.Min) - 1u));
    if (!m_skipSetup && !RunPhase(Action::Setup))
        return false;
    if (!RunPhase(Action::Run))
        return false;
    if (!m_skipFinish && !RunPhase(Action::Finish))
        return false;
    return true;
}

bool QelTPIntLoopMgr::RunSerial(const QelIntRange& range)
{
    if (!m_serialWorker) {
        QEL_ASSERT(false, "QelTPIntLoopMgr::DoLoop()\n  Worker not set (CreateWorkers not called?)\n");
        return false;
    }
    if (!m_skipSetup)
        m_serialWorker->Setup();
    for (std::int64_t index = range.Min; index <= range.Max; ++index)
        m_serialWorker->Process(static_cast<int>(index), 0);
    if (!m_skipFinish)
        m_serialWorker->Finish();
    return true;
}

// The caller blocks here until every queued run has signalled Done, so Action,
// Range, Mode and ChunkSize never change while a thread reads them.
bool QelTPIntLoopMgr::RunPhase(Action action)
{
    m_action = action;
    std::size_t queued = 0;
    while (queued < m_threads.size() && QelThreadPool::Queue(&WkrThread::RunQueued, m_threads[queued].get()))
        ++queued;
    if (queued < m_threads.size()) {
        // The queued runs use this manager and their workers: let them end first.
        std::exception_ptr thrown;
        while (queued-- > 0) {
            m_threads[queued]->WaitDone();
            if (std::exception_ptr taken = m_threads[queued]->TakeThrown())
                thrown = std::move(taken);
        }
        if (thrown)
            std::rethrow_exception(thrown);
        return false;
    }

    for (const std::unique_ptr<WkrThread>& thread : m_threads)
        thread->WaitDone();
    bool failed = false;
    std::exception_ptr thrown;
    for (const std::unique_ptr<WkrThread>& thread : m_threads) {
        m_exceptionCode = thread->ExceptionCode();
        m_exceptionAddress = thread->ExceptionAddress();
        failed = thread->Failed() || failed;
        std::exception_ptr taken = thread->TakeThrown();
        if (taken && !thrown)
            thrown = std::move(taken);
    }
    m_failed = failed;
    if (thrown)
        std::rethrow_exception(thrown);
    return !failed;
}

int QelTPIntLoopMgr::NumberOfThreads() const noexcept
{
    return m_mode == kSerial ? 1 : static_cast<int>(m_threads.size());
}

QelMTIntLoopWkr* QelTPIntLoopMgr::Worker(int i) const noexcept
{
    if (m_mode == kSerial)
        return m_serialWorker.get();
    if (i < 0 || static_cast<std::size_t>(i) >= m_threads.size() || !m_threads[static_cast<std::size_t>(i)])
        return nullptr;
    return m_threads[static_cast<std::size_t>(i)]->Worker();
}
