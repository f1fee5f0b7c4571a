#include "bittree/QelBlockedBitTreeOps.h"

#include "base/QelDebug.h"
#include "bittree/imp/QelBitWords.h"
#include "threaded/QelFunctionThreader.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <bit>
#include <cmath>
#include <cstring>
#include <new>

namespace {

using namespace qel::bits;
using Block = QelBlockedBitTree::Block;
using Tree = QelBlockedBitTree;

constexpr std::uint32_t kEdge = QelBlockedBitTree::kBlockEdge;
constexpr std::uint32_t kPlaneBytes = QelBlockedBitTree::kPlaneBytes;
constexpr std::uint32_t kWords = QelBlockedBitTree::kBitBytes / 8;  // 64-bit words of bits per block
constexpr std::uint32_t kPlaneWords = kPlaneBytes / 8;
constexpr std::uint64_t kOnes = ~std::uint64_t{0};
constexpr const char* kKernelMessage =
    "QelBlockedBitTreeOps::CubicErode: Incorrect dilation kernel :must be lower or equal than 8 in XZ and 4 in Y\n";

// Bits 0 to n-1 of every byte.
constexpr std::uint64_t ByteLow(std::uint32_t n) noexcept
{
    return kByteLowBits * ((1u << n) - 1u);
}

// Bytes 0 to count-1 of a word set (all eight from 8 on, none at 0 or below).
std::uint64_t LowBytes(std::int64_t count) noexcept
{
    if (count <= 0)
        return 0;
    return count >= 8 ? kOnes : (std::uint64_t{1} << (8 * count)) - 1;
}

std::unique_ptr<Tree> NewLike(const Tree& tree)
{
    return Tree::New(tree.Box(), tree.MemoryManager());
}

void Publish(Tree& result, std::uint32_t i, Block* entry) noexcept
{
    result.Blocks()[i].store(entry, std::memory_order_release);
}

void CopyBlock(Tree& result, std::uint32_t i, Block* block, const Block& source) noexcept
{
    std::memcpy(block, &source, QelBlockedBitTree::kBlockBytes);
    Publish(result, i, block);
}

void CompleteSummaries(Tree& tree, std::uint32_t i) noexcept
{
    tree.CompleteBlockSummaryInY(i);
    tree.CompleteBlockSummaryInX(i);
}

// Entry i of a fresh result becomes a block of these bits with exact summaries.
// Results are worked out before a block is taken, so that a result with no bit set
// costs none. False when memory ran out.
bool PublishBits(Tree& result, std::uint32_t i, const std::uint8_t (&bits)[QelBlockedBitTree::kBitBytes]) noexcept
{
    Block* block = result.NewBlock();
    if (!block)
        return false;
    std::memcpy(block->Bits, bits, sizeof bits);
    Publish(result, i, block);
    CompleteSummaries(result, i);
    return true;
}

// A whole-table operation from its range form; the flags afresh where the range form
// leaves them to the caller.
template <class Range>
std::unique_ptr<Tree> OverWholeTable(const Tree& a, bool computeEmptiness, Range range)
{
    std::unique_ptr<Tree> result = NewLike(a);
    if (!result || !range(*result, a.GetBlockCount()))
        return nullptr;
    if (computeEmptiness)
        result->ComputeBlockEmptiness();
    return result;
}

// A full entry read as bits: every word all ones.
const std::uint8_t* OnesBits() noexcept
{
    static const std::array<std::uint8_t, QelBlockedBitTree::kBitBytes> ones = [] {
        std::array<std::uint8_t, QelBlockedBitTree::kBitBytes> bits;
        bits.fill(0xFF);
        return bits;
    }();
    return ones.data();
}

const std::uint8_t* BitsOf(const Block* entry) noexcept
{
    return entry == Tree::FullBlock() ? OnesBits() : entry->Bits;
}

bool KernelIsValid(int xMinus, int xPlus, int yMinus, int yPlus, int zMinus, int zPlus) noexcept
{
    const auto within = [](int d, int limit) { return d >= 0 && d <= limit; };
    return within(xMinus, 8) && within(xPlus, 8) && within(zMinus, 8) && within(zPlus, 8) && within(yMinus, 4) &&
           within(yPlus, 4);
}

}  // namespace

// ---- Comparison ----

bool QelBlockedBitTreeOps::Equal(const QelBlockedBitTree& a, const QelBlockedBitTree& b) noexcept
{
    if (a.Width() != b.Width() || a.Height() != b.Height() || a.Depth() != b.Depth())
        return false;
    for (std::uint32_t i = 0; i < a.GetBlockCount(); ++i) {
        const Block* ea = a.GetBlock(i);
        const Block* eb = b.GetBlock(i);
        if (ea == eb && !Tree::HasStorage(ea))
            continue;
        if (!Tree::HasStorage(ea) || !Tree::HasStorage(eb))
            return false;
        if (std::memcmp(ea->Bits, eb->Bits, sizeof ea->Bits) != 0)
            return false;
    }
    return true;
}

// ---- Set operations ----

bool QelBlockedBitTreeOps::UnionRange(const QelBlockedBitTree& a, const QelBlockedBitTree& b,
                                      QelBlockedBitTree& result, std::uint32_t first, std::uint32_t last)
{
    const std::uint8_t* flagsA = a.BlockEmptiness();
    const std::uint8_t* flagsB = b.BlockEmptiness();
    std::uint8_t* flags = result.BlockEmptiness();
    for (std::uint32_t i = first; i < last; ++i) {
        const Block* ea = a.GetBlock(i);
        const Block* eb = b.GetBlock(i);
        if (ea == Tree::FullBlock() || eb == Tree::FullBlock()) {
            Publish(result, i, Tree::FullBlock());
            flags[i] = 0;
            continue;
        }
        flags[i] = flagsA[i] & flagsB[i];
        if (!ea && !eb)
            continue;
        Block* block = result.NewBlock();
        if (!block)
            return false;
        if (!ea || !eb) {
            CopyBlock(result, i, block, ea ? *ea : *eb);
            continue;
        }
        for (std::uint32_t k = 0; k < QelBlockedBitTree::kBitBytes; k += 8)
            Store64(block->Bits + k, Load64(ea->Bits + k) | Load64(eb->Bits + k));
        // A row empty in both sources is empty in their union: the promises carry over.
        for (std::uint32_t z = 0; z < kEdge; ++z) {
            block->SummaryY[z] = ea->SummaryY[z] & eb->SummaryY[z];
            block->SummaryX[z] = ea->SummaryX[z] & eb->SummaryX[z];
        }
        Publish(result, i, block);
    }
    return true;
}

bool QelBlockedBitTreeOps::IntersectionRange(const QelBlockedBitTree& a, const QelBlockedBitTree& b,
                                             QelBlockedBitTree& result, std::uint32_t first, std::uint32_t last)
{
    const std::uint8_t* flagsA = a.BlockEmptiness();
    const std::uint8_t* flagsB = b.BlockEmptiness();
    std::uint8_t* flags = result.BlockEmptiness();
    for (std::uint32_t i = first; i < last; ++i) {
        const Block* ea = a.GetBlock(i);
        const Block* eb = b.GetBlock(i);
        if (ea == Tree::FullBlock() && eb == Tree::FullBlock()) {
            Publish(result, i, Tree::FullBlock());
            flags[i] = 0;
            continue;
        }
        // Either region promised empty keeps the intersection's region empty.
        flags[i] = flagsA[i] | flagsB[i];
        if (!ea || !eb)
            continue;
        Block* block = result.NewBlock();
        if (!block)
            return false;
        if (ea == Tree::FullBlock() || eb == Tree::FullBlock()) {
            CopyBlock(result, i, block, ea == Tree::FullBlock() ? *eb : *ea);
        } else {
            for (std::uint32_t k = 0; k < QelBlockedBitTree::kBitBytes; k += 8)
                Store64(block->Bits + k, Load64(ea->Bits + k) & Load64(eb->Bits + k));
            Publish(result, i, block);
        }
        // An AND of two occupied rows can be empty.
        CompleteSummaries(result, i);
    }
    return true;
}

bool QelBlockedBitTreeOps::XorRange(const QelBlockedBitTree& a, const QelBlockedBitTree& b,
                                    QelBlockedBitTree& result, std::uint32_t first, std::uint32_t last)
{
    alignas(8) std::uint8_t bits[QelBlockedBitTree::kBitBytes];
    for (std::uint32_t i = first; i < last; ++i) {
        const Block* ea = a.GetBlock(i);
        const Block* eb = b.GetBlock(i);
        if (!ea || !eb) {
            const Block* other = ea ? ea : eb;
            if (other == Tree::FullBlock()) {
                Publish(result, i, Tree::FullBlock());
            } else if (other) {
                Block* block = result.NewBlock();
                if (!block)
                    return false;
                CopyBlock(result, i, block, *other);
            }
            continue;
        }
        if (ea == Tree::FullBlock() && eb == Tree::FullBlock())
            continue;
        // Worked out before a block is taken: equal blocks leave the entry empty.
        const std::uint8_t* bitsA = BitsOf(ea);
        const std::uint8_t* bitsB = BitsOf(eb);
        std::uint64_t any = 0;
        for (std::uint32_t k = 0; k < QelBlockedBitTree::kBitBytes; k += 8) {
            const std::uint64_t word = Load64(bitsA + k) ^ Load64(bitsB + k);
            Store64(bits + k, word);
            any |= word;
        }
        if (any != 0 && !PublishBits(result, i, bits))
            return false;
    }
    return true;
}

bool QelBlockedBitTreeOps::InvertRange(const QelBlockedBitTree& a, QelBlockedBitTree& result, std::uint32_t first,
                                       std::uint32_t last)
{
    alignas(8) std::uint8_t bits[QelBlockedBitTree::kBitBytes];
    for (std::uint32_t i = first; i < last; ++i) {
        const Block* entry = a.GetBlock(i);
        if (entry == Tree::FullBlock())
            continue;
        std::uint32_t x0, y0, z0;
        a.GetBlockOrigin(i, x0, y0, z0);
        const std::uint32_t planes = std::min(kEdge, a.Depth() - z0);
        if (!entry && planes == kEdge && z0 + kEdge < a.Depth()) {
            Publish(result, i, Tree::FullBlock());
            continue;
        }
        // Rows beyond the height read as clear and so come out set; planes beyond
        // the depth stay clear. An empty source reads as clear everywhere.
        const std::int64_t rows = std::int64_t{a.Height()} - y0;
        std::array<std::uint64_t, 4> beyondHeight;
        for (std::uint32_t j = 0; j < 4; ++j)
            beyondHeight[j] = ~LowBytes(rows - 8 * std::int64_t{j});
        std::uint64_t any = 0;
        for (std::uint32_t z = 0; z < planes; ++z) {
            for (std::uint32_t k = 0; k < kPlaneWords; ++k) {
                const std::uint32_t offset = kPlaneBytes * z + 8 * k;
                const std::uint64_t source = entry ? Load64(entry->Bits + offset) : 0;
                const std::uint64_t word = ~source | beyondHeight[k & 3];
                Store64(bits + offset, word);
                any |= word;
            }
        }
        if (any == 0)
            continue;
        std::memset(bits + kPlaneBytes * planes, 0, kPlaneBytes * (kEdge - planes));
        if (!PublishBits(result, i, bits))
            return false;
    }
    return true;
}

std::unique_ptr<QelBlockedBitTree> QelBlockedBitTreeOps::Union(const QelBlockedBitTree& a,
                                                               const QelBlockedBitTree& b)
{
    return OverWholeTable(a, false, [&](Tree& result, std::uint32_t n) { return UnionRange(a, b, result, 0, n); });
}

std::unique_ptr<QelBlockedBitTree> QelBlockedBitTreeOps::Intersection(const QelBlockedBitTree& a,
                                                                      const QelBlockedBitTree& b)
{
    return OverWholeTable(a, false,
                          [&](Tree& result, std::uint32_t n) { return IntersectionRange(a, b, result, 0, n); });
}

std::unique_ptr<QelBlockedBitTree> QelBlockedBitTreeOps::Xor(const QelBlockedBitTree& a, const QelBlockedBitTree& b)
{
    return OverWholeTable(a, true, [&](Tree& result, std::uint32_t n) { return XorRange(a, b, result, 0, n); });
}

std::unique_ptr<QelBlockedBitTree> QelBlockedBitTreeOps::Invert(const QelBlockedBitTree& a)
{
    return OverWholeTable(a, true, [&](Tree& result, std::uint32_t n) { return InvertRange(a, result, 0, n); });
}

// ---- Dilation ----
//
// The tile algorithm, two tiles at a time: a 64-bit word of a plane's group holds
// 8 voxels in X by 8 rows in Y (byte b = row, bit k = x within the group). A shift
// of at most 8 in X carries bits at most into the adjacent group, one of at most 4
// rows in Y at most into the adjacent word, so one source plane grows into 6 groups
// (-1 to 4) by 6 words (-1 to 4), which land in the 3 x 3 blocks around the source
// in each plane it reaches in Z. Results are ORed in, so their order doesn't matter.

namespace {

struct Kernel {
    int xMinus, xPlus, yMinus, yPlus, zMinus, zPlus;
};

// A source plane spread in X and Y: [group + 1][word + 1].
using GrownPlane = std::array<std::array<std::uint64_t, 6>, 6>;

void GrowPlane(const std::uint8_t* plane, const Kernel& kernel, GrownPlane& grown) noexcept
{
    std::uint64_t source[6][4] = {};
    for (std::uint32_t g = 0; g < 4; ++g)
        for (std::uint32_t j = 0; j < 4; ++j)
            source[g + 1][j] = Load64(plane + 32 * g + 8 * j);
    for (std::uint32_t column = 0; column < 6; ++column) {
        std::uint64_t spread[6] = {};
        for (std::uint32_t j = 0; j < 4; ++j) {
            const std::uint64_t w = source[column][j];
            const std::uint64_t lower = column > 0 ? source[column - 1][j] : 0;
            const std::uint64_t upper = column < 5 ? source[column + 1][j] : 0;
            std::uint64_t acc = w;
            // Towards +x: within the byte, and out of the group below into this one.
            for (int k = 1; k <= kernel.xPlus; ++k)
                acc |= ((w << k) & ~ByteLow(k)) | ((lower >> (8 - k)) & ByteLow(k));
            // Towards -x: within the byte, and out of the group above into this one.
            for (int k = 1; k <= kernel.xMinus; ++k)
                acc |= ((w >> k) & ByteLow(8 - k)) | ((upper << (8 - k)) & ~ByteLow(8 - k));
            spread[j + 1] = acc;
        }
        for (std::uint32_t j = 0; j < 6; ++j) {
            const std::uint64_t w = spread[j];
            const std::uint64_t before = j > 0 ? spread[j - 1] : 0;
            const std::uint64_t after = j < 5 ? spread[j + 1] : 0;
            std::uint64_t acc = w;
            for (int k = 1; k <= kernel.yPlus; ++k)
                acc |= (w << (8 * k)) | (before >> (64 - 8 * k));
            for (int k = 1; k <= kernel.yMinus; ++k)
                acc |= (w >> (8 * k)) | (after << (64 - 8 * k));
            grown[column][j] = acc;
        }
    }
}

struct DilateJob {
    const Tree* Source;
    Tree* Result;
    Kernel Reach;
    int Phase;
    std::atomic<bool> Failed{false};
};

// The result blocks around one source block, made when first written.
class Neighbourhood {
public:
    Neighbourhood(Tree& result, std::uint32_t bx, std::uint32_t by, std::uint32_t bz) noexcept : m_result(result)
    {
        for (int n = 0; n < 27; ++n) {
            const std::int64_t x = std::int64_t{bx} + n % 3 - 1, y = std::int64_t{by} + n / 3 % 3 - 1,
                               z = std::int64_t{bz} + n / 9 - 1;
            const bool inside = x >= 0 && y >= 0 && z >= 0 && x < result.BlocksX() && y < result.BlocksY() &&
                                z < result.BlocksZ();
            m_index[n] = inside ? static_cast<std::int64_t>((z * result.BlocksY() + y) * result.BlocksX() + x) : -1;
            m_block[n] = nullptr;
        }
    }

    // Null for a neighbour beyond the table, or when memory ran out (then `failed`).
    Block* Get(int n, bool& failed)
    {
        if (m_block[n] || m_index[n] < 0)
            return m_block[n];
        m_block[n] = m_result.GetOrCreateBlock(static_cast<std::uint32_t>(m_index[n]));
        failed |= m_block[n] == nullptr;
        if (m_block[n] == nullptr)
            m_index[n] = -1;
        return m_block[n];
    }

private:
    Tree& m_result;
    std::array<std::int64_t, 27> m_index;
    std::array<Block*, 27> m_block;
};

// The source block grown in X and Y, plane by plane, ORed into every plane it
// reaches in Z: planes -8 to 39, each 6 groups by 6 words. Gathering here first
// means each result word is written once, not once per source plane reaching it.
using GrownBlock = std::array<GrownPlane, kEdge + 16>;

bool DilateBlock(const Tree& source, Tree& result, std::uint32_t i, const Kernel& kernel, GrownBlock& grown)
{
    const std::uint8_t* bits = BitsOf(source.GetBlock(i));
    std::memset(grown.data(), 0, sizeof grown);
    int lowest = static_cast<int>(kEdge) + 16, highest = -1;
    GrownPlane plane;
    for (int z = 0; z < static_cast<int>(kEdge); ++z) {
        const std::uint8_t* bytes = bits + kPlaneBytes * z;
        std::uint64_t any = 0;
        for (std::uint32_t k = 0; k < kPlaneWords; ++k)
            any |= Load64(bytes + 8 * k);
        if (any == 0)
            continue;
        GrowPlane(bytes, kernel, plane);
        lowest = std::min(lowest, z - kernel.zMinus + 8);
        highest = std::max(highest, z + kernel.zPlus + 8);
        for (int target = z - kernel.zMinus; target <= z + kernel.zPlus; ++target) {
            GrownPlane& into = grown[static_cast<std::size_t>(target + 8)];
            for (std::uint32_t column = 0; column < 6; ++column)
                for (std::uint32_t j = 0; j < 6; ++j)
                    into[column][j] |= plane[column][j];
        }
    }
    const std::uint32_t bx = i % source.BlocksX(), by = i / source.BlocksX() % source.BlocksY(),
                        bz = i / source.BlocksX() / source.BlocksY();
    Neighbourhood around(result, bx, by, bz);
    bool failed = false;
    for (int slot = lowest; slot <= highest; ++slot) {
        const int target = slot - 8;
        const int dz = target < 0 ? 0 : target >= static_cast<int>(kEdge) ? 2 : 1;
        const std::uint32_t planeOffset = kPlaneBytes * static_cast<std::uint32_t>(target & 31);
        const GrownPlane& from = grown[static_cast<std::size_t>(slot)];
        for (int column = 0; column < 6; ++column) {
            const int dx = column == 0 ? 0 : column == 5 ? 2 : 1;
            const std::uint32_t groupOffset = planeOffset + 32 * static_cast<std::uint32_t>((column - 1) & 3);
            for (int j = 0; j < 6; ++j) {
                const std::uint64_t word = from[column][j];
                if (word == 0)
                    continue;
                const int dy = j == 0 ? 0 : j == 5 ? 2 : 1;
                Block* block = around.Get(dx + 3 * dy + 9 * dz, failed);
                if (!block)
                    continue;
                std::uint8_t* at = block->Bits + groupOffset + 8 * static_cast<std::uint32_t>((j - 1) & 3);
                Store64(at, Load64(at) | word);
            }
        }
    }
    return !failed;
}

// One z-slab of source blocks. A slab writes only into its own slab and the two
// beside it, so the slabs of one phase (equal modulo 3) never write the same block.
void DilateSlab(int index, void* argument)
{
    auto& job = *static_cast<DilateJob*>(argument);
    const std::uint32_t slab = static_cast<std::uint32_t>(job.Phase + 3 * index);
    const std::uint32_t perSlab = job.Source->BlocksX() * job.Source->BlocksY();
    std::unique_ptr<GrownBlock> grown(new (std::nothrow) GrownBlock);
    if (!grown) {
        job.Failed.store(true, std::memory_order_relaxed);
        return;
    }
    for (std::uint32_t i = slab * perSlab; i < (slab + 1) * perSlab; ++i) {
        if (job.Source->GetBlock(i) && !DilateBlock(*job.Source, *job.Result, i, job.Reach, *grown))
            job.Failed.store(true, std::memory_order_relaxed);
    }
}

// Each block's summaries touch that block alone.
void CompleteSlabSummaries(int index, void* argument)
{
    auto& job = *static_cast<DilateJob*>(argument);
    const std::uint32_t perSlab = job.Result->BlocksX() * job.Result->BlocksY();
    const auto slab = static_cast<std::uint32_t>(index);
    for (std::uint32_t i = slab * perSlab; i < (slab + 1) * perSlab; ++i)
        CompleteSummaries(*job.Result, i);
}

bool RunOverSlabs(QelFunctionThreader* threader, QelThreadedFunction function, DilateJob& job, int count)
{
    if (count <= 0)
        return true;
    if (threader)
        return threader->DoJob(function, &job, QelIntRange(0, count - 1));
    for (int index = 0; index < count; ++index)
        function(index, &job);
    return true;
}

std::unique_ptr<Tree> Dilate(const Tree& a, const Kernel& kernel)
{
    std::unique_ptr<Tree> result = NewLike(a);
    if (!result)
        return nullptr;
    std::fill_n(result->BlockEmptiness(), result->GetBlockCount(), std::uint8_t{0});
    // Without pool threads the slabs simply run here, in order.
    std::unique_ptr<QelFunctionThreader> threader = QelFunctionThreader::New(0);
    DilateJob job{&a, result.get(), kernel, 0};
    const int slabs = static_cast<int>(a.BlocksZ());
    for (int phase = 0; phase < 3; ++phase) {
        job.Phase = phase;
        if (!RunOverSlabs(threader.get(), DilateSlab, job, (slabs - phase + 2) / 3))
            return nullptr;
    }
    if (job.Failed.load(std::memory_order_relaxed))
        return nullptr;
    if (!RunOverSlabs(threader.get(), CompleteSlabSummaries, job, slabs))
        return nullptr;
    result->ComputeBlockEmptiness();
    return result;
}

// Clear voxels of the volume set, everything outside the volume clear.
std::unique_ptr<Tree> InvertInside(const Tree& a)
{
    std::unique_ptr<Tree> result = NewLike(a);
    if (!result)
        return nullptr;
    alignas(8) std::uint8_t bits[QelBlockedBitTree::kBitBytes];
    for (std::uint32_t i = 0; i < a.GetBlockCount(); ++i) {
        const Block* entry = a.GetBlock(i);
        if (entry == Tree::FullBlock())
            continue;
        std::uint32_t x0, y0, z0;
        a.GetBlockOrigin(i, x0, y0, z0);
        const std::uint32_t planes = std::min(kEdge, a.Depth() - z0);
        const std::uint32_t columns = LowMask(a.Width() - x0);
        const std::int64_t rows = std::int64_t{a.Height()} - y0;
        if (!entry && planes == kEdge && rows >= kEdge && columns == 0xFFFFFFFFu) {
            Publish(*result, i, Tree::FullBlock());
            continue;
        }
        // Word k of a plane: group k / 4, rows 8 (k mod 4) on.
        std::array<std::uint64_t, kPlaneWords> inside;
        for (std::uint32_t k = 0; k < kPlaneWords; ++k)
            inside[k] = (kByteLowBits * ((columns >> (8 * (k / 4))) & 0xFF)) & LowBytes(rows - 8 * (k % 4));
        std::memset(bits, 0, sizeof bits);
        std::uint64_t any = 0;
        for (std::uint32_t z = 0; z < planes; ++z) {
            for (std::uint32_t k = 0; k < kPlaneWords; ++k) {
                const std::uint32_t offset = kPlaneBytes * z + 8 * k;
                const std::uint64_t word = ~(entry ? Load64(entry->Bits + offset) : 0) & inside[k];
                Store64(bits + offset, word);
                any |= word;
            }
        }
        if (any != 0 && !PublishBits(*result, i, bits))
            return nullptr;
    }
    return result;
}

}  // namespace

std::unique_ptr<QelBlockedBitTree> QelBlockedBitTreeOps::CubicDilate(const QelBlockedBitTree& a, int xMinus,
                                                                     int xPlus, int yMinus, int yPlus, int zMinus,
                                                                     int zPlus)
{
    if (!KernelIsValid(xMinus, xPlus, yMinus, yPlus, zMinus, zPlus)) {
        QEL_ASSERT(false, "%s", kKernelMessage);
        return nullptr;
    }
    return Dilate(a, {xMinus, xPlus, yMinus, yPlus, zMinus, zPlus});
}

// Erosion is the complement of the dilated complement. Taking the complement
// inside the volume only makes everything outside count as set.
std::unique_ptr<QelBlockedBitTree> QelBlockedBitTreeOps::CubicErode(const QelBlockedBitTree& a, int xMinus,
                                                                    int xPlus, int yMinus, int yPlus, int zMinus,
                                                                    int zPlus)
{
    if (!KernelIsValid(xMinus, xPlus, yMinus, yPlus, zMinus, zPlus)) {
        QEL_ASSERT(false, "%s", kKernelMessage);
        return nullptr;
    }
    std::unique_ptr<Tree> outside = InvertInside(a);
    if (!outside)
        return nullptr;
    std::unique_ptr<Tree> grown = Dilate(*outside, {xMinus, xPlus, yMinus, yPlus, zMinus, zPlus});
    outside.reset();
    if (!grown)
        return nullptr;
    std::unique_ptr<Tree> result = InvertInside(*grown);
    if (!result)
        return nullptr;
    result->ComputeBlockEmptiness();
    return result;
}

// ---- Downsizing ----

bool QelBlockedBitTreeOps::Downsize(const QelBlockedBitTree& source, QelBlockedBitTree& target,
                                    std::uint32_t firstBlock, std::uint32_t lastBlock, bool anySet,
                                    const QelBlockedBitTree* maskTree)
{
    const double ratio = std::trunc(static_cast<double>(source.Width()) / target.Width() + 0.5);
    const std::uint32_t factor = ratio >= 2.0 && ratio <= 32.0 ? static_cast<std::uint32_t>(ratio) : 0;
    if (!std::has_single_bit(factor) || factor < 2) {
        QEL_ASSERT(false, "QelBlockedBitTreeOps::Downsize: Incorrect factor (%.0f) :must be 2, 4, 8, 16 or 32\n",
                   ratio);
        return false;
    }
    lastBlock = std::min(lastBlock, source.GetBlockCount());
    for (std::uint32_t i = firstBlock; i < lastBlock; ++i) {
        const Block* entry = source.GetBlock(i);
        const Block* mask = maskTree ? maskTree->GetBlock(i) : Tree::FullBlock();
        if (!entry || !mask)
            continue;
        std::uint32_t x0, y0, z0;
        source.GetBlockOrigin(i, x0, y0, z0);
        const std::uint32_t dx = x0 / factor, dy = y0 / factor, dz = z0 / factor;
        if (dx >= target.Width() || dy >= target.Height() || dz >= target.Depth())
            continue;
        const std::uint32_t t = target.GetBlockIndex(dx, dy, dz);
        if (t >= target.GetBlockCount())
            continue;
        Block* block = target.GetOrSplitBlock(t);
        if (!block)
            return false;
        // Where this source block lands inside the target block.
        const std::uint32_t offsetX = dx & 31, offsetY = dy & 31, offsetZ = dz & 31;
        for (std::uint32_t z = 0; z < kEdge; z += factor) {
            for (std::uint32_t y = 0; y < kEdge; y += factor) {
                std::uint32_t acc = anySet ? 0u : 0xFFFFFFFFu;
                for (std::uint32_t zz = z; zz < z + factor; ++zz) {
                    for (std::uint32_t yy = y; yy < y + factor; ++yy) {
                        const std::uint32_t word =
                            Tree::EntryRowBits(entry, yy, zz) & Tree::EntryRowBits(mask, yy, zz);
                        acc = anySet ? acc | word : acc & word;
                    }
                }
                // Folds each run of f bits into its lowest bit.
                std::uint32_t shifted = acc;
                for (std::uint32_t k = 1; k < factor; ++k) {
                    shifted >>= 1;
                    acc = anySet ? acc | shifted : acc & shifted;
                }
                std::uint8_t* row = block->Bits + kPlaneBytes * (z / factor + offsetZ) + y / factor + offsetY;
                for (std::uint32_t b = 0; b < kEdge; b += factor) {
                    const std::uint32_t x = offsetX + b / factor;
                    const auto bit = static_cast<std::uint8_t>(1u << (x & 7));
                    std::uint8_t& byte = row[32 * (x >> 3)];
                    byte = (acc >> b & 1u) ? static_cast<std::uint8_t>(byte | bit) : static_cast<std::uint8_t>(byte & ~bit);
                }
            }
        }
    }
    if (lastBlock == source.GetBlockCount()) {
        target.CompleteSummaryInX();
        target.CompleteSummaryInY();
        target.ComputeBlockEmptiness();
    }
    return true;
}
