#include "image_stack/QelImageStack.h"

#include "base/QelCrashReport.h"
#include "image/QelMemoryRasterImage.h"
#include "image_stack/QelImageStackFixedPointAccelerator.h"
#include "image_stack/TestSlices.h"
#include "support/AssertionText.h"
#include "support/BaseTestSupport.h"
#include "support/RealFaults.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <memory>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

namespace {

std::vector<float> ZOf(const QelImageStack& stack)
{
    std::vector<float> z;
    for (std::int32_t i = 0; i < stack.ImageCount(); ++i)
        z.push_back(stack.Records()[i].Z);
    return z;
}

std::string VerifyText(const QelImageStack& stack)
{
    char message[128] = "untouched";
    return stack.Verify(message, sizeof message) ? "verified" : message;
}

using QelImageStackTest = StackTest;

TEST_F(QelImageStackTest, NeighboursAreTheLastSliceAtOrBelowAndTheNextOne)
{
    std::int32_t lower = 7, upper = 7, hint = 1;
    EXPECT_EQ(m_stack->NeighborsAtFixedZ(0, lower, upper, hint), NoNeighbors);

    Fill({3.0f, 1.0f, 0.0f});  // fixed z 0, 32768, 98304
    const std::tuple<float, QelNeighborCodes, int, int> cases[] = {{-0.5f, UpperNeighborOnly, -1, 0},
        {0.0f, BothNeighbors, 0, 1}, {2.9f, BothNeighbors, 1, 2}, {3.0f, LowerNeighborOnly, 2, -1},
        {9.0f, LowerNeighborOnly, 2, -1}};
    for (auto [z, code, below, above] : cases) {
        EXPECT_EQ(m_stack->NeighborsAtZ(z, lower, upper), code) << z;
        EXPECT_EQ(std::pair(lower, upper), std::pair(below, above)) << z;
    }
    // At fixed z the nearest slice stands in for a missing side.
    const std::tuple<int, int, int, int> fixedCases[] = {{-1, 0, 0, 0}, {40000, 1, 2, 1}, {200000, 2, 2, 1}};
    for (auto [fixedZ, below, above, after] : fixedCases) {
        hint = 1;
        EXPECT_EQ(m_stack->NeighborsAtFixedZ(fixedZ, lower, upper, hint), BothNeighbors);
        EXPECT_EQ(std::tuple(lower, upper, hint), std::tuple(below, above, after)) << fixedZ;
    }
}

TEST_F(QelImageStackTest, RefusedSlicesChangeNothing)
{
    Fill({1.0f});
    const std::int32_t serial = m_stack->SerialNumber();
    for (const auto& [slice, z] : {std::pair{Slice(), 1.0f}, {Slice(5, 3), 2.0f}, {Slice(4, 2), 2.0f},
             {Slice(4, 3, 1), 2.0f}, {Slice(), 1000000.1f}, {Slice(), std::numeric_limits<float>::quiet_NaN()}})
        EXPECT_FALSE(m_stack->InsertImage(slice, z, false, false)) << z;
    EXPECT_FALSE(m_stack->InsertImage(Slice(), 2.0f, false, true));
    EXPECT_FALSE(m_stack->ReplaceImage(Slice(), 2.0f, false, false) ||
                 m_stack->ReplaceImage(Slice(), 1.0f, false, true));
    EXPECT_EQ(AssertionText([&] { (void)m_stack->InsertImage(nullptr, 5.0f, false, false); }),
              "InsertImage():\nNULL pointer (image)\n");
    EXPECT_EQ(AssertionText([&] { (void)m_stack->ReplaceImage(nullptr, 1.0f, false, false); }),
              "ReplaceImage():\n  NULL pointer (image)\n");
    EXPECT_EQ(AssertionText([&] { (void)m_stack->Image(1); }), "Image()\n  Index (1) out of range [0..0]\n");
    EXPECT_EQ(ZOf(*m_stack), (std::vector<float>{1.0f}));
    EXPECT_EQ(m_stack->SerialNumber(), serial);

    // Both ends of the z range are allowed, and 16384 slices but not one more.
    EXPECT_TRUE(m_stack->InsertImage(Slice(), 1000000.0f, false, false));
    EXPECT_TRUE(m_stack->InsertImage(Slice(), -1000000.0f, false, false));
    TestSlice* shared = Slice();
    for (std::int32_t i = 3; i < QelImageStack::kMaxImages; ++i)
        ASSERT_TRUE(m_stack->InsertImage(shared, static_cast<float>(i), false, false)) << i;
    EXPECT_FALSE(m_stack->InsertImage(shared, -1.0f, false, false));
    EXPECT_FALSE(m_stack->ReplaceImage(shared, 1.0f, false, false));
    EXPECT_EQ(m_stack->ImageCount(), 16384);
}

TEST_F(QelImageStackTest, BoundsFollowTheFirstAndLastZTruncatedTowardZero)
{
    Fill({-0.5f, 2.7f, 1.0f});
    // Sizes in x and y, not last indices.
    EXPECT_EQ(m_stack->MaxPoint(), QelVector3(4.0f, 3.0f, 2.7f));
    EXPECT_EQ(m_stack->BoundingBox(), QelIntBBox3({0, 3}, {0, 2}, {0, 2}));
    Fill({-1.5f});
    EXPECT_EQ(m_stack->MinPoint(), QelVector3(0.0f, 0.0f, -1.5f));
    EXPECT_EQ(m_stack->BoundingBox().Z, QelIntRange(-1, 2));  // -1.5 to -1, -0.5 to 0
    EXPECT_FALSE(m_stack->RemoveImageAt(4) || m_stack->RemoveImage(m_slices[0].get(), 0.5f));
    // The z decides, not the image.
    ASSERT_TRUE(m_stack->RemoveImageAt(0) && m_stack->RemoveImage(m_slices[0].get(), 2.7f));
    EXPECT_EQ(ZOf(*m_stack), (std::vector<float>{-0.5f, 1.0f}));
    EXPECT_EQ(m_stack->BoundingBox().Z, QelIntRange(0, 1));

    // Removing the last slice leaves a depth of one, which Verify finds, until Reset.
    ASSERT_TRUE(m_stack->RemoveImageAt(0) && m_stack->RemoveImageAt(0));
    EXPECT_EQ(m_stack->MaxPoint(), QelVector3(0.0f, 0.0f, 1.0f));
    EXPECT_EQ(VerifyText(*m_stack), "Invalid BBox in Image Stack");
    m_stack->SetPaddingValue(-5);
    m_stack->Reset();
    EXPECT_EQ(VerifyText(*m_stack), "verified");
    EXPECT_EQ(m_stack->PaddingValue(), -5);
    // The next first slice may be of any kind.
    EXPECT_TRUE(m_stack->InsertImage(Slice(2, 2, 1), 0.0f, false, true));
}

TEST_F(QelImageStackTest, OwnedSlicesAreDeletedWhenTheyLeaveAndOthersAreNot)
{
    int deletions = 0;
    const auto owned = [&] { return new TestSlice(4, 3, 2, 0, &deletions); };
    TestSlice borrowed(4, 3, 2, 0, &deletions);
    {
        auto stack = QelImageStack::New();
        for (float z : {0.0f, 1.0f, 2.0f})
            ASSERT_TRUE(stack->InsertImage(owned(), z, true, false));
        ASSERT_TRUE(stack->InsertImage(&borrowed, 5.0f, false, false));
        stack->SetPaddingValue(-2000);
        stack->SetDataMapping(0.5f, 7.0f);
        // An import scales z, copies what the caller set, shares the slices and owns none of them.
        auto copy = QelImageStack::New();
        EXPECT_FALSE(copy->ImportStack(*stack, 0.0f, false));
        ASSERT_TRUE(copy->ImportStack(*stack, 2.0f, true));
        EXPECT_EQ(ZOf(*copy), (std::vector<float>{0.0f, 0.5f, 1.0f, 2.5f}));
        EXPECT_EQ(copy->BoundingBox().Z, QelIntRange(0, 1));  // ends one lower than the last z gives
        EXPECT_EQ(std::pair(copy->PaddingValue(), copy->DataMapping()->Intercept), std::pair(-2000, 7.0f));
        EXPECT_EQ(deletions, 0);

        // An owned slice put in its own place stays.
        ASSERT_TRUE(stack->ReplaceImage(owned(), 0.0f, true, false));
        ASSERT_TRUE(stack->ReplaceImage(stack->Image(0).Image, 0.0f, true, false));
        EXPECT_EQ(deletions, 1);
        ASSERT_TRUE(stack->RemoveImageAt(1));
        ASSERT_TRUE(stack->RemoveImage(&borrowed, 5.0f));
        EXPECT_EQ(deletions, 2);
        stack->Reset();
        EXPECT_EQ(deletions, 4);
        ASSERT_TRUE(stack->InsertImage(owned(), 0.0f, true, false));
    }
    EXPECT_EQ(deletions, 5);
}

TEST_F(QelImageStackTest, TheAcceleratorIsSharedAndEveryChangeRaisesTheSerialNumberAndRebuildsIt)
{
    Fill({0.0f, 1.0f});
    // Threads asking at once share one accelerator, which is built once.
    std::vector<const QelImageStackFixedPointAccelerator*> seen(4, nullptr);
    std::vector<std::thread> threads;
    for (std::size_t t = 0; t < seen.size(); ++t)
        threads.emplace_back([&, t] { seen[t] = m_stack->FixedPointAccelerator(); });
    for (std::thread& thread : threads)
        thread.join();
    ASSERT_NE(seen[0], nullptr);
    EXPECT_EQ(seen, decltype(seen)(4, m_stack->FixedPointAccelerator()));

    const std::int32_t serial = m_stack->SerialNumber();
    ASSERT_TRUE(m_stack->InsertImage(Slice(), 3.0f, false, false));
    ASSERT_TRUE(m_stack->ReplaceImage(Slice(), 1.0f, false, false));
    ASSERT_TRUE(m_stack->RemoveImageAt(0));
    const QelImageStackFixedPointAccelerator* accelerator = m_stack->FixedPointAccelerator();
    ASSERT_EQ(accelerator->Count(), 2);
    for (std::int32_t i = 0; i < 2; ++i) {
        EXPECT_EQ(accelerator->Record(i).Z, m_stack->Image(i).Z) << i;
        EXPECT_EQ(accelerator->Record(i).Origin, m_stack->Image(i).Image->OriginAddress()) << i;
    }
    m_stack->Reset();
    EXPECT_EQ(m_stack->SerialNumber(), serial + 4);
    EXPECT_EQ(m_stack->FixedPointAccelerator(), nullptr);
}

TEST_F(QelImageStackTest, VerifyNamesTheFirstSliceThatDoesNotFit)
{
    // Replacements are let in unchecked: Verify finds what doesn't fit.
    Fill({0.0f, 1.0f, 2.0f});
    auto* page = reinterpret_cast<std::uint8_t*>(const_cast<int*>(ForbiddenPage()));
    auto unreadable = QelMemoryRasterImage::New(nullptr);  // looks right, its pixels can't be read
    unreadable->SetBuffer(4, 3, 2, 8, page, false);
    const std::tuple<float, QelRasterImage*, const char*> cases[] = {
        {2.0f, Slice(4, 3, 1, 8), "Invalid Image Bpp in Image Stack (slice=2)"},
        {1.0f, Slice(4, 2), "Invalid Image Height in Image Stack (slice=1)"},
        {0.0f, Slice(5, 3), "Invalid Image Width in Image Stack (slice=0)"},
        {1.0f, Slice(4, 3, 2, 12), "Invalid Image Bpl in Image Stack (slice=1)"},
        {1.0f, unreadable.get(), "Invalid Image pointer in Image Stack (slice=1)"},
        // A slice pointer that is itself unreadable faults outside the inner guard.
        {1.0f, reinterpret_cast<QelRasterImage*>(page), "An unknown error (exception) occurred during ImageStack check"},
    };
    for (const auto& [z, image, text] : cases) {
        ASSERT_TRUE(m_stack->ReplaceImage(image, z, false, false));
        EXPECT_EQ(VerifyText(*m_stack), text);
        ASSERT_TRUE(m_stack->ReplaceImage(Slice(), z, false, false));
    }
    ASSERT_TRUE(m_stack->ReplaceImage(unreadable.get(), 1.0f, false, false));
    char shortMessage[8];
    // Without a buffer only the result comes back; a short one is cut and terminated.
    EXPECT_FALSE(m_stack->Verify(nullptr, 0) || m_stack->Verify(shortMessage, sizeof shortMessage));
    EXPECT_EQ(QelLastExceptionCode(), 0xC0000005u);
    EXPECT_EQ(std::string(shortMessage), "Invalid");

    // A slice given new storage behind the stack's back leaves a stale accelerator.
    std::vector<std::uint8_t> before(24), after(24);
    auto moved = QelMemoryRasterImage::New(nullptr);
    moved->SetBuffer(4, 3, 2, 8, before.data(), false);
    ASSERT_TRUE(m_stack->ReplaceImage(moved.get(), 1.0f, false, false));
    ASSERT_NE(m_stack->FixedPointAccelerator(), nullptr);
    moved->SetBuffer(4, 3, 2, 8, after.data(), false);
    EXPECT_EQ(VerifyText(*m_stack), "Invalid Image pointer in accelerator (slice=1)");
    m_stack->DropAccelerators();
    EXPECT_EQ(VerifyText(*m_stack), "verified");
}

}  // namespace
