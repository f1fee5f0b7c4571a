#include "ax/rendering/ImageStack.h"

#include "ax/rendering/MemoryRasterImage.h"
#include "ax/system/Exception.h"
#include "image/QelMemoryRasterImage.h"
#include "image/QelRasterImage.h"
#include "image/QelRgbColorSpec.h"
#include "image_stack/QelImageStack.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <limits>
#include <new>
#include <string>

namespace Ax::Rendering {

namespace {

// Room up front: a stack of up to 2048 slices fills without moving its records.
constexpr std::size_t kInitialRecordCapacity = 2048;

// The shortest text that reads back as the same double, with a decimal point
// whatever the locale.
std::string InvariantText(double value)
{
    if (std::isnan(value))
        return "NaN";
    if (std::isinf(value))
        return value > 0 ? "Infinity" : "-Infinity";
    char text[32];
    const auto result = std::to_chars(text, text + sizeof text, value);
    return std::string(text, result.ptr);
}

[[noreturn]] void ThrowInvalidZ(double zCoord, const char* paramName)
{
    throw Ax::System::ArgumentOutOfRangeException("Invalid Z coordinate " + InvariantText(zCoord), paramName);
}

void CheckImage(const std::shared_ptr<RasterImage>& image)
{
    if (!image)
        throw Ax::System::ArgumentNullException("Value cannot be null.", "image");
}

std::unique_ptr<QelImageStack> NewNativeStack()
{
    std::unique_ptr<QelImageStack> stack = QelImageStack::New();
    if (!stack)
        throw std::bad_alloc();
    return stack;
}

}  // namespace

ImageStack::ImageStack() : m_ownedStack(NewNativeStack())
{
    m_stack = m_ownedStack.get();
    m_records.reserve(kInitialRecordCapacity);
}

ImageStack::ImageStack(QelImageStack* stack, const Ax::Primitives::PixelFormat& pixelFormat, bool takeOwnership)
    : m_stack(stack)
{
    if (takeOwnership)
        m_ownedStack.reset(stack);
    const std::int32_t count = stack->ImageCount();
    m_records.reserve(std::max<std::size_t>(kInitialRecordCapacity, static_cast<std::size_t>(count)));
    const QelImageRecord* records = stack->Records();
    for (std::int32_t i = 0; i < count; ++i) {
        // Every native raster image is a memory raster image; the wrapper only lends
        // it out, since the native stack or its maker decides when it goes.
        auto image = std::make_shared<MemoryRasterImage>(static_cast<QelMemoryRasterImage*>(records[i].Image),
                                                         pixelFormat, false);
        m_records.emplace_back(std::move(image), records[i].Z);
    }
}

ImageStack::~ImageStack() = default;

void ImageStack::Reset()
{
    m_stack->Reset();
    m_records.clear();
}

bool ImageStack::InsertImage(std::shared_ptr<RasterImage> image, double zCoord)
{
    CheckImage(image);
    // Room first: once the native stack holds the image, the list must take it too.
    m_records.reserve(m_records.size() + 1);
    const auto z = static_cast<float>(zCoord);
    if (!m_stack->InsertImage(image->UnmanagedImage(), z, false, image->PixelFormat().IsSigned()))
        return false;
    const std::int32_t index = m_stack->IndexAtZ(z);
    m_records.emplace(m_records.begin() + index, std::move(image), zCoord);
    return true;
}

bool ImageStack::ReplaceImage(std::shared_ptr<RasterImage> image, double zCoord)
{
    CheckImage(image);
    const auto z = static_cast<float>(zCoord);
    if (!m_stack->ReplaceImage(image->UnmanagedImage(), z, false, image->PixelFormat().IsSigned()))
        return false;
    const std::int32_t index = m_stack->IndexAtZ(z);
    m_records[static_cast<std::size_t>(index)] = ImageStackRecord(std::move(image), zCoord);
    return true;
}

bool ImageStack::RemoveImage(double zCoord)
{
    return RemoveImage(m_stack->IndexAtZ(static_cast<float>(zCoord)));
}

bool ImageStack::RemoveImage(std::int32_t index)
{
    if (!m_stack->RemoveImageAt(index))
        return false;
    m_records.erase(m_records.begin() + index);
    // Removing the last slice leaves the native stack with a box and size of the
    // slices it had; a reset makes it a new empty stack again.
    if (m_stack->ImageCount() == 0)
        Reset();
    return true;
}

void ImageStack::ReBaseImageZPositions(double newStartingZCoord)
{
    const double delta = newStartingZCoord - MinimumPoint().Z;
    std::unique_ptr<QelImageStack> rebased = NewNativeStack();
    std::vector<ImageStackRecord> records;
    records.reserve(m_records.capacity());
    const QelImageRecord* native = m_stack->Records();
    for (std::int32_t i = 0; i < m_stack->ImageCount(); ++i) {
        const double z = static_cast<double>(native[i].Z) + delta;
        const ImageStackRecord& record = m_records[static_cast<std::size_t>(i)];
        // The new stack never owns: the images stay with whoever owned them before.
        if (!rebased->InsertImage(native[i].Image, static_cast<float>(z), false,
                                  record.Image()->PixelFormat().IsSigned()))
            ThrowInvalidZ(z, "new_starting_z_coord");
        records.emplace_back(record.Image(), z);
    }
    if (m_stack->HasPadding())
        rebased->SetPaddingValue(m_stack->PaddingValue());

    m_records = std::move(records);
    if (m_ownedStack) {
        const QelImageRecord* old = m_ownedStack->Records();
        const bool ownsImages = std::any_of(old, old + m_ownedStack->ImageCount(),
                                            [](const QelImageRecord& r) { return r.Owned; });
        if (ownsImages && !m_imageHolder)
            m_imageHolder = std::move(m_ownedStack);
    }
    m_ownedStack = std::move(rebased);
    m_stack = m_ownedStack.get();
}

std::int32_t ImageStack::NumberOfImages() const noexcept
{
    return m_stack->ImageCount();
}

const ImageStackRecord& ImageStack::operator[](std::int32_t index) const
{
    if (index < 0 || static_cast<std::size_t>(index) >= m_records.size())
        throw Ax::System::ArgumentOutOfRangeException(
            "Index was out of range. Must be non-negative and less than the size of the collection.", "index");
    return m_records[static_cast<std::size_t>(index)];
}

void ImageStack::GetIndicesAroundZ(double zCoord, std::int32_t& indexZ0, std::int32_t& indexZ1) const
{
    std::int32_t lower = -1;
    std::int32_t upper = -1;
    switch (m_stack->NeighborsAtZ(static_cast<float>(zCoord), lower, upper)) {
    case BothNeighbors:
        indexZ0 = lower;
        indexZ1 = upper;
        return;
    case LowerNeighborOnly:
        indexZ0 = lower;
        indexZ1 = -1;
        return;
    case UpperNeighborOnly:
        indexZ0 = -1;
        indexZ1 = upper;
        return;
    case NoNeighbors:
        indexZ0 = indexZ1 = -1;
        return;
    }
    ThrowInvalidZ(zCoord, "z_coord");
}

std::optional<ImageStackRecord> ImageStack::GetImageAtZPosition(double zPosition, double tolerance) const
{
    std::int32_t lower = -1;
    std::int32_t upper = -1;
    GetIndicesAroundZ(zPosition, lower, upper);
    constexpr double kMissing = std::numeric_limits<double>::max();
    const auto distance = [&](std::int32_t index) {
        return index < 0 ? kMissing : std::abs(zPosition - m_records[static_cast<std::size_t>(index)].ZCoord());
    };
    const double lowerDistance = distance(lower);
    const double upperDistance = distance(upper);
    if (lowerDistance <= upperDistance && lowerDistance <= tolerance)
        return m_records[static_cast<std::size_t>(lower)];
    if (upperDistance <= tolerance)
        return m_records[static_cast<std::size_t>(upper)];
    return std::nullopt;
}

void ImageStack::GetImagesAroundZPosition(double zPosition, std::optional<ImageStackRecord>& lower,
                                          std::optional<ImageStackRecord>& higher) const
{
    std::int32_t lowerIndex = -1;
    std::int32_t upperIndex = -1;
    GetIndicesAroundZ(zPosition, lowerIndex, upperIndex);
    lower.reset();
    higher.reset();
    if (lowerIndex >= 0)
        lower = m_records[static_cast<std::size_t>(lowerIndex)];
    if (upperIndex >= 0)
        higher = m_records[static_cast<std::size_t>(upperIndex)];
}

Ax::Primitives::Vector3 ImageStack::MinimumPoint() const noexcept
{
    const QelVector3 point = m_stack->MinPoint();
    return {point.X(), point.Y(), point.Z()};
}

Ax::Primitives::Vector3 ImageStack::MaximumPoint() const noexcept
{
    // The native point holds sizes in x and y; callers get the last voxel.
    const QelVector3 point = m_stack->MaxPoint();
    return {double{point.X()} - 1.0, double{point.Y()} - 1.0, point.Z()};
}

Ax::Primitives::Size ImageStack::ImageDimensions() const noexcept
{
    return {m_stack->Width(), m_stack->Height()};
}

Ax::Primitives::Bounds3 ImageStack::Bounds() const noexcept
{
    const QelIntBBox3 box = m_stack->BoundingBox();
    return {static_cast<double>(box.Left()),  static_cast<double>(box.Top()),    static_cast<double>(box.Front()),
            static_cast<double>(box.Width()), static_cast<double>(box.Height()), static_cast<double>(box.Depth())};
}

std::int32_t ImageStack::BytesPerPixel() const noexcept
{
    return m_stack->BytesPerPixel();
}

std::optional<Ax::Primitives::PixelFormat> ImageStack::PixelFormat() const
{
    if (m_records.empty())
        return std::nullopt;
    return m_records.front().Image()->PixelFormat();
}

std::int32_t ImageStack::PaddingValue() const
{
    if (!m_stack->HasPadding())
        throw Ax::System::InvalidOperationException("Padding has not been set");
    return m_stack->PaddingValue();
}

void ImageStack::SetPaddingValue(std::int32_t value) noexcept
{
    m_stack->SetPaddingValue(value);
}

bool ImageStack::HasPadding() const noexcept
{
    return m_stack->HasPadding();
}

std::uintptr_t ImageStack::UnmanagedQelImageStackPointer() const noexcept
{
    return reinterpret_cast<std::uintptr_t>(m_stack);
}

}  // namespace Ax::Rendering
