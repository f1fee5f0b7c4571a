#include "base/QelPtr.h"

#include "support/CountingMemoryManager.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <utility>

namespace {

struct Counted {
    explicit Counted(int& destroyed, bool fail = false) : m_destroyed(destroyed)
    {
        if (fail)
            throw std::runtime_error("refused");
    }
    ~Counted() { ++m_destroyed; }
    int& m_destroyed;
};

TEST(QelManagedPtrTest, DestroysTheObjectAndGivesTheBlockBackToTheManagerItCameFrom)
{
    CountingMemoryManager first;
    CountingMemoryManager second;
    int destroyed = 0;
    QelManagedPtr<Counted> a = QelMakeManaged<Counted>(&first, destroyed);
    QelManagedPtr<Counted> b = QelMakeManaged<Counted>(&second, destroyed);
    ASSERT_NE(a, nullptr);
    ASSERT_NE(b, nullptr);
    EXPECT_EQ(first.LastSize(), sizeof(Counted));

    // Ownership moves with its manager.
    a = std::move(b);
    EXPECT_EQ(destroyed, 1);
    EXPECT_EQ(first.Outstanding(), 0u);
    EXPECT_EQ(second.Outstanding(), 1u);
    a.reset();
    EXPECT_EQ(destroyed, 2);
    EXPECT_EQ(second.Outstanding(), 0u);
    EXPECT_EQ(first.ForeignFrees() + second.ForeignFrees(), 0);

    // Make gives null without a block and returns the block of a throwing constructor.
    first.SetFailing(true);
    EXPECT_EQ(QelMakeManaged<Counted>(&first, destroyed), nullptr);
    first.SetFailing(false);
    EXPECT_THROW((void)QelMakeManaged<Counted>(&first, destroyed, true), std::runtime_error);
    EXPECT_EQ(first.AllocCalls(), 3);
    EXPECT_EQ(first.Outstanding(), 0u);
    EXPECT_EQ(destroyed, 2);
}

}  // namespace
