#pragma once

#include "ax/primitives/Bounds3.h"
#include "ax/primitives/PixelFormat.h"
#include "ax/primitives/Size.h"
#include "ax/primitives/Vector3.h"
#include "ax/rendering/ImageStackRecord.h"
#include "ax/rendering/Owned.h"
#include "ax/rendering/RasterImage.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

class QelImageStack;

namespace Ax::Rendering {

/// The volume that renderers draw: the caller's raster images, each at its own z, in
/// increasing z. All images have the size, pixel size and signedness of the first.
/// The stack keeps each image alive while it holds it and never changes its pixels.
/// Iterating gives the records in z order. One thread at a time may change a stack,
/// and not while a render reads it.
class ImageStack {
public:
    using const_iterator = std::vector<ImageStackRecord>::const_iterator;

    /// An empty stack. Throws std::bad_alloc when memory runs out.
    ImageStack();
    /// For the library's own use: wraps `stack` (not null), whose images come back as
    /// MemoryRasterImage objects of `pixelFormat` that don't own them. The native stack
    /// is deleted at the end only with `takeOwnership`.
    ImageStack(QelImageStack* stack, const Ax::Primitives::PixelFormat& pixelFormat, bool takeOwnership);
    ~ImageStack();
    ImageStack(const ImageStack&) = delete;
    ImageStack& operator=(const ImageStack&) = delete;

    /// Removes every image. The padding value stays.
    void Reset();
    /// Puts `image` at `zCoord` in z order. False, with nothing changed, when the z (as
    /// a float) is taken or lies outside +-1000000, when the stack holds 16384 images,
    /// or when the image's size, pixel size or signedness differs from the first one's.
    /// Throws ArgumentNullException for a null image.
    bool InsertImage(std::shared_ptr<RasterImage> image, double zCoord);
    /// Puts `image` in place of the one at `zCoord`; false when there is none there or
    /// the signedness differs. Throws ArgumentNullException for a null image.
    bool ReplaceImage(std::shared_ptr<RasterImage> image, double zCoord);
    /// Removes the image at exactly `zCoord` (as a float); false when there is none.
    bool RemoveImage(double zCoord);
    /// Removes the image at `index`; false when out of range.
    bool RemoveImage(std::int32_t index);
    /// Moves every image by the same amount so that the first lies at
    /// `newStartingZCoord`. The spacing, the images and the padding state stay; the
    /// stack gets a new serial number, so renderers treat it as a new volume. Throws
    /// ArgumentOutOfRangeException "Invalid Z coordinate <z>", changing nothing, when a
    /// moved z leaves +-1000000 or two moved z become the same float.
    void ReBaseImageZPositions(double newStartingZCoord);

    [[nodiscard]] std::int32_t NumberOfImages() const noexcept;
    /// Throws ArgumentOutOfRangeException outside 0 .. NumberOfImages() - 1.
    [[nodiscard]] const ImageStackRecord& operator[](std::int32_t index) const;
    [[nodiscard]] const_iterator begin() const noexcept { return m_records.begin(); }
    [[nodiscard]] const_iterator end() const noexcept { return m_records.end(); }

    /// The record nearest to `zPosition` within `tolerance`, the lower one on a tie;
    /// empty when none is that close.
    [[nodiscard]] std::optional<ImageStackRecord> GetImageAtZPosition(double zPosition, double tolerance) const;
    /// The last record at or below `zPosition` and the next one above it; empty for a
    /// side that has none. A z on the last image gives that image and no higher one.
    void GetImagesAroundZPosition(double zPosition, std::optional<ImageStackRecord>& lower,
                                  std::optional<ImageStackRecord>& higher) const;

    /// (0, 0, first z).
    [[nodiscard]] Ax::Primitives::Vector3 MinimumPoint() const noexcept;
    /// The last voxel: (width - 1, height - 1, last z).
    [[nodiscard]] Ax::Primitives::Vector3 MaximumPoint() const noexcept;
    [[nodiscard]] Ax::Primitives::Size ImageDimensions() const noexcept;
    /// The voxel box, with z from the first to the last z truncated toward zero.
    [[nodiscard]] Ax::Primitives::Bounds3 Bounds() const noexcept;
    [[nodiscard]] std::int32_t BytesPerPixel() const noexcept;
    /// The first image's format; empty while the stack is empty.
    [[nodiscard]] std::optional<Ax::Primitives::PixelFormat> PixelFormat() const;

    /// The value that marks voxels without data. Throws InvalidOperationException
    /// "Padding has not been set" until SetPaddingValue was called.
    [[nodiscard]] std::int32_t PaddingValue() const;
    void SetPaddingValue(std::int32_t value) noexcept;
    [[nodiscard]] bool HasPadding() const noexcept;

    /// The native stack's address, for callers that pass it on as a number.
    [[nodiscard]] std::uintptr_t UnmanagedQelImageStackPointer() const noexcept;
    /// For the library's own use: the native stack, valid until the next
    /// ReBaseImageZPositions or the end of this object.
    [[nodiscard]] QelImageStack* UnmanagedImageStack() const noexcept { return m_stack; }

private:
    // The neighbours of `zCoord` as indices, -1 for a missing side.
    void GetIndicesAroundZ(double zCoord, std::int32_t& indexZ0, std::int32_t& indexZ1) const;

    // The records are declared first so that the native stack, which points at their
    // native images, goes before them.
    std::vector<ImageStackRecord> m_records;
    QelImageStack* m_stack = nullptr;
    Owned<QelImageStack> m_ownedStack;  // m_stack when this object owns it, else null
    // A stack this object owned that owns images of its own, kept after
    // ReBaseImageZPositions replaced it, because the new stack shares those images.
    Owned<QelImageStack> m_imageHolder;
};

}  // namespace Ax::Rendering
