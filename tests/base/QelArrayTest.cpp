#include "base/QelArray.h"
#include "base/QelPtr.h"

#include "support/AssertionText.h"
#include "support/BaseTestSupport.h"
#include "support/CountingMemoryManager.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <stdexcept>

namespace {

// Counts its destructions, and its constructor throws when asked to.
struct Tracked {
    explicit Tracked(int& count, bool fail = false) : destroyed(&count)
    {
        if (fail)
            throw std::runtime_error("refused");
    }
    ~Tracked() { ++*destroyed; }
    int* destroyed;
};

}  // namespace

template <>
inline constexpr bool kQelArrayBytewise<Tracked> = true;

namespace {

using Array = QelArray<std::int32_t>;
constexpr std::int32_t kDefault = -7;

// Elements start as 1000 + index, so a moved element shows where it came from.
std::unique_ptr<Array> MakeNumbered(const QelIntRange& range, QelMemoryManager* manager)
{
    auto array = Array::New(range, kDefault, manager);
    for (std::int32_t i = range.Min; array && i <= range.Max; ++i)
        array->Elem(i) = 1000 + i;
    return array;
}

// What a resize from `before` must leave in every element.
void ExpectKeptOrDefault(const Array& array, const QelIntRange& before)
{
    const QelIntRange range = array.Range();
    EXPECT_EQ(&array.Elem(range.Min), array.Data());
    for (std::int32_t i = range.Min; i <= range.Max; ++i)
        EXPECT_EQ(array.Elem(i), before.Contains(i) ? 1000 + i : kDefault) << "index " << i;
}

// true: blocks from a manager; false: malloc and realloc.
class QelArrayResizeTest : public ::testing::TestWithParam<bool> {};

TEST_P(QelArrayResizeTest, KeepsSharedElementsAtTheirIndicesAndFillsTheRestWithTheDefault)
{
    CountingMemoryManager counting;
    QelMemoryManager* manager = GetParam() ? &counting : nullptr;
    const QelIntRange before(0, 9);
    const QelIntRange targets[] = {{5, 14}, {-5, 4}, {2, 7}, {-3, 12}, {20, 29}, {-40, -1}};
    for (const QelIntRange& target : targets) {
        SCOPED_TRACE(testing::PrintToString(target));
        auto array = MakeNumbered(before, manager);
        ASSERT_TRUE(array->Resize(target));
        EXPECT_EQ(array->Range(), target);
        ExpectKeptOrDefault(*array, before);
    }
    // An empty range gives the block back; the array grows again from nothing.
    auto array = MakeNumbered(before, manager);
    ASSERT_TRUE(array->Resize(QelIntRange::Empty()));
    EXPECT_EQ(array->ZElem(), nullptr);
    EXPECT_EQ(counting.Outstanding(), 0u);
    ASSERT_TRUE(array->Resize({3, 5}));
    ExpectKeptOrDefault(*array, QelIntRange::Empty());
}

INSTANTIATE_TEST_SUITE_P(BothBlockSources, QelArrayResizeTest, ::testing::Bool(),
                         [](const auto& info) { return info.param ? "Manager" : "Malloc"; });

TEST(QelArrayTest, NewIndexesByTheRangeAndRefusesInfiniteRangesAndNegativeSizes)
{
    EXPECT_EQ(Array::New(4, 9, nullptr)->Range(), QelIntRange(0, 3));
    EXPECT_EQ(Array::New({QelIntRange::kLowest, 0}, 0, nullptr), nullptr);
    QelDebug::SetBugHandler(nullptr);
    EXPECT_EQ(AssertionText([] { (void)Array::New(-3, 0, nullptr); }),
              "QelArray::New (size, default_elem):\n  \"size\" must be positive or zero. -3 was given\n");

    // Elements with a destructor are all destroyed with the array, the default one too.
    int destroyed = 0;
    auto tracked = QelArray<Tracked>::New(8, Tracked(destroyed), nullptr);
    const int beforeDelete = destroyed;
    tracked.reset();
    EXPECT_EQ(destroyed - beforeDelete, 8 + 1);
}

// A refused resize keeps range and block, and the manager ends up with every block back.
TEST(QelArrayTest, RefusedResizeKeepsTheRangeAndTheBlock)
{
    CountingMemoryManager manager;
    auto array = MakeNumbered({-2, 7}, &manager);
    ASSERT_TRUE(array->Resize({0, 9}));
    EXPECT_EQ(manager.LastSize(), 10 * sizeof(std::int32_t));
    EXPECT_EQ(manager.Outstanding(), 1u);
    const std::int32_t* data = array->Data();

    EXPECT_FALSE(array->Resize({0, QelIntRange::kHighest}));
    ExpectKeptOrDefault(*array, {-2, 7});

    manager.SetFailing(true);
    EXPECT_EQ(Array::New(10, 0, &manager), nullptr);
    EXPECT_FALSE(array->Resize({5, 14}));
    EXPECT_EQ(array->Range(), QelIntRange(0, 9));
    EXPECT_EQ(array->Data(), data);
    array.reset();
    EXPECT_EQ(manager.Outstanding(), 0u);
    EXPECT_EQ(manager.ForeignFrees(), 0);
}

TEST(QelManagedPtrTest, DestroysTheObjectAndGivesTheBlockBackToTheManagerItCameFrom)
{
    CountingMemoryManager first, second;
    int destroyed = 0;
    QelManagedPtr<Tracked> a = QelMakeManaged<Tracked>(&first, destroyed);
    QelManagedPtr<Tracked> b = QelMakeManaged<Tracked>(&second, destroyed);
    ASSERT_TRUE(a && b);
    EXPECT_EQ(first.LastSize(), sizeof(Tracked));
    a.reset();
    b.reset();
    EXPECT_EQ(destroyed, 2);
    EXPECT_EQ(first.Outstanding() + second.Outstanding(), 0u);
    EXPECT_EQ(first.ForeignFrees() + second.ForeignFrees(), 0);

    // Make gives null without a block and returns the block of a throwing constructor.
    first.SetFailing(true);
    EXPECT_EQ(QelMakeManaged<Tracked>(&first, destroyed), nullptr);
    first.SetFailing(false);
    EXPECT_THROW((void)QelMakeManaged<Tracked>(&first, destroyed, true), std::runtime_error);
    EXPECT_EQ(first.AllocCalls(), 3);
    EXPECT_EQ(first.Outstanding(), 0u);
    EXPECT_EQ(destroyed, 2);
}

}  // namespace
