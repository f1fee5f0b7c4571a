#include "threaded/imp/QelThreadPool.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

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
        self.started.fetch_add(1);
        const auto deadline = std::chrono::steady_clock::now() + kPatience;
        while (self.started.load() < self.count && std::chrono::steady_clock::now() < deadline)
            std::this_thread::sleep_for(1ms);
        // Notified under the lock: the waiter may destroy this object as soon as
        // it can take the lock again.
        std::lock_guard guard(self.lock);
        self.met += self.started.load() == self.count ? 1 : 0;
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
    int finished = 0;  // guarded by lock
    int met = 0;       // guarded by lock
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

TEST(QelThreadPoolTest, AForkedChildGetsAPoolOfItsOwn)
{
#if defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "the thread checker ends a child that makes threads after a multi-threaded fork";
#else
    EXPECT_EQ(Rendezvous(2).QueueAndWait(), 2);
    const pid_t child = fork();
    ASSERT_NE(child, -1);
    if (child == 0) {
        alarm(10);  // a child that waits for its parent's threads would never end
        _exit(Rendezvous(2).QueueAndWait() == 2 && QelThreadPool::ThreadCount() == 2 ? 0 : 1);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
#endif
}

}  // namespace
