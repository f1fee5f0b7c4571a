#include "base/QelStackMemoryManager.h"

#include "base/imp/QelThrowBugHandler.h"
#include "support/MessageOf.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

namespace {

std::string ReportOfAlloc(QelStackMemoryManager& stack, std::size_t size)
{
    return MessageOf<QelThrowBugHandler::AssertException>([&] { (void)stack.Alloc(size); });
}

std::string OutOfSpaceReport(long used, long size, long capacity)
{
    return "QEL_ASSERT in src/base/QelStackMemoryManager, line 57\n"
           "QelStackMemoryManager::Alloc():\n  Out of space. Requesting " +
           std::to_string(used) + " + " + std::to_string(size) + " out of total " + std::to_string(capacity) + ".\n";
}

class QelStackMemoryManagerTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        QelDebug::SetBugHandler(nullptr);
        ASSERT_TRUE(m_stack.Reserve(1000));
    }
    QelStackMemoryManager m_stack;
};

TEST_F(QelStackMemoryManagerTest, EachBlockIsAlignedAndTakesTheNextMultipleOf64StrictlyAboveItsSize)
{
    EXPECT_EQ(m_stack.Capacity(), 1400u);
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(m_stack.Base()) % 64, 0u);
    EXPECT_GT(m_stack.Base(), m_stack.Block());
    EXPECT_LE(m_stack.Base(), m_stack.Block() + 64);

    const std::vector<std::pair<std::size_t, std::ptrdiff_t>> taken = {
        {0, 64}, {63, 64}, {64, 128}, {65, 128}, {128, 192}};
    std::vector<void*> first;
    for (const auto& [size, bytes] : taken) {
        const std::byte* before = m_stack.Cursor();
        first.push_back(m_stack.Alloc(size));
        EXPECT_EQ(first.back(), before) << "size " << size;
        EXPECT_EQ(m_stack.Cursor() - before, bytes) << "size " << size;
    }
    m_stack.Reset();
    for (std::size_t i = 0; i < taken.size(); ++i)
        EXPECT_EQ(m_stack.Alloc(taken[i].first), first[i]) << "again, block " << i;
}

TEST_F(QelStackMemoryManagerTest, ReserveNotAboveTheCapacityOrImpossibleChangesNothing)
{
    (void)m_stack.Alloc(100);
    const std::byte* cursor = m_stack.Cursor();
    EXPECT_TRUE(m_stack.Reserve(1000));
    EXPECT_TRUE(m_stack.Reserve(10));
    // The slack must not wrap a huge size round to a small one.
    EXPECT_FALSE(m_stack.Reserve(SIZE_MAX - 399));
    EXPECT_EQ(m_stack.Cursor(), cursor);
    EXPECT_EQ(m_stack.Capacity(), 1400u);

    ASSERT_TRUE(m_stack.Reserve(5000));
    EXPECT_EQ(m_stack.Capacity(), 5400u);
    EXPECT_EQ(m_stack.Cursor(), m_stack.Base());
}

TEST_F(QelStackMemoryManagerTest, BlockMayEndExactlyAtTheEndOfTheReservedSpaceButNotOneBytePast)
{
    const auto room = static_cast<std::size_t>((m_stack.Block() + m_stack.Capacity()) - m_stack.Cursor());
    EXPECT_EQ(ReportOfAlloc(m_stack, room + 1), OutOfSpaceReport(0, room + 1, 1400));
    EXPECT_NE(ReportOfAlloc(m_stack, SIZE_MAX), "");  // no wrap-around to a small size
    EXPECT_EQ(m_stack.Cursor(), m_stack.Base());

    EXPECT_EQ(m_stack.Alloc(room), m_stack.Base());
    // The cursor now stands past the end, where even an empty block has no room.
    EXPECT_EQ(ReportOfAlloc(m_stack, 0), OutOfSpaceReport(m_stack.Cursor() - m_stack.Base(), 0, 1400));

    QelStackMemoryManager unreserved;
    EXPECT_EQ(ReportOfAlloc(unreserved, 0), OutOfSpaceReport(0, 0, 0));
}

}  // namespace
