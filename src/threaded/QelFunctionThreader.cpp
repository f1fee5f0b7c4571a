#include "threaded/QelFunctionThreader.h"

#include "threaded/QelFaultGuard.h"
#include "threaded/QelSystemInfo.h"

#include <cstdint>
#include <new>

std::unique_ptr<QelFunctionThreader> QelFunctionThreader::New(int numThreads, int mode)
{
    std::unique_ptr<QelFunctionThreader> threader(new (std::nothrow) QelFunctionThreader);
    if (!threader)
        return nullptr;
    if (QelSystemInfo::Instance().RenderThreadCount() == 1)
        numThreads = -1;
    if (numThreads == -1)
        return threader;
    threader->m_manager = QelTPIntLoopMgr::New(mode, numThreads);
    if (!threader->m_manager)
        return nullptr;
    threader->m_manager->SetFactory(threader.get());
    if (!threader->m_manager->CreateWorkers())
        return nullptr;
    return threader;
}

QelFunctionThreader::~QelFunctionThreader() = default;

std::unique_ptr<QelMTIntLoopWkr> QelFunctionThreader::CreateWorker()
{
    return std::unique_ptr<QelMTIntLoopWkr>(new (std::nothrow) QelFunctionThreaderWkr(*this));
}

bool QelFunctionThreader::DoJob(QelThreadedFunction function, void* argument, const QelIntRange& range)
{
    if (!function)
        return true;
    bool result = false;
    QelFaultRecord fault;
    const bool survived = QelRunGuarded(
        "QelFunctionThreader::DoJob",
        [&] {
            if (m_manager) {
                m_function = function;
                m_argument = argument;
                result = m_manager->DoLoop(range);
                return;
            }
            if (!range.IsEmpty()) {
                for (std::int64_t index = range.Min; index <= range.Max; ++index)
                    function(static_cast<int>(index), argument);
            }
            result = true;
        },
        fault);
    return survived && result;
}

void QelFunctionThreader::SplitRange(int threadIndex, int numThreads, const QelIntRange& range, int& first,
                                     int& last) noexcept
{
    // 64-bit arithmetic, cut to 32 bits at the end: an infinite range starting
    // above 0 ends past the largest integer and wraps, as it always has.
    const std::int64_t length = range.Length();
    const std::int64_t share = length / (numThreads < 1 ? 1 : numThreads);
    const std::int64_t begin = std::int64_t{range.Min} + std::int64_t{threadIndex} * share;
    const std::int64_t end = threadIndex == numThreads - 1 ? std::int64_t{range.Min} + length : begin + share;
    first = static_cast<int>(static_cast<std::int32_t>(static_cast<std::uint32_t>(begin)));
    last = static_cast<int>(static_cast<std::int32_t>(static_cast<std::uint32_t>(end)));
}

bool QelFunctionThreaderWkr::Process(int index, int /*threadIndex*/)
{
    m_threader.m_function(index, m_threader.m_argument);
    return true;
}
