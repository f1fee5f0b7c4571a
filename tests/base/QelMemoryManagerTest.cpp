#include "base/QelMemoryManager.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdint>
#include <vector>

namespace {

std::uintptr_t Address(const void* p)
{
    return reinterpret_cast<std::uintptr_t>(p);
}

// The base class's own bodies, which hand out operating-system pages.
class PageManager final : public QelMemoryManager {};

// Hands out a buffer at a chosen distance from a 64-byte boundary, or nothing.
class OffsetManager final : public QelMemoryManager {
public:
    [[nodiscard]] void* Alloc(std::size_t size) noexcept override
    {
        m_asked = size;
        return m_failing ? nullptr : m_buffer + m_offset;
    }
    void Free(void*) noexcept override {}

    alignas(64) unsigned char m_buffer[128] = {};
    std::size_t m_offset = 0;
    std::size_t m_asked = 0;
    bool m_failing = false;
};

TEST(QelMemoryManagerTest, BaseAllocGivesZeroedPageAlignedBlocksEvenForSizeZero)
{
    PageManager manager;
    const auto page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
    for (std::size_t size : {std::size_t{0}, 2 * page + 1}) {
        auto* block = static_cast<unsigned char*>(manager.Alloc(size));
        ASSERT_NE(block, nullptr) << "size " << size;
        EXPECT_EQ(Address(block) % page, 0u);
        const std::size_t last = size == 0 ? 3 : size - 1;
        EXPECT_EQ(block[0] + block[last], 0) << "size " << size;
        block[last] = 1;
        manager.Free(block);
    }
    manager.Free(nullptr);
    EXPECT_EQ(manager.Alloc(SIZE_MAX), nullptr);
}

TEST(QelMemoryManagerTest, AllocAlignedRoundsUpInsideTheRawBlockThatFreeTakesBack)
{
    OffsetManager manager;
    for (std::size_t offset : {0, 1, 4, 15, 16, 17}) {
        manager.m_offset = offset;
        void* raw = nullptr;
        void* aligned = manager.AllocAligned(40, &raw);
        EXPECT_EQ(manager.m_asked, 56u);
        EXPECT_EQ(raw, manager.m_buffer + offset);
        EXPECT_EQ(Address(aligned), (Address(raw) + 15) / 16 * 16) << "offset " << offset;
    }
    manager.m_failing = true;
    void* raw = &manager;
    EXPECT_EQ(manager.AllocAligned(40, &raw), nullptr);
    EXPECT_EQ(raw, nullptr);
}

// The count of outstanding blocks is process-wide, and tracking is on from the start.
TEST(QelDumbMemoryManagerTest, CountsOutstandingBlocksOnlyWhileTrackingAndNeverBelowZero)
{
    const std::unique_ptr<QelDumbMemoryManager> manager = QelDumbMemoryManager::New();
    ASSERT_NE(manager, nullptr);
    const std::int32_t start = QelDumbMemoryManager::OutstandingBlocks();
    void* block = manager->Alloc(10);
    void* empty = manager->Alloc(0);
    ASSERT_NE(empty, nullptr);
    EXPECT_EQ(QelDumbMemoryManager::OutstandingBlocks(), start + 2);
    manager->Free(block);
    manager->Free(nullptr);
    EXPECT_EQ(QelDumbMemoryManager::OutstandingBlocks(), start + 1);
    manager->Free(empty);
#if !defined(__SANITIZE_ADDRESS__)  // which stops the process on such a size
    // The global allocator's exception must not get out, nor the failure be counted.
    EXPECT_EQ(manager->Alloc(SIZE_MAX / 2), nullptr);
    EXPECT_EQ(QelDumbMemoryManager::OutstandingBlocks(), start);
#endif

    // Blocks made while not tracking and freed while tracking drive the count to 0 and past it.
    QelDumbMemoryManager::SetTracking(false);
    std::vector<void*> blocks(start + 3);
    for (void*& untracked : blocks)
        untracked = manager->Alloc(8);
    EXPECT_EQ(QelDumbMemoryManager::OutstandingBlocks(), start);
    QelDumbMemoryManager::SetTracking(true);
    for (void* untracked : blocks)
        manager->Free(untracked);
    EXPECT_EQ(QelDumbMemoryManager::OutstandingBlocks(), 0);
}

}  // namespace
