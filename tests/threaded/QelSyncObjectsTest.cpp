#include "threaded/QelCriticalSection.h"
#include "threaded/QelMutex.h"
#include "threaded/QelSemaphore.h"
#include "threaded/QelSyncEvent.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <future>
#include <limits>
#include <semaphore>
#include <thread>
#include <vector>

namespace {

using namespace std::chrono_literals;
using Ms = std::chrono::duration<double, std::milli>;

constexpr auto kPatience = 5s;         // never missed by a correct object, even under a sanitizer
constexpr auto kBlockedWindow = 30ms;  // how long a thread that must stay blocked is watched

// Another thread waits up to `timeoutMs` for the lock, gives it back if it got it,
// and tells whether it did and how long it tried.
std::future<std::pair<bool, Ms>> StartWaiting(QelLockObject& lock, std::uint32_t timeoutMs)
{
    return std::async(std::launch::async, [&lock, timeoutMs] {
        const auto start = std::chrono::steady_clock::now();
        const bool got = lock.Wait(timeoutMs);
        const Ms took = std::chrono::steady_clock::now() - start;
        if (got)
            lock.Release();
        return std::pair(got, took);
    });
}

bool OtherThreadGets(QelLockObject& lock) { return StartWaiting(lock, 0).get().first; }

template <class Lock>
class QelLockTest : public ::testing::Test {};
using LockTypes = ::testing::Types<QelCriticalSection, QelMutex>;
TYPED_TEST_SUITE(QelLockTest, LockTypes);

TYPED_TEST(QelLockTest, OwnerReentersOthersWaitUntilEveryWaitIsReleasedOrTheirTimeout)
{
    TypeParam lock;
    lock.Wait();
    ASSERT_TRUE(lock.Wait(0));
    EXPECT_FALSE(OtherThreadGets(lock));
    lock.Release();
    const auto [got, took] = StartWaiting(lock, 30).get();
    EXPECT_FALSE(got);
    EXPECT_GE(took.count(), 29.0);  // the tick counts whole milliseconds
    lock.Release();
    EXPECT_TRUE(OtherThreadGets(lock));

    // The longest timeouts must not look like deadlines already gone.
    for (const std::uint32_t timeoutMs : {5000u, 0xF0000000u, kQelWaitForever}) {
        SCOPED_TRACE(timeoutMs);
        lock.Wait();
        auto waiter = StartWaiting(lock, timeoutMs);
        std::this_thread::sleep_for(5ms);  // likely lets the waiter start waiting; passes either way
        lock.Release();
        EXPECT_TRUE(waiter.get().first);
    }
}

// It starts empty; a Release of several places must wake as many waiters, and
// one past the maximum fails and changes nothing.
TEST(QelSemaphoreTest, WaitersBlockUntilAReleaseLetsAsManyThroughUpToTheMaximum)
{
    QelSemaphore semaphore(3);
    EXPECT_FALSE(semaphore.Wait(0));
    std::vector<std::future<void>> waiters;
    for (int i = 0; i < 3; ++i)
        waiters.push_back(std::async(std::launch::async, [&semaphore] { semaphore.Wait(); }));
    EXPECT_EQ(waiters.back().wait_for(kBlockedWindow), std::future_status::timeout);
    EXPECT_TRUE(semaphore.Release(3));
    for (auto& waiter : waiters) {
        EXPECT_EQ(waiter.wait_for(kPatience), std::future_status::ready);
        while (waiter.wait_for(10ms) != std::future_status::ready)  // fail, don't hang
            semaphore.Release();
    }
    for (const std::int32_t refused : {4, 0, -1})
        EXPECT_FALSE(semaphore.Release(refused)) << refused;
    EXPECT_TRUE(semaphore.Release(2));
    EXPECT_TRUE(semaphore.Release());
    EXPECT_FALSE(semaphore.Release());  // one past the maximum, counting what is already free
    for (int i = 0; i < 3; ++i)
        EXPECT_TRUE(semaphore.Wait(0));
    EXPECT_FALSE(semaphore.Wait(0));

    // The check must not overflow at the widest maximum.
    QelSemaphore widest(std::numeric_limits<std::int32_t>::max());
    EXPECT_TRUE(widest.Release(std::numeric_limits<std::int32_t>::max()));
    EXPECT_FALSE(widest.Release());
}

// An automatic event lets one waiter through per Set; a manual one lets every
// waiter blocked at the Set through, even when the Reset comes before they wake.
TEST(QelSyncEventTest, ManualEventLetsEveryWaitThroughAndAutoEventOnePerSet)
{
    for (const bool manual : {true, false}) {
        SCOPED_TRACE(manual ? "manual" : "automatic");
        QelSyncEvent event(manual, false);
        std::counting_semaphore<> passed{0};
        int counted = 0;
        const auto passes = [&](int most, std::chrono::milliseconds within) {
            int count = 0;
            while (count < most && passed.try_acquire_for(within))
                ++count;
            counted += count;
            return count;
        };
        std::vector<std::jthread> waiters;
        for (int i = 0; i < 3; ++i)
            waiters.emplace_back([&] { event.Wait(); passed.release(); });
        EXPECT_EQ(passes(1, kBlockedWindow), 0);
        for (int set = 0; set < (manual ? 1 : 2); ++set) {
            EXPECT_TRUE(event.Set());
            EXPECT_TRUE(!manual || event.Reset());
            EXPECT_EQ(passes(manual ? 3 : 1, kPatience), manual ? 3 : 1);
            EXPECT_EQ(passes(1, kBlockedWindow), 0);
        }
        while (counted < 3) {  // fail, don't hang
            event.Set();
            passes(3 - counted, 10ms);
        }
    }
}

}  // namespace
