#include "image/QelMemoryRasterImage.h"

#include "base/QelMemoryManager.h"
#include "image/QelRgbColorSpec.h"
#include "support/AssertionText.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

namespace {

constexpr std::uint8_t kGuard = 0xCC;

// Gives blocks until told to refuse; counts what comes back. Blocks lie 8 bytes off a
// 16-byte boundary, so an aligned block differs from the one that must be freed.
class SwitchableManager final : public QelMemoryManager {
public:
    void* Alloc(std::size_t size) noexcept override
    {
        auto* block = refuse ? nullptr : new (std::nothrow) std::uint8_t[size + 8];
        outstanding += block ? 1 : 0;
        return block ? block + 8 : nullptr;
    }
    void Free(void* block) noexcept override
    {
        --outstanding;
        delete[] (static_cast<std::uint8_t*>(block) - 8);
    }

    bool refuse = false;
    int outstanding = 0;
};

// An image over a caller's buffer filled with guard bytes, so that every byte a
// method must not touch can be checked afterwards.
struct GuardedImage {
    GuardedImage(std::int32_t width, std::int32_t height, std::int32_t bytesPerPixel, std::int32_t pitch,
                 std::size_t misalignment = 0)
        : storage(misalignment + std::size_t(pitch) * height, kGuard), image(QelMemoryRasterImage::New(nullptr))
    {
        image->SetBuffer(width, height, bytesPerPixel, pitch, storage.data() + misalignment, false);
    }

    std::vector<std::uint8_t> storage;
    std::unique_ptr<QelMemoryRasterImage> image;
};

std::uint16_t Pixel16(const QelRasterImage& image, std::int32_t x, std::int32_t y)
{
    std::uint16_t pixel;
    std::memcpy(&pixel, image.PixelAddress(x, y), 2);
    return pixel;
}

std::unique_ptr<QelMemoryRasterImage> Resized(QelMemoryManager* manager, std::int32_t bytesPerPixel,
                                              QelIntRange x, QelIntRange y)
{
    auto image = QelMemoryRasterImage::New(manager);
    EXPECT_TRUE(image->Resize(bytesPerPixel, x, y));
    return image;
}

TEST(QelMemoryRasterImageTest, ResizeBacksEverySafetyPixelAndClearCoversOnlyTheScratchMargin)
{
    // The scratch columns reach past the requested safety columns, which must grow to hold them.
    const QelIntRange sizeX(0, 3), sizeY(0, 2), scratchX(-1, 4), scratchY(-1, 3);
    SwitchableManager manager;
    for (QelMemoryManager* source : {static_cast<QelMemoryManager*>(&manager), (QelMemoryManager*)nullptr}) {
        SCOPED_TRACE(source ? "memory manager" : "C heap");
        auto image = QelMemoryRasterImage::New(source);
        ASSERT_TRUE(image->Resize(2, sizeX, sizeY, scratchX, scratchY, QelIntRange(-3, 3), QelIntRange(-2, 4)));
        EXPECT_EQ(image->SafetyXRange(), QelIntRange(-3, 4));
        ASSERT_EQ(image->BytesPerLine(), 8 * 2);
        EXPECT_EQ(image->OriginAddress(), image->Buffer() + 2 * 16 + 3 * 2);
        // A block short of the safety rows shows under ASan.
        std::memset(image->Buffer(), kGuard, 16 * 7);
        image->Clear(true, 0x1255);
        for (std::int32_t y = -2; y <= 4; ++y)
            for (std::int32_t x = -3; x <= 4; ++x)
                EXPECT_EQ(Pixel16(*image, x, y), scratchX.Contains(x) && scratchY.Contains(y) ? 0x1255 : 0xCCCC)
                    << "x " << x << ", y " << y;
    }
    EXPECT_EQ(manager.outstanding, 0);

    // A failed allocation empties the image and frees the old block.
    auto image = Resized(&manager, 1, QelIntRange(0, 9), QelIntRange(0, 9));
    manager.refuse = true;
    EXPECT_FALSE(image->Resize(1, QelIntRange(0, 9), QelIntRange(0, 9)));
    EXPECT_EQ(manager.outstanding, 0);
    EXPECT_EQ(image->Height(), 0);
    EXPECT_EQ(image->OriginAddress(), nullptr);
    image->Clear(false, 0);  // an empty scratch rectangle: nothing written through the null origin
}

// Three-byte pixels take no value, only zeros.
TEST(QelMemoryRasterImageTest, ClearWritesEachPixelSizeAndLeavesBytesBetweenLines)
{
    const std::uint32_t value = 0xDEADBEEF;
    const std::uint8_t pixel8[] = {0xEF, 0xBE, 0xAD, 0xDE, 0xEF, 0xBE, 0xAD, 0xDE};
    // 13 pixels make rows with a head, aligned blocks and a tail; a misaligned start
    // makes the pattern begin in the middle of a block.
    constexpr std::int32_t kWidth = 13, kHeight = 3;
    for (const std::int32_t bpp : {1, 2, 4, 8})
        for (const std::int32_t padding : {0, 5})
            for (const std::size_t misalignment : {0u, 1u, 6u}) {
                SCOPED_TRACE(testing::Message() << bpp << " bytes, padding " << padding << ", misaligned by "
                                                << misalignment);
                const std::int32_t rowBytes = kWidth * bpp;
                GuardedImage g(kWidth, kHeight, bpp, rowBytes + padding, misalignment);
                g.image->Clear(true, value);
                for (std::size_t i = 0; i < g.storage.size(); ++i) {
                    const std::ptrdiff_t at = std::ptrdiff_t(i) - std::ptrdiff_t(misalignment);
                    const std::ptrdiff_t column = at < 0 ? -1 : at % (rowBytes + padding);
                    const bool inLine = at >= 0 && column < rowBytes;
                    ASSERT_EQ(g.storage[i], inLine ? pixel8[column % bpp] : kGuard) << "byte " << i;
                }
            }
    GuardedImage g(4, 2, 3, 4 * 3 + 2);
    g.image->Clear(true, 0x00112233);
    EXPECT_EQ(g.storage, std::vector<std::uint8_t>(g.storage.size(), kGuard));
    g.image->Clear(false, 0x00112233);
    for (std::size_t i = 0; i < g.storage.size(); ++i)
        EXPECT_EQ(g.storage[i], i % 14 < 12 ? 0 : kGuard) << "byte " << i;
}

TEST(QelMemoryRasterImageTest, CopyCopiesOnlyTheCommonCornerLineByLine)
{
    // The source starts at (-2, -1), so the shared corner starts at (0, 0) in both.
    auto source = Resized(nullptr, 2, QelIntRange(-2, 3), QelIntRange(-1, 6));
    for (std::int32_t y = -1; y <= 6; ++y)
        for (std::int32_t x = -2; x <= 3; ++x)
            *reinterpret_cast<std::uint16_t*>(source->PixelAddress(x, y)) = std::uint16_t(100 * y + x + 300);

    GuardedImage g(6, 4, 2, 6 * 2 + 3);
    EXPECT_TRUE(g.image->Copy(*source));
    // Bytes past column 3 keep their guard; a wider copy would reach columns 4 and 5 first.
    for (std::int32_t y = 0; y < 4; ++y)
        for (std::int32_t x = 0; x < 6; ++x)
            EXPECT_EQ(Pixel16(*g.image, x, y), x <= 3 ? 100 * y + x + 300 : 0xCCCC) << "x " << x << ", y " << y;

    // Scratch rectangles that share nothing: false, and nothing written.
    auto apart = Resized(nullptr, 1, QelIntRange(10, 12), QelIntRange(0, 3));
    apart->Clear(true, 7);
    GuardedImage untouched(6, 4, 1, 6);
    EXPECT_FALSE(untouched.image->Copy(*apart));
    EXPECT_EQ(untouched.storage, std::vector<std::uint8_t>(untouched.storage.size(), kGuard));
}

TEST(QelMemoryRasterImageTest, SetBufferStoresTheBufferAndFreesOnlyWhatTheImageOwned)
{
    SwitchableManager manager;
    auto image = Resized(&manager, 1, QelIntRange(0, 3), QelIntRange(0, 3));
    std::vector<std::uint8_t> buffer(200, kGuard);
    image->SetBuffer(0, 2, 1, 4, buffer.data(), false);
    EXPECT_EQ(manager.outstanding, 0);
    EXPECT_TRUE(image->XRange().IsEmpty());  // not the reversed (0, -1)
    EXPECT_EQ(image->OriginAddress(), buffer.data());
    // The caller's buffer survives the next Resize; a block given with ownership goes
    // back to the manager with the image.
    ASSERT_TRUE(image->Resize(1, QelIntRange(0, 1), QelIntRange(0, 1)));
    image->SetBuffer(4, 4, 2, 8, static_cast<std::uint8_t*>(manager.Alloc(32)), true);
    image.reset();
    EXPECT_EQ(manager.outstanding, 0);

    // With ranges the origin lies by the safety minimum: pitch 15, 2 bytes per pixel, and
    // the scratch reaches one row further down than the safety rows.
    image = QelMemoryRasterImage::New(nullptr);
    const QelIntRange s(0, 3), safety(-1, 4);
    image->SetBuffer(2, 15, s, s, s, QelIntRange(0, 5), safety, safety, buffer.data(), false);
    EXPECT_EQ(image->OriginAddress(), buffer.data() + 15 + 2);
    EXPECT_EQ(image->SafetyYRange(), QelIntRange(-1, 5));
}

TEST(QelMemoryRasterImageTest, BadArgumentsAreReportedInOrderAndChangeNothing)
{
    GuardedImage g(2, 2, 1, 2);
    std::uint8_t* const buffer = g.storage.data();
    const QelIntRange s(0, 3), small(1, 3), reversed(0, -1), none, safety(-1, 4);
    const std::string resize = "QelMemoryRasterImage::Resize: Unreasonable arguments\n";
    const std::string heading = "QelMemoryRasterImage::SetBuffer()\n";
    const std::string unreasonable = "QelMemoryRasterImage::SetBuffer: Unreasonable arguments\n";
    const struct {
        std::function<void()> call;
        std::string text;
    } cases[] = {
        // No bytes per pixel, an empty or reversed size, scratch or safety smaller than the size.
        {[&] { (void)g.image->Resize(0, s, s, s, s, s, s); }, resize},
        {[&] { (void)g.image->Resize(2, none, s, s, s, s, s); }, resize},
        {[&] { (void)g.image->Resize(2, s, reversed, s, s, s, s); }, resize},
        {[&] { (void)g.image->Resize(2, s, s, small, s, s, s); }, resize},
        {[&] { (void)g.image->Resize(2, s, s, s, s, none, small); }, resize},
        {[&] { g.image->SetBuffer(-1, -2, 2, 0, nullptr, false); }, heading + "Width was negative (-1)\n"},
        {[&] { g.image->SetBuffer(1, -2, 2, 0, nullptr, false); }, heading + "Height was negative (-2)\n"},
        {[&] { g.image->SetBuffer(4, 1, 2, 7, nullptr, false); },
         heading + "Given a width of 4 and 2 bytes per pixel,\nbytes per line must be at least 8. It was 7.\n"},
        {[&] { g.image->SetBuffer(4, 1, 2, 8, nullptr, false); }, heading + "NULL pointer trapped (buffer)"},
        // With ranges a null buffer comes before bad ranges; safety columns must fit the pitch.
        {[&] { g.image->SetBuffer(0, 8, s, s, s, s, s, s, nullptr, false); },
         heading + "NULL pointer trapped (buffer)"},
        {[&] { g.image->SetBuffer(2, 11, s, s, s, s, safety, s, buffer, false); }, unreasonable},
        {[&] { g.image->SetBuffer(2, 8, s, s, small, s, s, s, buffer, false); }, unreasonable},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << "case " << &c - cases);
        EXPECT_EQ(AssertionText(c.call), c.text);
        EXPECT_EQ(g.image->Width(), 2);
        EXPECT_EQ(g.image->OriginAddress(), buffer);
    }
}

TEST(QelMemoryRasterImageTest, HoldingTheSpecItHoldsAlreadyKeepsIt)
{
    auto image = QelMemoryRasterImage::New(nullptr);
    QelRgbColorSpec* held = QelRgbColorSpec::New().release();
    image->HoldRgbColorSpec(std::unique_ptr<QelRgbColorSpec>(held));
    image->HoldRgbColorSpec(std::unique_ptr<QelRgbColorSpec>(held));  // no double ownership
    EXPECT_EQ(image->RgbColorSpec(), held);
}

}  // namespace
