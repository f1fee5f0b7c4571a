#include "image_stack/QelImageStack.h"

#include "base/QelCrashReport.h"
#include "image/BugReportText.h"
#include "image/QelMemoryRasterImage.h"
#include "image_stack/QelImageStackFixedPointAccelerator.h"
#include "image_stack/TestSlices.h"
#include "image_stack/imp/QelImageStackImp.h"
#include "support/BaseTestSupport.h"
#include "support/CountingMemoryManager.h"
#include "support/RealFaults.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <memory>
#include <string>
#include <thread>
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

class QelImageStackTest : public ::testing::Test {
protected:
    // A slice kept alive by the fixture; 4 by 3 pixels of 2 bytes unless told.
    TestSlice* Slice(std::int32_t width = 4, std::int32_t height = 3, std::int32_t bytesPerPixel = 2,
                     std::int32_t bytesPerLine = 0)
    {
        m_slices.push_back(std::make_unique<TestSlice>(width, height, bytesPerPixel, bytesPerLine));
        return m_slices.back().get();
    }
    void Fill(std::initializer_list<float> zValues)
    {
        for (float z : zValues)
            ASSERT_TRUE(m_stack->InsertImage(Slice(), z, false, false)) << z;
    }

    std::vector<std::unique_ptr<TestSlice>> m_slices;  // declared first: outlives the stack
    std::unique_ptr<QelImageStack> m_stack = QelImageStack::New();
};

// ---- Order and look-up ----

TEST_F(QelImageStackTest, NeighboursAreTheLastSliceAtOrBelowAndTheNextOne)
{
    std::int32_t lower = 7, upper = 7;
    EXPECT_EQ(m_stack->NeighborsAtZ(0.0f, lower, upper), NoNeighbors);
    EXPECT_EQ(lower, -1);
    EXPECT_EQ(m_stack->IndexAtZ(0.0f), -1);

    Fill({3.0f});
    EXPECT_EQ(m_stack->NeighborsAtZ(3.0f, lower, upper), LowerNeighborOnly);
    EXPECT_EQ(lower, 0);
    EXPECT_EQ(m_stack->BoundingBox().Depth(), 1);

    Fill({1.0f, 0.0f});
    EXPECT_EQ(ZOf(*m_stack), (std::vector<float>{0.0f, 1.0f, 3.0f}));
    EXPECT_EQ(m_stack->Image(2).Image, m_slices[0].get());
    EXPECT_EQ(m_stack->IndexAtZ(1.0f), 1);
    EXPECT_EQ(m_stack->IndexAtZ(1.5f), -1);
    struct Case {
        float z;
        QelNeighborCodes code;
        std::int32_t lower, upper;
    };
    for (const Case& c : {Case{-0.5f, UpperNeighborOnly, -1, 0}, Case{0.0f, BothNeighbors, 0, 1},
                          Case{1.0f, BothNeighbors, 1, 2}, Case{2.9f, BothNeighbors, 1, 2},
                          Case{3.0f, LowerNeighborOnly, 2, -1}, Case{9.0f, LowerNeighborOnly, 2, -1}}) {
        EXPECT_EQ(m_stack->NeighborsAtZ(c.z, lower, upper), c.code) << c.z;
        EXPECT_EQ(lower, c.lower) << c.z;
        EXPECT_EQ(upper, c.upper) << c.z;
    }
}

TEST_F(QelImageStackTest, RefusedSlicesChangeNothing)
{
    Fill({1.0f});
    const std::int32_t serial = m_stack->SerialNumber();
    EXPECT_FALSE(m_stack->InsertImage(Slice(), 1.0f, false, false));
    // Two doubles that narrow to one float are one z.
    EXPECT_FALSE(m_stack->InsertImage(Slice(), static_cast<float>(1.0 + 1e-12), false, false));
    EXPECT_FALSE(m_stack->InsertImage(Slice(5, 3), 2.0f, false, false));
    EXPECT_FALSE(m_stack->InsertImage(Slice(4, 2), 2.0f, false, false));
    EXPECT_FALSE(m_stack->InsertImage(Slice(4, 3, 1), 2.0f, false, false));
    EXPECT_FALSE(m_stack->InsertImage(Slice(), 2.0f, false, true));
    EXPECT_FALSE(m_stack->InsertImage(Slice(), 1000000.1f, false, false));
    EXPECT_FALSE(m_stack->InsertImage(Slice(), std::numeric_limits<float>::quiet_NaN(), false, false));
    EXPECT_FALSE(m_stack->ReplaceImage(Slice(), 2.0f, false, false));
    EXPECT_FALSE(m_stack->ReplaceImage(Slice(), 1.0f, false, true));
    EXPECT_EQ(ZOf(*m_stack), (std::vector<float>{1.0f}));
    EXPECT_EQ(m_stack->SerialNumber(), serial);
    // Both ends of the z range are allowed.
    EXPECT_TRUE(m_stack->InsertImage(Slice(), 1000000.0f, false, false));
    EXPECT_TRUE(m_stack->InsertImage(Slice(), -1000000.0f, false, false));
}

TEST_F(QelImageStackTest, AFullStackRefusesTheNextSliceAndAnyReplacement)
{
    TestSlice shared(1, 1);
    for (std::int32_t i = 0; i < QelImageStack::kMaxImages; ++i)
        ASSERT_TRUE(m_stack->InsertImage(&shared, static_cast<float>(i), false, false)) << i;
    EXPECT_FALSE(m_stack->InsertImage(&shared, -1.0f, false, false));
    EXPECT_FALSE(m_stack->ReplaceImage(&shared, 0.0f, false, false));
    EXPECT_EQ(m_stack->ImageCount(), 16384);
    EXPECT_EQ(m_stack->FixedPointAccelerator()->LastFixedZ(), 16383 * 65536);
}

TEST_F(QelImageStackTest, NullImagesAndBadIndicesAreBugReports)
{
    Fill({0.0f, 1.0f, 2.0f});
    EXPECT_EQ(BugReportText([&] { (void)m_stack->InsertImage(nullptr, 5.0f, false, false); }),
              "InsertImage():\nNULL pointer (image)\n");
    EXPECT_EQ(BugReportText([&] { (void)m_stack->ReplaceImage(nullptr, 1.0f, false, false); }),
              "ReplaceImage():\n  NULL pointer (image)\n");
    EXPECT_EQ(BugReportText([&] { (void)m_stack->RemoveImage(nullptr, 1.0f); }),
              "RemoveImage():\n  NULL pointer (image)\n");
    EXPECT_EQ(BugReportText([&] { (void)m_stack->Image(-1); }), "Image()\n  Index (-1) out of range [0..2]\n");
    EXPECT_EQ(m_stack->ImageCount(), 3);
}

// ---- Bounds ----

TEST_F(QelImageStackTest, BoundsFollowTheFirstAndLastZTruncatedTowardZero)
{
    Fill({-0.5f, 2.7f, 1.0f});
    EXPECT_EQ(m_stack->MinPoint(), QelVector3(0.0f, 0.0f, -0.5f));
    // Sizes in x and y, not last indices.
    EXPECT_EQ(m_stack->MaxPoint(), QelVector3(4.0f, 3.0f, 2.7f));
    EXPECT_EQ(m_stack->BoundingBox(), QelIntBBox3({0, 3}, {0, 2}, {0, 2}));
    Fill({-1.5f});
    EXPECT_EQ(m_stack->BoundingBox().Z, QelIntRange(-1, 2));

    EXPECT_FALSE(m_stack->RemoveImageAt(4));
    EXPECT_FALSE(m_stack->RemoveImage(m_slices[0].get(), 0.5f));
    ASSERT_TRUE(m_stack->RemoveImageAt(0));
    // The image argument is not compared: the z decides.
    ASSERT_TRUE(m_stack->RemoveImage(m_slices[0].get(), 2.7f));
    EXPECT_EQ(ZOf(*m_stack), (std::vector<float>{-0.5f, 1.0f}));
    EXPECT_EQ(m_stack->MaxPoint(), QelVector3(4.0f, 3.0f, 1.0f));
    EXPECT_EQ(m_stack->BoundingBox().Z, QelIntRange(0, 1));
    EXPECT_EQ(VerifyText(*m_stack), "verified");
}

TEST_F(QelImageStackTest, RemovingTheLastSliceLeavesADepthOfOneUntilReset)
{
    Fill({5.0f});
    ASSERT_TRUE(m_stack->RemoveImageAt(0));
    EXPECT_EQ(m_stack->MinPoint(), QelVector3(0.0f, 0.0f, 0.0f));
    EXPECT_EQ(m_stack->MaxPoint(), QelVector3(0.0f, 0.0f, 1.0f));
    EXPECT_EQ(m_stack->BoundingBox().Z, QelIntRange(0, 0));
    // Such a stack is no longer a clean empty one, and Verify says so.
    EXPECT_EQ(VerifyText(*m_stack), "Invalid BBox in Image Stack");

    m_stack->SetPaddingValue(-5);
    m_stack->Reset();
    EXPECT_EQ(m_stack->MaxPoint(), QelVector3(0.0f, 0.0f, 0.0f));
    EXPECT_EQ(m_stack->BoundingBox(), QelIntBBox3());
    EXPECT_EQ(m_stack->Width(), 0);
    EXPECT_EQ(VerifyText(*m_stack), "verified");
    EXPECT_EQ(m_stack->PaddingValue(), -5);
    // The next first slice may be of any kind.
    EXPECT_TRUE(m_stack->InsertImage(Slice(2, 2, 1), 0.0f, false, true));
    EXPECT_TRUE(m_stack->IsSigned());
}

// ---- Ownership and memory ----

TEST_F(QelImageStackTest, OwnedSlicesAreDeletedWhenTheyLeaveAndOthersAreNot)
{
    int deletions = 0;
    const auto owned = [&] { return new TestSlice(4, 3, 2, 0, &deletions); };
    TestSlice borrowed(4, 3, 2, 0, &deletions);
    {
        auto stack = QelImageStack::New();
        for (float z : {0.0f, 1.0f, 2.0f})
            ASSERT_TRUE(stack->InsertImage(owned(), z, true, false));
        ASSERT_TRUE(stack->InsertImage(&borrowed, 3.0f, false, false));

        ASSERT_TRUE(stack->ReplaceImage(owned(), 0.0f, true, false));
        EXPECT_EQ(deletions, 1);
        // An owned slice put in its own place stays.
        ASSERT_TRUE(stack->ReplaceImage(stack->Image(0).Image, 0.0f, true, false));
        EXPECT_EQ(deletions, 1);
        ASSERT_TRUE(stack->RemoveImageAt(1));
        ASSERT_TRUE(stack->RemoveImage(&borrowed, 3.0f));
        EXPECT_EQ(deletions, 2);
        stack->Reset();
        EXPECT_EQ(deletions, 4);
        ASSERT_TRUE(stack->InsertImage(owned(), 0.0f, true, false));
    }
    EXPECT_EQ(deletions, 5);
}

TEST_F(QelImageStackTest, ARecordArrayThatCannotGrowLeavesAnEmptyStack)
{
    CountingMemoryManager manager;
    auto stack = QelImageStackImp::New(&manager);
    int deletions = 0;
    auto* owned = new TestSlice(4, 3, 2, 0, &deletions);
    ASSERT_TRUE(stack->InsertImage(Slice(), 0.0f, false, false));
    ASSERT_TRUE(stack->InsertImage(owned, 1.0f, true, false));

    manager.SetFailing(true);
    EXPECT_FALSE(stack->InsertImage(Slice(), 2.0f, false, false));
    EXPECT_EQ(stack->ImageCount(), 0);
    EXPECT_EQ(stack->FixedPointAccelerator(), nullptr);
    EXPECT_EQ(VerifyText(*stack), "verified");
    // The records are lost to the stack; what it owned is not deleted.
    EXPECT_EQ(deletions, 0);
    delete owned;
    EXPECT_EQ(manager.Outstanding(), 0u);

    manager.SetFailing(false);
    EXPECT_TRUE(stack->InsertImage(Slice(8, 8), 5.0f, false, false));
}

// ---- Change tracking and the fixed-point accelerator ----

TEST_F(QelImageStackTest, EveryChangeRaisesTheSerialNumberAndEveryStackStartsApart)
{
    auto imp = QelImageStackImp::New(nullptr);
    auto later = QelImageStack::New();
    EXPECT_EQ(later->SerialNumber() - imp->SerialNumber(), 65536);

    const std::int32_t serial = imp->SerialNumber();
    ASSERT_TRUE(imp->InsertImage(Slice(), 0.0f, false, false));
    EXPECT_TRUE(imp->IsChanged());
    imp->ClearChangedFlag();
    EXPECT_FALSE(imp->InsertImage(Slice(), 0.0f, false, false));
    EXPECT_FALSE(imp->IsChanged());
    ASSERT_TRUE(imp->InsertImage(Slice(), 1.0f, false, false));
    ASSERT_TRUE(imp->ReplaceImage(Slice(), 1.0f, false, false));
    ASSERT_TRUE(imp->RemoveImageAt(1));
    imp->Reset();
    EXPECT_EQ(imp->SerialNumber(), serial + 5);
}

TEST_F(QelImageStackTest, TheAcceleratorIsBuiltOnceAndRebuiltAfterEveryChange)
{
    EXPECT_EQ(m_stack->FixedPointAccelerator(), nullptr);
    Fill({0.0f, 1.0f});
    const QelImageStackFixedPointAccelerator* first = m_stack->FixedPointAccelerator();
    ASSERT_NE(first, nullptr);
    EXPECT_EQ(m_stack->FixedPointAccelerator(), first);

    Fill({3.0f});
    EXPECT_EQ(m_stack->FixedPointAccelerator()->Count(), 3);
    EXPECT_EQ(m_stack->FixedPointAccelerator()->Scale(), 32768.0);
    TestSlice* other = Slice();
    ASSERT_TRUE(m_stack->ReplaceImage(other, 1.0f, false, false));
    EXPECT_EQ(m_stack->FixedPointAccelerator()->Record(1).Origin, other->OriginAddress());
    ASSERT_TRUE(m_stack->RemoveImageAt(2));
    EXPECT_EQ(m_stack->FixedPointAccelerator()->Count(), 2);
    m_stack->Reset();
    EXPECT_EQ(m_stack->FixedPointAccelerator(), nullptr);
}

TEST_F(QelImageStackTest, ThreadsAskingForTheAcceleratorAtOnceShareOne)
{
    Fill({0.0f, 1.0f, 2.0f, 4.0f});
    std::vector<const QelImageStackFixedPointAccelerator*> seen(4, nullptr);
    std::vector<std::thread> threads;
    for (std::size_t t = 0; t < seen.size(); ++t)
        threads.emplace_back([&, t] { seen[t] = m_stack->FixedPointAccelerator(); });
    for (std::thread& thread : threads)
        thread.join();
    ASSERT_NE(seen[0], nullptr);
    for (const auto* accelerator : seen)
        EXPECT_EQ(accelerator, seen[0]);
}

TEST_F(QelImageStackTest, NeighboursAtFixedZStandInForAMissingSide)
{
    std::int32_t lower = 7, upper = 7, hint = 1;
    EXPECT_EQ(m_stack->NeighborsAtFixedZ(0, lower, upper, hint), NoNeighbors);
    EXPECT_EQ(lower, -1);
    EXPECT_EQ(upper, -1);

    Fill({10.0f, 11.0f, 13.0f});  // fixed z 0, 32768, 98304
    struct Case {
        std::int32_t fixedZ, lower, upper, hint;
    };
    for (const Case& c : {Case{-1, 0, 0, 0}, Case{0, 0, 1, 0}, Case{40000, 1, 2, 1}, Case{98304, 2, 2, 1},
                          Case{200000, 2, 2, 1}}) {
        hint = 1;
        EXPECT_EQ(m_stack->NeighborsAtFixedZ(c.fixedZ, lower, upper, hint), BothNeighbors) << c.fixedZ;
        EXPECT_EQ(lower, c.lower) << c.fixedZ;
        EXPECT_EQ(upper, c.upper) << c.fixedZ;
        EXPECT_EQ(hint, c.hint) << c.fixedZ;
    }
}

// ---- Verify ----

TEST_F(QelImageStackTest, VerifyNamesTheFirstSliceThatDoesNotFit)
{
    // A different pitch is let in, and so is any replacement: Verify finds them.
    auto pitched = QelImageStack::New();
    ASSERT_TRUE(pitched->InsertImage(Slice(), 0.0f, false, false));
    ASSERT_TRUE(pitched->InsertImage(Slice(4, 3, 2, 12), 1.0f, false, false));
    EXPECT_EQ(VerifyText(*pitched), "Invalid Image Bpl in Image Stack (slice=0)");

    Fill({0.0f, 1.0f, 2.0f});
    ASSERT_TRUE(m_stack->ReplaceImage(Slice(4, 3, 1, 8), 2.0f, false, false));
    EXPECT_EQ(VerifyText(*m_stack), "Invalid Image Bpp in Image Stack (slice=2)");
    ASSERT_TRUE(m_stack->ReplaceImage(Slice(4, 2), 1.0f, false, false));
    EXPECT_EQ(VerifyText(*m_stack), "Invalid Image Height in Image Stack (slice=1)");
    ASSERT_TRUE(m_stack->ReplaceImage(Slice(5, 3), 0.0f, false, false));
    EXPECT_EQ(VerifyText(*m_stack), "Invalid Image Width in Image Stack (slice=0)");

    // Without a buffer only the result comes back; a short buffer is cut and terminated.
    EXPECT_FALSE(m_stack->Verify(nullptr, 0));
    char shortMessage[8];
    EXPECT_FALSE(m_stack->Verify(shortMessage, sizeof shortMessage));
    EXPECT_EQ(std::string(shortMessage), "Invalid");
}

TEST_F(QelImageStackTest, VerifyReadsEverySliceUnderAGuard)
{
    Fill({0.0f, 1.0f});
    // The slice looks right, but its pixels lie on a page that can't be read.
    auto* page = reinterpret_cast<std::uint8_t*>(const_cast<int*>(ForbiddenPage()));
    auto unreadable = QelMemoryRasterImage::New(nullptr);
    unreadable->SetBuffer(4, 3, 2, 8, page, false);
    ASSERT_TRUE(m_stack->ReplaceImage(unreadable.get(), 1.0f, false, false));
    EXPECT_EQ(VerifyText(*m_stack), "Invalid Image pointer in Image Stack (slice=1)");
    EXPECT_EQ(QelLastExceptionCode(), 0xC0000005u);

    // A slice pointer that is itself unreadable faults outside the inner guard.
    ASSERT_TRUE(m_stack->ReplaceImage(reinterpret_cast<QelRasterImage*>(page), 1.0f, false, false));
    EXPECT_EQ(VerifyText(*m_stack), "An unknown error (exception) occurred during ImageStack check");
    ASSERT_TRUE(m_stack->ReplaceImage(Slice(), 1.0f, false, false));
    EXPECT_EQ(VerifyText(*m_stack), "verified");
}

// A slice given new storage behind the stack's back leaves a stale accelerator.
TEST_F(QelImageStackTest, VerifyFindsAnAcceleratorThatNoLongerMatchesTheSlices)
{
    std::vector<std::uint8_t> before(24), after(24);
    auto slice = QelMemoryRasterImage::New(nullptr);
    slice->SetBuffer(4, 3, 2, 8, before.data(), false);
    Fill({0.0f});
    ASSERT_TRUE(m_stack->InsertImage(slice.get(), 1.0f, false, false));
    ASSERT_NE(m_stack->FixedPointAccelerator(), nullptr);
    EXPECT_EQ(VerifyText(*m_stack), "verified");

    slice->SetBuffer(4, 3, 2, 8, after.data(), false);
    EXPECT_EQ(VerifyText(*m_stack), "Invalid Image pointer in accelerator (slice=1)");
    m_stack->DropAccelerators();
    EXPECT_EQ(VerifyText(*m_stack), "verified");
    ASSERT_TRUE(m_stack->RemoveImageAt(1));
}

// ---- Import ----

TEST_F(QelImageStackTest, AnImportSharesTheSlicesAtScaledZAndCopiesWhatTheCallerSet)
{
    int deletions = 0;
    ASSERT_TRUE(m_stack->InsertImage(new TestSlice(4, 3, 2, 0, &deletions), 0.0f, true, false));
    Fill({2.0f, 5.0f});
    std::uint16_t low = 1, high = 1;
    EXPECT_FALSE(m_stack->StoredRange(&low, &high));
    EXPECT_EQ(high, 65535);
    m_stack->SetPaddingValue(-2000);
    m_stack->SetValuePair(1, 2);
    m_stack->SetStoredRange(3, 4);
    m_stack->SetDataMapping(0.5f, 7.0f);

    auto copy = QelImageStack::New();
    EXPECT_FALSE(copy->ImportStack(*m_stack, 0.0f, false));
    ASSERT_TRUE(copy->ImportStack(*m_stack, 2.0f, true));
    EXPECT_EQ(ZOf(*copy), (std::vector<float>{0.0f, 1.0f, 2.5f}));
    EXPECT_FALSE(copy->Image(0).Owned);
    EXPECT_EQ(copy->MaxPoint(), QelVector3(4.0f, 3.0f, 2.5f));
    // The box ends one lower than the last z gives.
    EXPECT_EQ(copy->BoundingBox(), QelIntBBox3({0, 3}, {0, 2}, {0, 1}));
    EXPECT_EQ(copy->PaddingValue(), -2000);
    std::int32_t second = 0;
    EXPECT_TRUE(copy->ValuePair(nullptr, &second));
    EXPECT_EQ(second, 2);
    EXPECT_TRUE(copy->StoredRange(&low, nullptr));
    EXPECT_EQ(low, 3);
    EXPECT_EQ(copy->DataMapping()->Intercept, 7.0f);

    copy.reset();
    EXPECT_EQ(deletions, 0);
    m_stack.reset();
    EXPECT_EQ(deletions, 1);
}

}  // namespace
