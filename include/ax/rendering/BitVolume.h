#pragma once

#include "ax/rendering/Owned.h"
#include "ax/system/SerializationInfo.h"

#include <cstdint>
#include <memory>
#include <string>

class QelBlockedBitTree;

namespace Ax::Rendering {

class ImageStack;

/// A binary mask over a volume, one bit per voxel, for the renderers to draw as an
/// object, a sculpt region or a threshold region. The set algebra returns new volumes
/// and leaves its operands alone; only Set changes a volume.
///
/// Volumes are handed out as std::shared_ptr because CubicDilate(0) answers with this
/// same volume; hold a volume in a shared_ptr to call it with a dilation of 0.
///
/// Any number of threads may read a volume (IsSet, the algebra, Equals, renders) as
/// long as nobody calls Set; two Set calls must not meet in one byte of a block.
class BitVolume : public std::enable_shared_from_this<BitVolume> {
public:
    /// An empty (or, with `filled`, a full) volume. Throws ArgumentException with the
    /// parameter's name for a size of 0 or less, checked width, height, depth.
    BitVolume(std::int32_t width, std::int32_t height, std::int32_t depth, bool filled);
    /// The voxels of the stack at or above `threshold` that aren't padding, from the
    /// `depth` lowest slices; the mask has the stack's size and the slices from `depth`
    /// up stay clear. Throws ArgumentException "depth" for a depth of 0 or less, and
    /// "imageStack" for a stack whose pixels aren't 16 bits.
    BitVolume(const ImageStack& imageStack, std::int32_t depth, std::int32_t threshold);
    /// Takes over a native tree and finishes it. Throws ArgumentNullException
    /// "qelBlockedBitTree" for null.
    explicit BitVolume(Owned<QelBlockedBitTree> qelBlockedBitTree);
    /// Reads the persisted form: "Width", "Height", "Depth" and "Data", the bit of
    /// voxel (x, y, z) at x + Width (y + Height z). Throws SerializationException for
    /// a missing key, and for sizes or a bit count that don't agree.
    explicit BitVolume(const Ax::System::SerializationInfo& info);
    ~BitVolume();
    BitVolume(const BitVolume&) = delete;
    BitVolume& operator=(const BitVolume&) = delete;

    /// Adds the persisted form's four values.
    void GetObjectData(Ax::System::SerializationInfo& info) const;

    [[nodiscard]] std::int32_t Width() const;
    [[nodiscard]] std::int32_t Height() const;
    [[nodiscard]] std::int32_t Depth() const;

    /// False outside the volume.
    [[nodiscard]] bool IsSet(std::int32_t x, std::int32_t y, std::int32_t z) const;
    /// Sets one voxel; nothing happens outside the volume. The emptiness hints of
    /// neighbouring blocks don't follow: a renderer may skip a block next to a voxel
    /// set this way until the volume is rebuilt by an operation.
    void Set(std::int32_t x, std::int32_t y, std::int32_t z);

    [[nodiscard]] std::shared_ptr<BitVolume> Invert() const;
    [[nodiscard]] std::shared_ptr<BitVolume> Union(const BitVolume& other) const;
    [[nodiscard]] std::shared_ptr<BitVolume> Intersection(const BitVolume& other) const;
    [[nodiscard]] std::shared_ptr<BitVolume> Xor(const BitVolume& other) const;
    /// Every voxel within `dilation` voxels of a set one along each axis (a box, not a
    /// ball). A dilation of 0 or less returns this same volume; above 4 is refused as
    /// a RenderingException.
    [[nodiscard]] std::shared_ptr<BitVolume> CubicDilate(std::int32_t dilation);
    /// The mask at a coarser size: a voxel is set when any voxel it covers is set. The
    /// same size gives a copy. Throws ArgumentException for a larger size and
    /// RenderingException when the width ratio isn't 2, 4, 8, 16 or 32; the height
    /// and depth follow the width's ratio.
    [[nodiscard]] std::shared_ptr<BitVolume> WithBoundsDownsized(std::int32_t width, std::int32_t height,
                                                                 std::int32_t depth) const;

    /// Same size and the same blocks bit for bit, the bits beyond the volume's edges
    /// included: an Invert sets those, so an inverted volume that went through the
    /// persisted form can differ here while every IsSet agrees.
    [[nodiscard]] bool Equals(const BitVolume* other) const;
    /// Both null, or the same object, or Equals.
    [[nodiscard]] static bool Equals(const BitVolume* first, const BitVolume* second);
    friend bool operator==(const BitVolume& first, const BitVolume& second) { return Equals(&first, &second); }
    /// From the size alone, since equal volumes have equal sizes.
    [[nodiscard]] std::int32_t GetHashCode() const;
    /// "[Width=<w>, Height=<h>, Depth=<d>]".
    [[nodiscard]] std::string ToString() const;

    /// Gives the tree back; any later use of the volume throws InvalidOperationException.
    void Dispose() noexcept;
    /// For the library's own use: the tree, still owned by this volume.
    [[nodiscard]] const QelBlockedBitTree& UnmanagedBlockedBitTree() const;

private:
    [[nodiscard]] QelBlockedBitTree& Tree() const;

    Owned<QelBlockedBitTree> m_unmanagedBitTree;
};

}  // namespace Ax::Rendering
