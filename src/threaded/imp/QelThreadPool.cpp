#include "threaded/imp/QelThreadPool.h"

#include "threaded/imp/QelSpinWait.h"

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <exception>
#include <mutex>
#include <new>
#include <pthread.h>
#include <thread>

namespace {

struct Item {
    QelThreadPool::Callback callback;
    void* context;
};

class Pool {
public:
    bool Queue(Item item) noexcept;
    int ThreadCount() noexcept;
    int IdleCount() noexcept;
    int SwapBudget(int budget) noexcept;

private:
    [[noreturn]] void Serve() noexcept;
    bool Admit() noexcept;

    std::mutex m_lock;
    std::condition_variable m_work;
    std::deque<Item> m_items;  // all below guarded by m_lock
    int m_threads = 0;
    int m_watching = 0;        // idle threads watching m_queued before they block
    int m_blocked = 0;         // idle threads blocked in m_work, woken or not
    int m_budget = -1;         // items a QelThreadPoolLimit still lets in; -1 without limit
    std::atomic<std::size_t> m_queued{0};  // m_items.size(), for watchers to read without the lock
};

// Idle threads wait in the pool until the process ends, and may still do so while
// static objects are destroyed, so the pool must never be destroyed: it is built
// once in storage that no destructor touches.
Pool& ThePool()
{
    alignas(Pool) static unsigned char storage[sizeof(Pool)];
    static Pool* const pool = [] {
        // The child of a fork has none of the threads that the counts speak of,
        // and perhaps a lock held by one of them: it starts again with a new pool
        // in the same place, abandoning the old one.
        pthread_atfork(nullptr, nullptr, [] { ::new (static_cast<void*>(storage)) Pool; });
        return ::new (static_cast<void*>(storage)) Pool;
    }();
    return *pool;
}

bool Pool::Admit() noexcept
{
    if (m_budget < 0)
        return true;
    if (m_budget == 0)
        return false;
    --m_budget;
    return true;
}

bool Pool::Queue(Item item) noexcept
{
    std::unique_lock lock(m_lock);
    if (!Admit())
        return false;
    try {
        m_items.push_back(item);
    } catch (const std::bad_alloc&) {
        return false;
    }
    m_queued.store(m_items.size(), std::memory_order_relaxed);
    // Every idle thread takes an item as soon as it sees one, so as long as there
    // are no more items than idle threads, each item has its thread. Watchers see
    // the items by themselves; only those beyond them need a blocked thread woken.
    // A thread just made, not yet counted idle, only makes this err towards one more.
    const std::size_t items = m_items.size();
    if (items <= static_cast<std::size_t>(m_watching + m_blocked)) {
        const bool wake = items > static_cast<std::size_t>(m_watching);
        lock.unlock();
        if (wake)
            m_work.notify_one();
        return true;
    }
    try {
        std::thread(&Pool::Serve, this).detach();
    } catch (const std::exception&) {
        m_items.pop_back();
        m_queued.store(m_items.size(), std::memory_order_relaxed);
        return false;
    }
    ++m_threads;
    return true;
}

void Pool::Serve() noexcept
{
    std::unique_lock lock(m_lock);
    for (;;) {
        if (m_items.empty()) {
            ++m_watching;
            lock.unlock();
            QelSpinUntil([this] { return m_queued.load(std::memory_order_relaxed) > 0; });
            lock.lock();
            --m_watching;
            ++m_blocked;
            m_work.wait(lock, [this] { return !m_items.empty(); });
            --m_blocked;
        }
        const Item item = m_items.front();
        m_items.pop_front();
        m_queued.store(m_items.size(), std::memory_order_relaxed);
        lock.unlock();
        item.callback(item.context);
        lock.lock();
    }
}

int Pool::ThreadCount() noexcept
{
    std::lock_guard lock(m_lock);
    return m_threads;
}

int Pool::IdleCount() noexcept
{
    std::lock_guard lock(m_lock);
    return m_watching + m_blocked;
}

int Pool::SwapBudget(int budget) noexcept
{
    std::lock_guard lock(m_lock);
    const int previous = m_budget;
    m_budget = budget;
    return previous;
}

}  // namespace

bool QelThreadPool::Queue(Callback callback, void* context) noexcept
{
    return ThePool().Queue({callback, context});
}

int QelThreadPool::ThreadCount() noexcept
{
    return ThePool().ThreadCount();
}

int QelThreadPool::IdleCount() noexcept
{
    return ThePool().IdleCount();
}

QelThreadPoolLimit::QelThreadPoolLimit(int accepted) noexcept
    : m_previous(ThePool().SwapBudget(accepted < 0 ? 0 : accepted))
{
}

QelThreadPoolLimit::~QelThreadPoolLimit()
{
    ThePool().SwapBudget(m_previous);
}
