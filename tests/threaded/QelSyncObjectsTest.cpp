#include "threaded/QelCriticalSection.h"
#include "threaded/QelMutex.h"
#include "threaded/QelSemaphore.h"
#include "threaded/QelSyncEvent.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <future>
#include <limits>
#include <optional>
#include <semaphore>
#include <thread>
#include <type_traits>
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
class QelLockTest : public ::testing::Test {
protected:
    using Guard = std::conditional_t<std::is_same_v<Lock, QelCriticalSection>, QelAutoLockCriticalSection, QelAutoLock>;
    Lock m_lock;
};
using LockTypes = ::testing::Types<QelCriticalSection, QelMutex>;
TYPED_TEST_SUITE(QelLockTest, LockTypes);

TYPED_TEST(QelLockTest, OwnerReentersAndOthersWaitUntilEveryWaitIsReleased)
{
    QelLockObject& lock = this->m_lock;
    lock.Wait();
    ASSERT_TRUE(lock.Wait(0));
    EXPECT_FALSE(OtherThreadGets(lock));
    lock.Release();
    EXPECT_FALSE(OtherThreadGets(lock));
    lock.Release();
    EXPECT_TRUE(OtherThreadGets(lock));
}

TYPED_TEST(QelLockTest, TimedWaitGivesUpAfterItsTimeoutButGetsALockReleasedInTime)
{
    QelLockObject& lock = this->m_lock;
    lock.Wait();
    const auto [got, took] = StartWaiting(lock, 30).get();
    EXPECT_FALSE(got);
    EXPECT_GE(took.count(), 29.0);  // the tick counts whole milliseconds
    lock.Release();

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

TYPED_TEST(QelLockTest, AutoLockLetsOneThreadAtATimeIntoItsScope)
{
    // A lock that lets two threads in loses increments, and the thread checker reports the race.
    constexpr int kThreads = 4, kRounds = 2000;
    int counter = 0;
    {
        std::vector<std::jthread> threads;
        for (int t = 0; t < kThreads; ++t)
            threads.emplace_back([&] {
                for (int i = 0; i < kRounds; ++i) {
                    typename TestFixture::Guard guard(this->m_lock);
                    ++counter;
                }
            });
    }
    EXPECT_EQ(counter, kThreads * kRounds);
    EXPECT_TRUE(OtherThreadGets(this->m_lock));
}

TEST(QelMutexTest, ReleaseByAThreadThatDoesNotHoldItFailsAndKeepsTheOwner)
{
    QelMutex mutex;
    EXPECT_FALSE(mutex.Release());
    mutex.Wait();
    EXPECT_FALSE(std::async(std::launch::async, [&mutex] { return mutex.Release(); }).get());
    EXPECT_FALSE(OtherThreadGets(mutex));
    EXPECT_TRUE(mutex.Release());
}

// It starts empty; a Release of several places must wake as many waiters.
TEST(QelSemaphoreTest, WaitersBlockUntilAReleaseLetsAsManyThrough)
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
    EXPECT_FALSE(semaphore.Wait(0));
}

TEST(QelSemaphoreTest, ReleasePastTheMaximumFailsAndChangesNothing)
{
    QelSemaphore semaphore(2);
    for (const std::int32_t refused : {3, 0, -1})
        EXPECT_FALSE(semaphore.Release(refused)) << refused;
    EXPECT_TRUE(semaphore.Release());
    EXPECT_FALSE(semaphore.Release(2));
    EXPECT_TRUE(semaphore.Release());
    EXPECT_FALSE(semaphore.Release());
    EXPECT_TRUE(semaphore.Wait(0));
    EXPECT_TRUE(semaphore.Wait(0));
    EXPECT_FALSE(semaphore.Wait(0));

    // The check must not overflow at the widest maximum.
    QelSemaphore widest(std::numeric_limits<std::int32_t>::max());
    EXPECT_TRUE(widest.Release(std::numeric_limits<std::int32_t>::max()));
    EXPECT_FALSE(widest.Release());
}

// Waiters are threads that wait at the event once and count their pass. Those a
// failed test leaves blocked are set free in TearDown, so that nothing hangs.
class QelSyncEventTest : public ::testing::Test {
protected:
    void StartWaiters(int count)
    {
        m_started += count;
        for (int i = 0; i < count; ++i)
            m_waiters.emplace_back([this] { m_event->Wait(); m_passed.release(); });
    }
    int PassesWithin(int most, std::chrono::milliseconds within)
    {
        int passes = 0;
        while (passes < most && m_passed.try_acquire_for(within))
            ++passes;
        m_counted += passes;
        return passes;
    }
    void TearDown() override
    {
        while (m_counted < m_started) {
            m_event->Set();
            PassesWithin(m_started - m_counted, 10ms);
        }
    }

    std::optional<QelSyncEvent> m_event;
    std::counting_semaphore<> m_passed{0};
    int m_started = 0, m_counted = 0;
    std::vector<std::jthread> m_waiters;
};

TEST_F(QelSyncEventTest, ManualEventLetsEveryWaitThroughUntilReset)
{
    m_event.emplace(true, true);
    StartWaiters(3);
    EXPECT_EQ(PassesWithin(3, kPatience), 3);

    EXPECT_TRUE(m_event->Reset());
    StartWaiters(3);
    EXPECT_EQ(PassesWithin(3, kBlockedWindow), 0);
    // Those blocked at the Set pass even when the Reset comes before they wake.
    EXPECT_TRUE(m_event->Set());
    EXPECT_TRUE(m_event->Reset());
    EXPECT_EQ(PassesWithin(3, kPatience), 3);
}

TEST_F(QelSyncEventTest, AutoEventLetsOneWaiterThroughPerSet)
{
    m_event.emplace(false, true);
    StartWaiters(3);
    EXPECT_EQ(PassesWithin(1, kPatience), 1);
    EXPECT_EQ(PassesWithin(1, kBlockedWindow), 0);
    EXPECT_TRUE(m_event->Set());
    EXPECT_EQ(PassesWithin(1, kPatience), 1);
    EXPECT_EQ(PassesWithin(1, kBlockedWindow), 0);
}

}  // namespace
