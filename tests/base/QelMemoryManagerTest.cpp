#include "base/QelMemoryManager.h"
#include "base/QelStackMemoryManager.h"

#include "base/imp/QelThrowBugHandler.h"
#include "support/MessageOf.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdint>
#include <string>
#include <vector>

namespace {

std::uintptr_t Address(const void* p) { return reinterpret_cast<std::uintptr_t>(p); }

// The base class's own bodies, which hand out operating-system pages.
class PageManager final : public QelMemoryManager {};

// Hands out a buffer at a chosen distance from a 64-byte boundary, or nothing.
struct OffsetManager final : QelMemoryManager {
    [[nodiscard]] void* Alloc(std::size_t size) noexcept override
    {
        m_asked = size;
        return m_failing ? nullptr : m_buffer + m_offset;
    }
    void Free(void*) noexcept override {}

    alignas(64) unsigned char m_buffer[128] = {};
    std::size_t m_offset = 0, m_asked = 0;
    bool m_failing = false;
};

// The base Alloc gives zeroed page-aligned blocks, even for size 0; AllocAligned
// rounds up inside the raw block, which is the one Free takes back.
TEST(QelMemoryManagerTest, BaseAllocGivesZeroedPagesAndAllocAlignedRoundsUpInsideTheRawBlock)
{
    PageManager pages;
    const auto page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
    for (std::size_t size : {std::size_t{0}, 2 * page + 1}) {
        auto* block = static_cast<unsigned char*>(pages.Alloc(size));
        ASSERT_NE(block, nullptr) << "size " << size;
        EXPECT_EQ(Address(block) % page, 0u);
        const std::size_t last = size == 0 ? 3 : size - 1;
        EXPECT_EQ(block[0] + block[last], 0) << "size " << size;
        block[last] = 1;
        pages.Free(block);
    }
    pages.Free(nullptr);
    EXPECT_EQ(pages.Alloc(SIZE_MAX), nullptr);

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

std::string ReportOfAlloc(QelStackMemoryManager& stack, std::size_t size)
{
    return MessageOf<QelThrowBugHandler::AssertException>([&] { (void)stack.Alloc(size); });
}

std::string OutOfSpaceReport(long used, long size, long capacity)
{
    return "QEL_ASSERT in src/base/QelStackMemoryManager, line 57\nQelStackMemoryManager::Alloc():\n  Out of space. "
           "Requesting " + std::to_string(used) + " + " + std::to_string(size) + " out of total " +
           std::to_string(capacity) + ".\n";
}

TEST(QelStackMemoryManagerTest, BlocksAreAlignedTakeTheNextMultipleOf64AboveTheirSizeAndStayInTheReservedSpace)
{
    QelStackMemoryManager stack;
    ASSERT_TRUE(stack.Reserve(1000));
    EXPECT_EQ(stack.Capacity(), 1400u);
    EXPECT_EQ(Address(stack.Base()) % 64, 0u);
    EXPECT_GT(stack.Base(), stack.Block());
    EXPECT_LE(stack.Base(), stack.Block() + 64);

    const std::pair<std::size_t, std::ptrdiff_t> taken[] = {{0, 64}, {63, 64}, {64, 128}, {65, 128}, {128, 192}};
    std::vector<void*> first;
    for (const auto& [size, bytes] : taken) {
        const std::byte* before = stack.Cursor();
        first.push_back(stack.Alloc(size));
        EXPECT_EQ(first.back(), before) << "size " << size;
        EXPECT_EQ(stack.Cursor() - before, bytes) << "size " << size;
    }
    stack.Reset();
    for (std::size_t i = 0; i < first.size(); ++i)
        EXPECT_EQ(stack.Alloc(taken[i].first), first[i]) << "again, block " << i;

    // Reserving no more than the capacity, or the impossible, changes nothing; the
    // slack must not wrap a huge size round to a small one.
    const std::byte* cursor = stack.Cursor();
    EXPECT_TRUE(stack.Reserve(1000) && stack.Reserve(10));
    EXPECT_FALSE(stack.Reserve(SIZE_MAX - 399));
    EXPECT_EQ(stack.Cursor(), cursor);
    EXPECT_EQ(stack.Capacity(), 1400u);
    ASSERT_TRUE(stack.Reserve(5000));  // the reports below show the new capacity
    EXPECT_EQ(stack.Cursor(), stack.Base());

    // A block may end exactly at the end of the reserved space but not one byte past.
    const auto room = static_cast<std::size_t>((stack.Block() + stack.Capacity()) - stack.Cursor());
    EXPECT_EQ(ReportOfAlloc(stack, room + 1), OutOfSpaceReport(0, room + 1, 5400));
    EXPECT_NE(ReportOfAlloc(stack, SIZE_MAX), "");  // no wrap-around to a small size
    EXPECT_EQ(stack.Cursor(), stack.Base());
    EXPECT_EQ(stack.Alloc(room), stack.Base());
    // The cursor now stands past the end, where even an empty block has no room.
    EXPECT_EQ(ReportOfAlloc(stack, 0), OutOfSpaceReport(stack.Cursor() - stack.Base(), 0, 5400));
    QelStackMemoryManager unreserved;
    EXPECT_EQ(ReportOfAlloc(unreserved, 0), OutOfSpaceReport(0, 0, 0));
}

}  // namespace
