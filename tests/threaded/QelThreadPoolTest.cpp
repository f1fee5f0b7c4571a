#include "threaded/imp/QelThreadPool.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>

namespace {

using namespace std::chrono_literals;

constexpr auto kPatience = 10s;  // never reached unless an item waits for a thread

// Items that each wait until all of them have started: they all meet only when
// the pool gave every one its own thread at once.
struct Rendezvous {
    explicit Rendezvous(int items) : count(items) {}

    static void Run(void* context) noexcept
    {
        auto& self = *static_cast<Rendezvous*>(context);
        ++self.started;
        const auto deadline = std::chrono::steady_clock::now() + kPatience;
        while (self.started < self.count && std::chrono::steady_clock::now() < deadline)
            std::this_thread::sleep_for(1ms);
        // Notified under the lock: the waiter may destroy this object as soon as
        // it can take the lock again.
        std::lock_guard guard(self.lock);
        self.met += self.started == self.count ? 1 : 0;
        if (++self.finished == self.count)
            self.allFinished.notify_all();
    }

    // The number of items that met all the others.
    int QueueAndWait()
    {
        for (int i = 0; i < count; ++i)
            EXPECT_TRUE(QelThreadPool::Queue(&Run, this));
        std::unique_lock guard(lock);
        allFinished.wait(guard, [this] { return finished == count; });
        return met;
    }

    const int count;
    std::atomic<int> started{0};
    std::mutex lock;
    std::condition_variable allFinished;
    int finished = 0, met = 0;  // guarded by lock
};

TEST(QelThreadPoolTest, EveryItemStartsAtOnceAndIdleThreadsAreReused)
{
    EXPECT_EQ(Rendezvous(12).QueueAndWait(), 12);
    const int threads = QelThreadPool::ThreadCount();
    EXPECT_GE(threads, 12);

    // A thread that has just finished an item needs a moment to count itself idle.
    const auto deadline = std::chrono::steady_clock::now() + kPatience;
    while (QelThreadPool::IdleCount() < threads && std::chrono::steady_clock::now() < deadline)
        std::this_thread::sleep_for(1ms);
    EXPECT_EQ(Rendezvous(4).QueueAndWait(), 4);
    EXPECT_EQ(QelThreadPool::ThreadCount(), threads);
}

}  // namespace
