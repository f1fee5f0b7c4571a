#include "ax/rendering/BitVolume.h"

#include "ax/rendering/ImageStack.h"
#include "ax/rendering/RenderingException.h"
#include "ax/system/Exception.h"
#include "bittree/QelBlockedBitTree.h"
#include "bittree/QelBlockedBitTreeOps.h"
#include "bittree/QelBlockedBitTreeThresholder.h"
#include "image_stack/QelImageStack.h"
#include "image_stack/QelImageStackSegmentationAccelerator.h"

#include <algorithm>
#include <new>

namespace Ax::Rendering {

namespace {

constexpr const char* kWidthKey = "Width";
constexpr const char* kHeightKey = "Height";
constexpr const char* kDepthKey = "Depth";
constexpr const char* kDataKey = "Data";

QelIntBBox3 BoxOf(std::int32_t width, std::int32_t height, std::int32_t depth)
{
    return {QelIntRange(0, width - 1), QelIntRange(0, height - 1), QelIntRange(0, depth - 1)};
}

void CheckSize(std::int32_t size, const char* message, const char* paramName)
{
    if (size <= 0)
        throw Ax::System::ArgumentException(message, paramName);
}

Owned<QelBlockedBitTree> Need(Owned<QelBlockedBitTree> tree)
{
    if (!tree)
        throw std::bad_alloc();
    return tree;
}

std::string SizeText(std::int64_t width, std::int64_t height, std::int64_t depth)
{
    return "[Width=" + std::to_string(width) + ", Height=" + std::to_string(height) +
           ", Depth=" + std::to_string(depth) + "]";
}

// The persisted bits run through the volume row by row with no gaps, so rows are
// moved as words through a bit cursor instead of one voxel at a time.
class BitWriter {
public:
    explicit BitWriter(std::uint8_t* bytes) noexcept : m_bytes(bytes) {}
    ~BitWriter()
    {
        if (m_pendingBits > 0)
            *m_bytes = static_cast<std::uint8_t>(m_pending);
    }
    BitWriter(const BitWriter&) = delete;
    BitWriter& operator=(const BitWriter&) = delete;

    // Bits 0 .. count - 1 of `word` go to the next `count` bits; the rest of `word` is 0.
    void Put(std::uint32_t word, std::uint32_t count) noexcept
    {
        m_pending |= std::uint64_t{word} << m_pendingBits;
        m_pendingBits += count;
        for (; m_pendingBits >= 8; m_pendingBits -= 8, m_pending >>= 8)
            *m_bytes++ = static_cast<std::uint8_t>(m_pending);
    }

private:
    std::uint8_t* m_bytes;
    std::uint64_t m_pending = 0;
    std::uint32_t m_pendingBits = 0;
};

class BitReader {
public:
    explicit BitReader(const std::uint8_t* bytes) noexcept : m_bytes(bytes) {}

    // The next `count` bits (at most 32) as bits 0 .. count - 1.
    std::uint32_t Take(std::uint32_t count) noexcept
    {
        for (; m_pendingBits < count; m_pendingBits += 8)
            m_pending |= std::uint64_t{*m_bytes++} << m_pendingBits;
        const auto word = static_cast<std::uint32_t>(m_pending & ((std::uint64_t{1} << count) - 1));
        m_pending >>= count;
        m_pendingBits -= count;
        return word;
    }

private:
    const std::uint8_t* m_bytes;
    std::uint64_t m_pending = 0;
    std::uint32_t m_pendingBits = 0;
};

// Calls visit(tableIndex, y mod 32, z mod 32, bits) for each piece of at most 32
// voxels of every row, in the persisted order.
template <class Visit>
void ForEachRowPiece(const QelBlockedBitTree& tree, Visit visit)
{
    for (std::uint32_t z = 0; z < tree.Depth(); ++z)
        for (std::uint32_t y = 0; y < tree.Height(); ++y)
            for (std::uint32_t x = 0; x < tree.Width(); x += 32)
                visit(tree.GetBlockIndex(x, y, z), y & 31, z & 31, std::min(32u, tree.Width() - x));
}

}  // namespace

// ---- Making ----

BitVolume::BitVolume(std::int32_t width, std::int32_t height, std::int32_t depth, bool filled)
{
    CheckSize(width, "The width of the BitVolume cannot be zero or less.", "width");
    CheckSize(height, "The height of the BitVolume cannot be zero or less.", "height");
    CheckSize(depth, "The depth of the BitVolume cannot be zero or less.", "depth");
    m_unmanagedBitTree = Need(QelBlockedBitTree::New(BoxOf(width, height, depth)));
    if (filled)
        m_unmanagedBitTree = Need(QelBlockedBitTreeOps::Invert(*m_unmanagedBitTree));
}

BitVolume::BitVolume(const ImageStack& imageStack, std::int32_t depth, std::int32_t threshold)
{
    CheckSize(depth, "The depth of the BitVolume cannot be zero or less.", "depth");
    if (imageStack.NumberOfImages() > 0 && imageStack.BytesPerPixel() != 2)
        throw Ax::System::ArgumentException("A BitVolume is thresholded from 16-bit pixels; this stack has " +
                                                std::to_string(8 * imageStack.BytesPerPixel()) + "-bit pixels.",
                                            "imageStack");
    const QelImageStack& stack = *imageStack.UnmanagedImageStack();
    const auto accelerator = QelImageStackSegmentationAccelerator::New(stack);
    if (!accelerator)
        throw std::bad_alloc();
    constexpr std::int32_t kUnset = QelBlockedBitTreeThresholder::kUnsetLimit;
    const auto thresholder = QelBlockedBitTreeThresholder::New(stack, *accelerator, threshold, 1.0f, kUnset, kUnset, false);
    if (!thresholder)
        throw std::bad_alloc();
    // Slices past the stack's top have nothing to examine.
    const std::int32_t last = std::min(depth, accelerator->VolumeBox().Depth()) - 1;
    m_unmanagedBitTree = Need(thresholder->Threshold(0, last));
    QelBlockedBitTree& tree = *m_unmanagedBitTree;
    tree.CompleteSummaryInX();
    tree.CompleteSummaryInY();
    tree.ComputeBlockEmptiness();
}

BitVolume::BitVolume(Owned<QelBlockedBitTree> qelBlockedBitTree)
    : m_unmanagedBitTree(std::move(qelBlockedBitTree))
{
    if (!m_unmanagedBitTree)
        throw Ax::System::ArgumentNullException("Value cannot be null.", "qelBlockedBitTree");
    // Emptiness first: only blocks that already have exact summaries collapse to empty.
    QelBlockedBitTree& tree = *m_unmanagedBitTree;
    tree.ComputeBlockEmptiness();
    tree.CompleteSummaryInX();
    tree.CompleteSummaryInY();
}

BitVolume::BitVolume(const Ax::System::SerializationInfo& info)
{
    using Ax::System::SerializationException;
    const std::int32_t width = info.GetInt32(kWidthKey);
    const std::int32_t height = info.GetInt32(kHeightKey);
    const std::int32_t depth = info.GetInt32(kDepthKey);
    const Ax::System::BitArray& data = info.GetBitArray(kDataKey);
    if (width <= 0 || height <= 0 || depth <= 0)
        throw SerializationException("The persisted BitVolume has the size " + SizeText(width, height, depth) +
                                     "; every side must be above 0.");
    const std::int64_t voxels = std::int64_t{width} * height * depth;
    if (data.Length() != voxels)
        throw SerializationException("The persisted BitVolume's Data holds " + std::to_string(data.Length()) +
                                     " bits, but " + SizeText(width, height, depth) + " has " +
                                     std::to_string(voxels) + " voxels.");
    m_unmanagedBitTree = Need(QelBlockedBitTree::New(BoxOf(width, height, depth)));
    QelBlockedBitTree& tree = *m_unmanagedBitTree;
    // Row words give the same blocks as setting the voxels one by one would, once
    // the tree is finished below.
    BitReader cursor(data.Bytes().data());
    ForEachRowPiece(tree, [&](std::uint32_t i, std::uint32_t y, std::uint32_t z, std::uint32_t count) {
        const std::uint32_t bits = cursor.Take(count);
        if (bits != 0 && !tree.SetRowBits(i, y, z, bits))
            throw std::bad_alloc();
    });
    tree.CompleteSummaryInX();
    tree.CompleteSummaryInY();
    tree.ComputeBlockEmptiness();
}

BitVolume::~BitVolume() = default;

void BitVolume::Dispose() noexcept
{
    m_unmanagedBitTree.reset();
}

QelBlockedBitTree& BitVolume::Tree() const
{
    if (!m_unmanagedBitTree)
        throw Ax::System::InvalidOperationException("The BitVolume has been disposed.");
    return *m_unmanagedBitTree;
}

const QelBlockedBitTree& BitVolume::UnmanagedBlockedBitTree() const
{
    return Tree();
}

// ---- Persisting ----

void BitVolume::GetObjectData(Ax::System::SerializationInfo& info) const
{
    const QelBlockedBitTree& tree = Tree();
    Ax::System::BitArray data(std::int64_t{tree.Width()} * tree.Height() * tree.Depth());
    {
        BitWriter cursor(data.Bytes().data());
        ForEachRowPiece(tree, [&](std::uint32_t i, std::uint32_t y, std::uint32_t z, std::uint32_t count) {
            const std::uint32_t bits = QelBlockedBitTree::EntryRowBits(tree.GetBlock(i), y, z);
            // The bits beyond the width aren't voxels and aren't persisted.
            cursor.Put(count == 32 ? bits : bits & ((1u << count) - 1u), count);
        });
    }
    info.AddValue(kWidthKey, Width());
    info.AddValue(kHeightKey, Height());
    info.AddValue(kDepthKey, Depth());
    info.AddValue(kDataKey, std::move(data));
}

// ---- Voxels ----

std::int32_t BitVolume::Width() const
{
    return static_cast<std::int32_t>(Tree().Width());
}

std::int32_t BitVolume::Height() const
{
    return static_cast<std::int32_t>(Tree().Height());
}

std::int32_t BitVolume::Depth() const
{
    return static_cast<std::int32_t>(Tree().Depth());
}

bool BitVolume::IsSet(std::int32_t x, std::int32_t y, std::int32_t z) const
{
    return Tree().IsSet(x, y, z);
}

void BitVolume::Set(std::int32_t x, std::int32_t y, std::int32_t z)
{
    (void)Tree().SetBit(x, y, z);
}

// ---- Algebra ----

std::shared_ptr<BitVolume> BitVolume::Invert() const
{
    return std::make_shared<BitVolume>(Need(QelBlockedBitTreeOps::Invert(Tree())));
}

std::shared_ptr<BitVolume> BitVolume::Union(const BitVolume& other) const
{
    return std::make_shared<BitVolume>(Need(QelBlockedBitTreeOps::Union(Tree(), other.Tree())));
}

std::shared_ptr<BitVolume> BitVolume::Intersection(const BitVolume& other) const
{
    return std::make_shared<BitVolume>(Need(QelBlockedBitTreeOps::Intersection(Tree(), other.Tree())));
}

std::shared_ptr<BitVolume> BitVolume::Xor(const BitVolume& other) const
{
    return std::make_shared<BitVolume>(Need(QelBlockedBitTreeOps::Xor(Tree(), other.Tree())));
}

std::shared_ptr<BitVolume> BitVolume::CubicDilate(std::int32_t dilation)
{
    if (dilation <= 0) {
        std::shared_ptr<BitVolume> self = weak_from_this().lock();
        if (!self)
            throw Ax::System::InvalidOperationException(
                "CubicDilate(0) returns this same BitVolume, which must be held by a std::shared_ptr.");
        return self;
    }
    // The kernel's own check reports a dilation above the limit through the bug handler.
    return std::make_shared<BitVolume>(
        Need(QelBlockedBitTreeOps::CubicDilate(Tree(), dilation, dilation, dilation, dilation, dilation, dilation)));
}

std::shared_ptr<BitVolume> BitVolume::WithBoundsDownsized(std::int32_t width, std::int32_t height,
                                                          std::int32_t depth) const
{
    const QelBlockedBitTree& tree = Tree();
    if (width == Width() && height == Height() && depth == Depth())
        return std::make_shared<BitVolume>(Need(tree.Copy()));
    const std::string from = ToString(), to = SizeText(width, height, depth);
    if (width > Width() || height > Height() || depth > Depth())
        throw Ax::System::ArgumentException("Cannot downsize from " + from + " to increased bounds (" + to + ").");
    const auto failed = [&] {
        return RenderingException("An error occurred while attempting to downsize from " + from + " to " + to + ".");
    };
    if (width <= 0 || height <= 0 || depth <= 0)
        throw failed();
    // The ratio as the host computes it: a float quotient, rounded in double.
    const float ratio = static_cast<float>(Width()) / static_cast<float>(width);
    const auto factor = static_cast<std::int32_t>(static_cast<double>(ratio) + 0.5);
    if (factor != 2 && factor != 4 && factor != 8 && factor != 16 && factor != 32)
        throw failed();
    Owned<QelBlockedBitTree> target = Need(QelBlockedBitTree::New(BoxOf(width, height, depth)));
    if (!QelBlockedBitTreeOps::Downsize(tree, *target, 0, tree.GetBlockCount(), true, nullptr))
        throw failed();
    return std::make_shared<BitVolume>(std::move(target));
}

// ---- Comparison and text ----

bool BitVolume::Equals(const BitVolume* other) const
{
    return other != nullptr && QelBlockedBitTreeOps::Equal(Tree(), other->Tree());
}

bool BitVolume::Equals(const BitVolume* first, const BitVolume* second)
{
    if (first == second)
        return true;
    return first != nullptr && first->Equals(second);
}

std::int32_t BitVolume::GetHashCode() const
{
    // Wraps in 32 bits, as the host's unchecked arithmetic does.
    const std::uint32_t hash = static_cast<std::uint32_t>(Width()) * 17u + 13u +
                               static_cast<std::uint32_t>(Height()) * 19u +
                               static_cast<std::uint32_t>(Depth()) * 23u;
    return static_cast<std::int32_t>(hash);
}

std::string BitVolume::ToString() const
{
    return SizeText(Width(), Height(), Depth());
}

}  // namespace Ax::Rendering
