#pragma once

#include "base/QelIntRange.h"
#include "base/QelNoncopyable.h"
#include "base/QelPtr.h"
#include "threaded/QelCriticalSection.h"

#include <array>
#include <atomic>
#include <cstdint>
#include <cstdio>
#include <memory>

class QelMemoryManager;

/// A binary mask over a volume whose box starts at voxel (0, 0, 0): a flat table of
/// 32 x 32 x 32 blocks, X fastest, then Y, then Z. An entry is null (every voxel
/// clear, no storage), FullBlock() (every voxel set, no storage) or a Block that the
/// tree owns; blocks come from and go back to the tree's memory manager. Beside the
/// table, one emptiness flag per block: 1 promises that nothing is set in the
/// 33 x 33 x 33 region from the block's origin, so a trilinear sampler can skip it.
///
/// Readers (IsSet, the Block accessors, renderers) take no lock and need a tree that
/// doesn't change under them. Writers may share the tree as long as no two of them
/// write the same plane of a block: the tree serialises the creation of a block and
/// the splitting of a full one under 16 striped locks (entry i under stripe i & 15),
/// so nobody sees a half-made block or loses one to a second creator. SetBit holds
/// the block's stripe while it works, because it may give the block back; SetRowBits
/// and direct plane writes don't, so they must not meet SetBit in one block. The
/// whole-tree operations (summaries, emptiness, Copy, Clear, SetBox, Save) need the
/// tree to themselves.
class QelBlockedBitTree : QelNoncopyable {
public:
    static constexpr std::uint32_t kBlockEdge = 32;
    static constexpr std::uint32_t kPlaneBytes = 128;
    static constexpr std::uint32_t kBitBytes = kBlockEdge * kPlaneBytes;
    static constexpr std::uint32_t kBlockBytes = 4352;
    static constexpr std::uint32_t kLockStripes = 16;

    /// One block, all coordinates local (0 to 31). Voxel (x, y, z) is bit (x mod 8)
    /// of Bits[128 z + 32 (x / 8) + y]: the bytes at y, y+32, y+64, y+96 of a plane,
    /// read as bytes 0 to 3 of a word, are the X row at (y, z) with bit x = voxel x,
    /// and the 32 bytes of a group are 8 whole columns along Y. A summary bit of 1
    /// promises an empty row (SummaryY[z] bit y) or column (SummaryX[z] bit x); a 0
    /// promises nothing. The layout is read by renderers and stored as is: keep it.
    struct Block {
        std::uint8_t Bits[kBitBytes];
        std::uint32_t SummaryY[kBlockEdge];
        std::uint32_t SummaryX[kBlockEdge];

        /// Bit x = voxel (x, y, z); 0 at once when the summary promises an empty row.
        [[nodiscard]] std::uint32_t GetRowBits(std::uint32_t y, std::uint32_t z) const noexcept
        {
            return SummaryY[z] >> y & 1u ? 0 : RawRowBits(y, z);
        }
        /// The row's four bytes as a word, summaries aside.
        [[nodiscard]] std::uint32_t RawRowBits(std::uint32_t y, std::uint32_t z) const noexcept
        {
            const std::uint8_t* row = Bits + kPlaneBytes * z + y;
            return std::uint32_t{row[0]} | std::uint32_t{row[32]} << 8 | std::uint32_t{row[64]} << 16 |
                   std::uint32_t{row[96]} << 24;
        }
        /// Stores the row's four bytes; the summaries are the caller's.
        void StoreRowBits(std::uint32_t y, std::uint32_t z, std::uint32_t word) noexcept
        {
            std::uint8_t* row = Bits + kPlaneBytes * z + y;
            for (std::uint32_t g = 0; g < 4; ++g)
                row[32 * g] = static_cast<std::uint8_t>(word >> (8 * g));
        }
        /// Bit y = voxel (x, y, z); 0 at once when the summary promises an empty column.
        [[nodiscard]] std::uint32_t GetColumnBits(std::uint32_t x, std::uint32_t z) const noexcept;
        /// The voxel, trusting SummaryY first as IsSet does.
        [[nodiscard]] bool Test(std::uint32_t x, std::uint32_t y, std::uint32_t z) const noexcept
        {
            if (SummaryY[z] >> y & 1u)
                return false;
            return Bits[kPlaneBytes * z + 32 * (x >> 3) + y] >> (x & 7) & 1u;
        }
    };
    static_assert(sizeof(Block) == kBlockBytes);

    /// A table entry: null, FullBlock() or an owned Block. Atomic because a block may
    /// be published while other writers read the table.
    using ManagedBlock = std::atomic<Block*>;

    /// The marker of a full entry: distinct from null and, being odd, from every
    /// block address. Never dereferenced.
    [[nodiscard]] static Block* FullBlock() noexcept
    {
        return reinterpret_cast<Block*>(~std::uintptr_t{0});
    }
    /// Whether an entry owns storage.
    [[nodiscard]] static bool HasStorage(const Block* entry) noexcept
    {
        return entry != nullptr && entry != FullBlock();
    }
    /// The row word at local (y, z) of an entry: 0 for an empty one, all ones for a
    /// full one.
    [[nodiscard]] static std::uint32_t EntryRowBits(const Block* entry, std::uint32_t y, std::uint32_t z) noexcept
    {
        if (!entry)
            return 0;
        return entry == FullBlock() ? 0xFFFFFFFFu : entry->GetRowBits(y, z);
    }

    /// An empty tree of the box's width, height and depth; its blocks come from the
    /// library's block manager. Null when an allocation fails or the block count
    /// doesn't fit 32 bits; nothing is left behind.
    [[nodiscard]] static std::unique_ptr<QelBlockedBitTree> New(QelIntBBox3 box);
    /// The same with the blocks, the table and the flags from `manager` (the
    /// library's block manager when null).
    [[nodiscard]] static std::unique_ptr<QelBlockedBitTree> New(QelIntBBox3 box, QelMemoryManager* manager);
    /// Same size, same entries, same flags, blocks copied whole, same manager. Null
    /// when an allocation fails.
    [[nodiscard]] std::unique_ptr<QelBlockedBitTree> Copy() const;
    virtual ~QelBlockedBitTree();

    [[nodiscard]] std::uint32_t Width() const noexcept { return m_width; }
    [[nodiscard]] std::uint32_t Height() const noexcept { return m_height; }
    [[nodiscard]] std::uint32_t Depth() const noexcept { return m_depth; }
    [[nodiscard]] std::uint32_t BlocksX() const noexcept { return m_blocksX; }
    [[nodiscard]] std::uint32_t BlocksY() const noexcept { return m_blocksY; }
    [[nodiscard]] std::uint32_t BlocksZ() const noexcept { return m_blocksZ; }
    [[nodiscard]] std::uint32_t GetBlockCount() const noexcept { return m_blockCount; }
    /// 0 to size - 1 on each axis; an axis of size 0 gives the empty range.
    [[nodiscard]] QelIntBBox3 Box() const noexcept;
    /// 176 + 5 per table entry + 4352 per owned block, in 32 bits as the host counts
    /// it, whatever this build's object and pointer sizes are.
    [[nodiscard]] std::uint32_t GetMemorySize() const noexcept;
    [[nodiscard]] QelMemoryManager* MemoryManager() const noexcept { return m_manager; }

    // ---- Voxels ----

    /// False outside the volume. At most three reads: entry, summary, byte.
    [[nodiscard]] bool IsSet(std::int32_t x, std::int32_t y, std::int32_t z) const noexcept
    {
        const auto ux = static_cast<std::uint32_t>(x), uy = static_cast<std::uint32_t>(y),
                   uz = static_cast<std::uint32_t>(z);
        if (ux >= m_width || uy >= m_height || uz >= m_depth)
            return false;
        const Block* entry = GetBlock(GetBlockIndex(ux, uy, uz));
        if (!entry)
            return false;
        if (entry == FullBlock())
            return true;
        return entry->Test(ux & 31, uy & 31, uz & 31);
    }
    /// True when the voxel is set afterwards; false outside the volume or when no
    /// block can be had (the voxel stays clear). May turn the block into FullBlock()
    /// and clears its own emptiness flag; the flags of the neighbours below, whose
    /// regions reach into this block, wait for ComputeBlockEmptiness.
    [[nodiscard]] bool SetBit(std::int32_t x, std::int32_t y, std::int32_t z);
    /// Whether a trilinear sample at the point could see a set voxel: any of the
    /// eight around the floored point. False when the floored point lies outside.
    [[nodiscard]] bool IsCellSet(float x, float y, float z) const noexcept;
    /// For loops along X at fixed y and z: `byteOffset` is 128 (z mod 32) + (y mod 32)
    /// and `tableRowStart` the entry of the row's first block. False from Width() on.
    [[nodiscard]] bool IsSetInRow(std::uint32_t x, std::uint32_t byteOffset,
                                  std::uint32_t tableRowStart) const noexcept
    {
        if (x >= m_width)
            return false;
        const Block* entry = GetBlock(tableRowStart + (x >> 5));
        if (!entry)
            return false;
        if (entry == FullBlock())
            return true;
        return entry->Bits[byteOffset + 32 * ((x & 31) >> 3)] >> (x & 7) & 1u;
    }
    /// Stores a whole row word (bit x = local voxel x) at local (y, z) of entry i. A
    /// non-zero word makes an empty entry real and splits a full one unless it is all
    /// ones; 0 leaves an empty entry alone. Keeps both summaries' promises and clears
    /// the entry's emptiness flag when something is stored. False when a needed block
    /// can't be had.
    [[nodiscard]] bool SetRowBits(std::uint32_t i, std::uint32_t y, std::uint32_t z, std::uint32_t word);

    // ---- The table ----

    /// No range check.
    [[nodiscard]] std::uint32_t GetBlockIndex(std::uint32_t x, std::uint32_t y, std::uint32_t z) const noexcept
    {
        return ((y >> 5) + (z >> 5) * m_blocksY) * m_blocksX + (x >> 5);
    }
    void GetBlockOrigin(std::uint32_t i, std::uint32_t& x0, std::uint32_t& y0, std::uint32_t& z0) const noexcept;
    /// Entry i as it is: null, FullBlock() or the block. No range check.
    [[nodiscard]] Block* GetBlock(std::uint32_t i) const noexcept
    {
        return m_blocks.get()[i].load(std::memory_order_acquire);
    }
    /// Entry i, a new empty block first when it is null. Null only when memory ran out.
    [[nodiscard]] Block* GetOrCreateBlock(std::uint32_t i);
    /// Entry i with storage: a new empty block for a null entry, a block of ones with
    /// summaries that promise nothing for a full one. Null when memory ran out.
    [[nodiscard]] Block* GetOrSplitBlock(std::uint32_t i);
    /// A block from this tree's manager with nothing filled in, for code that writes
    /// every byte itself and then publishes it into a table entry that nobody else
    /// reads yet (the tree gives it back with the entry). Null when memory ran out.
    [[nodiscard]] Block* NewBlock() const noexcept;
    [[nodiscard]] ManagedBlock* Blocks() noexcept { return m_blocks.get(); }
    [[nodiscard]] const ManagedBlock* Blocks() const noexcept { return m_blocks.get(); }
    [[nodiscard]] std::uint8_t* BlockEmptiness() noexcept { return m_emptiness.get(); }
    [[nodiscard]] const std::uint8_t* BlockEmptiness() const noexcept { return m_emptiness.get(); }

    // ---- Summaries and emptiness ----

    void CompleteSummaryInX() noexcept;
    void CompleteSummaryInY() noexcept;
    /// Ignore an index past the table and entries without storage.
    void CompleteBlockSummaryInX(std::uint32_t i) noexcept;
    void CompleteBlockSummaryInY(std::uint32_t i) noexcept;
    void CompleteBlockPlaneSummaryInX(std::uint32_t i, std::uint32_t z) noexcept;
    void CompleteBlockPlaneSummaryInY(std::uint32_t i, std::uint32_t z) noexcept;
    /// Every entry in table order. Collapses blocks of ones to FullBlock() and blocks
    /// whose Y summary promises emptiness to null.
    void ComputeBlockEmptiness() noexcept;
    void ComputeEmptinessOfBlock(std::uint32_t i) noexcept;

    // ---- Whole-tree changes ----

    /// Gives every block back; all entries null, all flags 1.
    void Clear() noexcept;
    /// Clears plane z mod 32 of every block of slab z / 32 and zeroes its summary
    /// words there. A slab outside the table is ignored. False when a full entry
    /// couldn't be split; the other blocks are still cleared.
    [[nodiscard]] bool ClearSlice(std::int32_t z);
    /// Gives the tree the box's size. Entries keep their table index, not their
    /// place in space; surplus blocks go back, new entries are empty. False, with
    /// nothing changed, when the new table can't be had.
    [[nodiscard]] bool SetBox(QelIntBBox3 box);

    /// Whether the structure is sound; otherwise the first finding goes into
    /// `message` (may be null; `size` bytes with its terminator, cut to fit). Block
    /// data and the flags are read under a fault guard.
    [[nodiscard]] bool Verify(char* message, std::uint32_t size) const;

    // ---- Stream form ----

    /// Little-endian header of seven 32-bit words (size, blocks per axis, block
    /// count), one kind byte per entry (0 empty, 1 data, 2 full), then the 4096 bit
    /// bytes of each data entry in table order. A null file is a bug report. False
    /// when a write fails.
    [[nodiscard]] bool Save(std::FILE* file) const;
    /// A tree read from that form, summaries and flags rebuilt; blocks from
    /// `manager` (the block manager when null). Null for a short or inconsistent
    /// stream, or when memory runs out; never allocates beyond what the stream holds.
    [[nodiscard]] static std::unique_ptr<QelBlockedBitTree> Load(std::FILE* file,
                                                                 QelMemoryManager* manager = nullptr);

private:
    friend class QelBlockedBitTreeTestPeer;

    explicit QelBlockedBitTree(QelMemoryManager* manager) noexcept;
    [[nodiscard]] static std::unique_ptr<QelBlockedBitTree> Make(std::uint32_t width, std::uint32_t height,
                                                                 std::uint32_t depth, QelMemoryManager* manager);
    void FreeBlock(Block* block) const noexcept;
    // Size, block counts and table size for a box of these sides.
    void TakeSize(std::uint32_t width, std::uint32_t height, std::uint32_t depth) noexcept;
    [[nodiscard]] bool IsRegionClear(std::uint32_t i) const noexcept;
    [[nodiscard]] bool VerifyGuarded(char* message, std::uint32_t size) const;

    std::uint32_t m_width = 0, m_height = 0, m_depth = 0;
    std::uint32_t m_blocksX = 0, m_blocksY = 0, m_blocksZ = 0;
    std::uint32_t m_blockCount = 0;
    QelMemoryManager* m_manager;
    QelManagedPtr<ManagedBlock> m_blocks;
    QelManagedPtr<std::uint8_t> m_emptiness;
    std::array<QelCriticalSection, kLockStripes> m_blockLocks;
};
