#include "bittree/QelBlockedBitTree.h"

#include "bittree/imp/QelBitWords.h"
#include "base/QelCrashReport.h"
#include "base/QelMemoryManager.h"
#include "threaded/QelFaultGuard.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstring>
#include <new>

namespace {

using namespace qel::bits;

using Block = QelBlockedBitTree::Block;
using ManagedBlock = QelBlockedBitTree::ManagedBlock;

constexpr std::uint32_t kAllOnes = 0xFFFFFFFFu;
// Multiplying eight 0/1 bytes by this gathers byte i into bit 56 + i, with no carries.
constexpr std::uint64_t kGatherBytes = 0x0102040810204080ull;
constexpr const char* kVerifyGuardName = "QelBlockedBitTree::Verify";

// Fixed at first use, as every tree copies it: a host that swaps the default
// manager later doesn't strand blocks that older trees will give back.
QelMemoryManager* BlockManager()
{
    static QelMemoryManager* const manager = [] {
        QelMemoryManager* m = QelMemoryManager::GetDefault();
        m->AnnounceBlockSize(QelBlockedBitTree::kBlockBytes);
        return m;
    }();
    return manager;
}

// Bit `bit` of each of the eight bytes, byte i into bit i.
std::uint32_t GatherBit(std::uint64_t word, std::uint32_t bit) noexcept
{
    return static_cast<std::uint32_t>(((word >> bit) & kByteLowBits) * kGatherBytes >> 56);
}

// Bit i set where byte i is not zero. The shifts only ever fold bits of one byte
// into its own bit 0; what spills into the byte below lands above bit 0 and is masked.
std::uint32_t NonZeroBytes(std::uint64_t word) noexcept
{
    word |= word >> 4;
    word |= word >> 2;
    word |= word >> 1;
    return GatherBit(word, 0);
}

bool IsAllOnes(const std::uint8_t* bytes, std::uint32_t count) noexcept
{
    std::uint64_t all = ~std::uint64_t{0};
    for (std::uint32_t k = 0; k < count; k += 8)
        all &= Load64(bytes + k);
    return all == ~std::uint64_t{0};
}

bool SummaryYPromisesEmpty(const Block& block) noexcept
{
    return std::all_of(std::begin(block.SummaryY), std::end(block.SummaryY),
                       [](std::uint32_t word) { return word == kAllOnes; });
}

void ClearFlag(std::uint8_t* flags, std::uint32_t i) noexcept
{
    // Writers of different planes of one block may both get here.
    std::atomic_ref<std::uint8_t>(flags[i]).store(0, std::memory_order_relaxed);
}

void FillNew(Block& block) noexcept
{
    std::memset(block.Bits, 0, sizeof block.Bits);
    std::fill(std::begin(block.SummaryY), std::end(block.SummaryY), kAllOnes);
    std::fill(std::begin(block.SummaryX), std::end(block.SummaryX), kAllOnes);
}

void FillFull(Block& block) noexcept
{
    std::memset(block.Bits, 0xFF, sizeof block.Bits);
    std::fill(std::begin(block.SummaryY), std::end(block.SummaryY), 0u);
    std::fill(std::begin(block.SummaryX), std::end(block.SummaryX), 0u);
}

// The volatile reads keep the compiler from dropping the touches; only the fault
// guard around them makes them safe.
[[gnu::noinline]] void TouchBlock(const Block* block) noexcept
{
    const auto* bytes = reinterpret_cast<const volatile std::uint8_t*>(block);
    (void)bytes[0];
    (void)bytes[QelBlockedBitTree::kBlockBytes - 1];
}

[[gnu::noinline]] void TouchFlags(const std::uint8_t* flags, std::uint32_t count) noexcept
{
    const auto* bytes = reinterpret_cast<const volatile std::uint8_t*>(flags);
    for (std::uint32_t i = 0; i < count; ++i)
        (void)bytes[i];
}

bool Fail(char* message, std::uint32_t size, const char* text) noexcept
{
    if (message && size > 0)
        std::snprintf(message, size, "%s", text);
    return false;
}

}  // namespace

// ---- Block ----

std::uint32_t QelBlockedBitTree::Block::GetColumnBits(std::uint32_t x, std::uint32_t z) const noexcept
{
    if (SummaryX[z] >> x & 1u)
        return 0;
    const std::uint8_t* group = Bits + kPlaneBytes * z + 32 * (x >> 3);
    const std::uint32_t bit = x & 7;
    return GatherBit(Load64(group), bit) | GatherBit(Load64(group + 8), bit) << 8 |
           GatherBit(Load64(group + 16), bit) << 16 | GatherBit(Load64(group + 24), bit) << 24;
}

// ---- Making and unmaking ----

QelBlockedBitTree::QelBlockedBitTree(QelMemoryManager* manager) noexcept
    : m_manager(manager),
      m_blocks(nullptr, QelManagedDeleter<ManagedBlock>(manager)),
      m_emptiness(nullptr, QelManagedDeleter<std::uint8_t>(manager))
{
}

std::unique_ptr<QelBlockedBitTree> QelBlockedBitTree::New(QelIntBBox3 box)
{
    return New(box, nullptr);
}

std::unique_ptr<QelBlockedBitTree> QelBlockedBitTree::New(QelIntBBox3 box, QelMemoryManager* manager)
{
    return Make(static_cast<std::uint32_t>(box.Width()), static_cast<std::uint32_t>(box.Height()),
                static_cast<std::uint32_t>(box.Depth()), manager);
}

namespace {

// A table of `count` null entries and one of `count` flags of 1. False, with
// nothing held, when either can't be had. An empty table stays null.
bool AllocTables(QelMemoryManager* manager, std::uint32_t count, QelManagedPtr<ManagedBlock>& blocks,
                 QelManagedPtr<std::uint8_t>& flags) noexcept
{
    blocks = QelManagedPtr<ManagedBlock>(nullptr, QelManagedDeleter<ManagedBlock>(manager));
    flags = QelManagedPtr<std::uint8_t>(nullptr, QelManagedDeleter<std::uint8_t>(manager));
    if (count == 0)
        return true;
    static_assert(std::is_trivially_destructible_v<ManagedBlock>, "the deleter destroys the first entry only");
    void* table = manager->Alloc(std::size_t{count} * sizeof(ManagedBlock));
    if (!table)
        return false;
    auto* entries = static_cast<ManagedBlock*>(table);
    for (std::uint32_t i = 0; i < count; ++i)
        new (entries + i) ManagedBlock(nullptr);
    blocks.reset(entries);
    flags.reset(static_cast<std::uint8_t*>(manager->Alloc(count)));
    if (!flags) {
        blocks.reset();
        return false;
    }
    std::memset(flags.get(), 1, count);
    return true;
}

}  // namespace

std::unique_ptr<QelBlockedBitTree> QelBlockedBitTree::Make(std::uint32_t width, std::uint32_t height,
                                                           std::uint32_t depth, QelMemoryManager* manager)
{
    if (!manager)
        manager = BlockManager();
    const std::uint64_t count = std::uint64_t{BlocksFor(width)} * BlocksFor(height) * BlocksFor(depth);
    if (count > 0xFFFFFFFFull)
        return nullptr;
    std::unique_ptr<QelBlockedBitTree> tree(new (std::nothrow) QelBlockedBitTree(manager));
    if (!tree || !AllocTables(manager, static_cast<std::uint32_t>(count), tree->m_blocks, tree->m_emptiness))
        return nullptr;
    tree->TakeSize(width, height, depth);
    return tree;
}

void QelBlockedBitTree::TakeSize(std::uint32_t width, std::uint32_t height, std::uint32_t depth) noexcept
{
    m_width = width;
    m_height = height;
    m_depth = depth;
    m_blocksX = BlocksFor(width);
    m_blocksY = BlocksFor(height);
    m_blocksZ = BlocksFor(depth);
    m_blockCount = m_blocksX * m_blocksY * m_blocksZ;
}

QelBlockedBitTree::~QelBlockedBitTree()
{
    Clear();
}

QelBlockedBitTree::Block* QelBlockedBitTree::NewBlock() const noexcept
{
    static_assert(alignof(Block) <= __STDCPP_DEFAULT_NEW_ALIGNMENT__);
    void* storage = m_manager->Alloc(kBlockBytes);
    if (!storage)
        return nullptr;
    return new (storage) Block;
}

void QelBlockedBitTree::FreeBlock(Block* block) const noexcept
{
    m_manager->Free(block);
}

std::unique_ptr<QelBlockedBitTree> QelBlockedBitTree::Copy() const
{
    std::unique_ptr<QelBlockedBitTree> copy = Make(m_width, m_height, m_depth, m_manager);
    if (!copy)
        return nullptr;
    for (std::uint32_t i = 0; i < m_blockCount; ++i) {
        Block* entry = GetBlock(i);
        if (HasStorage(entry)) {
            Block* block = copy->NewBlock();
            if (!block)
                return nullptr;  // the copy gives back what it got so far
            std::memcpy(block, entry, kBlockBytes);
            entry = block;
        }
        copy->m_blocks.get()[i].store(entry, std::memory_order_relaxed);
    }
    if (m_blockCount != 0)
        std::memcpy(copy->m_emptiness.get(), m_emptiness.get(), m_blockCount);
    return copy;
}

QelIntBBox3 QelBlockedBitTree::Box() const noexcept
{
    const auto range = [](std::uint32_t size) {
        return size == 0 ? QelIntRange() : QelIntRange(0, static_cast<std::int32_t>(size - 1));
    };
    return {range(m_width), range(m_height), range(m_depth)};
}

std::uint32_t QelBlockedBitTree::GetMemorySize() const noexcept
{
    std::uint32_t owned = 0;
    for (std::uint32_t i = 0; i < m_blockCount; ++i)
        owned += HasStorage(GetBlock(i)) ? 1u : 0u;
    return 176u + 5u * m_blockCount + kBlockBytes * owned;
}

// ---- Voxels ----

void QelBlockedBitTree::GetBlockOrigin(std::uint32_t i, std::uint32_t& x0, std::uint32_t& y0,
                                       std::uint32_t& z0) const noexcept
{
    if (m_blockCount == 0) {
        x0 = y0 = z0 = 0;
        return;
    }
    x0 = 32 * (i % m_blocksX);
    y0 = 32 * ((i / m_blocksX) % m_blocksY);
    z0 = 32 * ((i / m_blocksX / m_blocksY) % m_blocksZ);
}

QelBlockedBitTree::Block* QelBlockedBitTree::GetOrCreateBlock(std::uint32_t i)
{
    if (Block* entry = GetBlock(i))
        return entry;
    QelAutoLockCriticalSection lock(m_blockLocks[i & (kLockStripes - 1)]);
    // Another writer may have made it while we waited for the stripe.
    ManagedBlock& slot = m_blocks.get()[i];
    if (Block* entry = slot.load(std::memory_order_relaxed))
        return entry;
    Block* block = NewBlock();
    if (!block)
        return nullptr;
    FillNew(*block);
    slot.store(block, std::memory_order_release);
    return block;
}

QelBlockedBitTree::Block* QelBlockedBitTree::GetOrSplitBlock(std::uint32_t i)
{
    Block* entry = GetBlock(i);
    if (HasStorage(entry))
        return entry;
    QelAutoLockCriticalSection lock(m_blockLocks[i & (kLockStripes - 1)]);
    ManagedBlock& slot = m_blocks.get()[i];
    entry = slot.load(std::memory_order_relaxed);
    if (HasStorage(entry))
        return entry;
    Block* block = NewBlock();
    if (!block)
        return nullptr;
    if (entry == FullBlock())
        FillFull(*block);
    else
        FillNew(*block);
    slot.store(block, std::memory_order_release);
    return block;
}

bool QelBlockedBitTree::SetBit(std::int32_t x, std::int32_t y, std::int32_t z)
{
    const auto ux = static_cast<std::uint32_t>(x), uy = static_cast<std::uint32_t>(y),
               uz = static_cast<std::uint32_t>(z);
    if (ux >= m_width || uy >= m_height || uz >= m_depth)
        return false;
    const std::uint32_t i = GetBlockIndex(ux, uy, uz);
    if (GetBlock(i) == FullBlock())
        return true;
    // Held throughout: the block may be given back below, and another SetBit in
    // the same block must not be reading it then.
    QelAutoLockCriticalSection lock(m_blockLocks[i & (kLockStripes - 1)]);
    Block* block = GetOrCreateBlock(i);
    if (!block)
        return false;
    if (block == FullBlock())
        return true;
    const std::uint32_t lx = ux & 31, ly = uy & 31, lz = uz & 31;
    block->Bits[kPlaneBytes * lz + 32 * (lx >> 3) + ly] |= static_cast<std::uint8_t>(1u << (lx & 7));
    block->SummaryY[lz] &= ~(1u << ly);
    block->SummaryX[lz] &= ~(1u << lx);
    // A plane with a clear bit decides what the whole scan would: the block is not
    // full, and its Y summary now has a 0, so it counts as occupied.
    if (!IsAllOnes(block->Bits + kPlaneBytes * lz, kPlaneBytes)) {
        ClearFlag(m_emptiness.get(), i);
        return true;
    }
    ComputeEmptinessOfBlock(i);
    return true;
}

bool QelBlockedBitTree::IsCellSet(float x, float y, float z) const noexcept
{
    const double fx = std::floor(double{x}), fy = std::floor(double{y}), fz = std::floor(double{z});
    // Written so that NaN fails too.
    if (!(fx >= 0.0 && fx < m_width && fy >= 0.0 && fy < m_height && fz >= 0.0 && fz < m_depth))
        return false;
    const auto i = static_cast<std::int32_t>(fx), j = static_cast<std::int32_t>(fy),
               k = static_cast<std::int32_t>(fz);
    for (std::int32_t dz = 0; dz < 2; ++dz) {
        for (std::int32_t dy = 0; dy < 2; ++dy) {
            if (IsSet(i, j + dy, k + dz) || IsSet(i + 1, j + dy, k + dz))
                return true;
        }
    }
    return false;
}

bool QelBlockedBitTree::SetRowBits(std::uint32_t i, std::uint32_t y, std::uint32_t z, std::uint32_t word)
{
    if (i >= m_blockCount || y >= kBlockEdge || z >= kBlockEdge)
        return false;
    const Block* entry = GetBlock(i);
    if (word == 0 && entry == nullptr)
        return true;
    if (word == kAllOnes && entry == FullBlock())
        return true;
    Block* block = GetOrSplitBlock(i);
    if (!block)
        return false;
    block->StoreRowBits(y, z, word);
    if (word == 0) {
        block->SummaryY[z] |= 1u << y;
        return true;
    }
    block->SummaryY[z] &= ~(1u << y);
    block->SummaryX[z] &= ~word;
    ClearFlag(m_emptiness.get(), i);
    return true;
}

// ---- Summaries ----

void QelBlockedBitTree::CompleteBlockPlaneSummaryInX(std::uint32_t i, std::uint32_t z) noexcept
{
    Block* block = i < m_blockCount ? GetBlock(i) : nullptr;
    if (!HasStorage(block) || z >= kBlockEdge)
        return;
    const std::uint8_t* plane = block->Bits + kPlaneBytes * z;
    std::uint32_t occupied = 0;
    for (std::uint32_t g = 0; g < 4; ++g) {
        const std::uint8_t* group = plane + 32 * g;
        std::uint64_t any = Load64(group) | Load64(group + 8) | Load64(group + 16) | Load64(group + 24);
        any |= any >> 32;
        any |= any >> 16;
        any |= any >> 8;
        occupied |= static_cast<std::uint32_t>(any & 0xFF) << (8 * g);
    }
    block->SummaryX[z] = ~occupied;
}

void QelBlockedBitTree::CompleteBlockPlaneSummaryInY(std::uint32_t i, std::uint32_t z) noexcept
{
    Block* block = i < m_blockCount ? GetBlock(i) : nullptr;
    if (!HasStorage(block) || z >= kBlockEdge)
        return;
    const std::uint8_t* plane = block->Bits + kPlaneBytes * z;
    std::uint32_t occupied = 0;
    for (std::uint32_t k = 0; k < 4; ++k) {
        const std::uint8_t* bytes = plane + 8 * k;
        const std::uint64_t any = Load64(bytes) | Load64(bytes + 32) | Load64(bytes + 64) | Load64(bytes + 96);
        occupied |= NonZeroBytes(any) << (8 * k);
    }
    block->SummaryY[z] = ~occupied;
}

void QelBlockedBitTree::CompleteBlockSummaryInX(std::uint32_t i) noexcept
{
    for (std::uint32_t z = 0; z < kBlockEdge; ++z)
        CompleteBlockPlaneSummaryInX(i, z);
}

void QelBlockedBitTree::CompleteBlockSummaryInY(std::uint32_t i) noexcept
{
    for (std::uint32_t z = 0; z < kBlockEdge; ++z)
        CompleteBlockPlaneSummaryInY(i, z);
}

void QelBlockedBitTree::CompleteSummaryInX() noexcept
{
    for (std::uint32_t i = 0; i < m_blockCount; ++i)
        CompleteBlockSummaryInX(i);
}

void QelBlockedBitTree::CompleteSummaryInY() noexcept
{
    for (std::uint32_t i = 0; i < m_blockCount; ++i)
        CompleteBlockSummaryInY(i);
}

// ---- Emptiness ----

void QelBlockedBitTree::ComputeBlockEmptiness() noexcept
{
    for (std::uint32_t i = 0; i < m_blockCount; ++i)
        ComputeEmptinessOfBlock(i);
}

void QelBlockedBitTree::ComputeEmptinessOfBlock(std::uint32_t i) noexcept
{
    if (i >= m_blockCount)
        return;
    ManagedBlock& slot = m_blocks.get()[i];
    std::uint8_t& flag = m_emptiness.get()[i];
    Block* entry = slot.load(std::memory_order_acquire);
    if (entry == FullBlock()) {
        flag = 0;
        return;
    }
    if (entry) {
        if (IsAllOnes(entry->Bits, kBitBytes)) {
            slot.store(FullBlock(), std::memory_order_release);
            FreeBlock(entry);
            flag = 0;
            return;
        }
        // Only exact summaries may empty a block: a 0 left by a plane write keeps it.
        if (!SummaryYPromisesEmpty(*entry)) {
            flag = 0;
            return;
        }
        slot.store(nullptr, std::memory_order_release);
        FreeBlock(entry);
    }
    flag = IsRegionClear(i) ? 1 : 0;
}

// An empty entry's region still reaches one voxel into the neighbours above in X,
// Y and Z, because a trilinear sample inside the block reads them. Each face is
// read only where it lies inside the volume.
bool QelBlockedBitTree::IsRegionClear(std::uint32_t i) const noexcept
{
    std::uint32_t x0, y0, z0;
    GetBlockOrigin(i, x0, y0, z0);
    const std::uint32_t xMask = LowMask(m_width - x0);
    const std::uint32_t yMask = LowMask(m_height - y0);
    const std::uint32_t zLast = std::min(z0 + 32, m_depth - 1);
    const bool hasRight = x0 + 32 < m_width, hasBelow = y0 + 32 < m_height, hasBehind = z0 + 32 < m_depth;

    if (hasBelow) {
        for (std::uint32_t z = z0; z <= zLast; ++z) {
            const Block* entry = GetBlock(GetBlockIndex(x0, y0 + 32, z));
            if (entry == FullBlock())
                return false;
            if (entry && (entry->GetRowBits(0, z & 31) & xMask) != 0)
                return false;
        }
    }
    if (hasBehind) {
        const Block* entry = GetBlock(GetBlockIndex(x0, y0, z0 + 32));
        if (entry == FullBlock())
            return false;
        if (entry) {
            for (std::uint32_t y = 0; y < 32 && y0 + y < m_height; ++y) {
                if ((entry->GetRowBits(y, 0) & xMask) != 0)
                    return false;
            }
        }
    }
    if (hasRight) {
        for (std::uint32_t z = z0; z <= zLast; ++z) {
            const Block* entry = GetBlock(GetBlockIndex(x0 + 32, y0, z));
            if (entry == FullBlock())
                return false;
            if (entry && (entry->GetColumnBits(0, z & 31) & yMask) != 0)
                return false;
        }
    }
    if (hasRight && hasBelow) {
        for (std::uint32_t z = z0; z <= zLast; ++z) {
            if (IsSet(static_cast<std::int32_t>(x0 + 32), static_cast<std::int32_t>(y0 + 32),
                      static_cast<std::int32_t>(z)))
                return false;
        }
        // Wider than the one corner voxel the edge already covered: safe, not exact.
        if (hasBehind) {
            const Block* corner = GetBlock(GetBlockIndex(x0 + 32, y0 + 32, z0 + 32));
            if (corner == FullBlock() || (corner && corner->GetColumnBits(0, 0) != 0))
                return false;
        }
    }
    return true;
}

// ---- Whole-tree changes ----

void QelBlockedBitTree::Clear() noexcept
{
    for (std::uint32_t i = 0; i < m_blockCount; ++i) {
        ManagedBlock& slot = m_blocks.get()[i];
        Block* entry = slot.load(std::memory_order_relaxed);
        if (HasStorage(entry))
            FreeBlock(entry);
        slot.store(nullptr, std::memory_order_relaxed);
    }
    if (m_blockCount != 0)
        std::memset(m_emptiness.get(), 1, m_blockCount);
}

bool QelBlockedBitTree::ClearSlice(std::int32_t z)
{
    if (z < 0 || static_cast<std::uint32_t>(z) / 32 >= m_blocksZ)
        return true;
    const std::uint32_t slab = static_cast<std::uint32_t>(z) / 32, lz = static_cast<std::uint32_t>(z) & 31;
    bool complete = true;
    for (std::uint32_t row = 0; row < m_blocksY; ++row) {
        const std::uint32_t first = (row + slab * m_blocksY) * m_blocksX;
        for (std::uint32_t i = first; i < first + m_blocksX; ++i) {
            if (!GetBlock(i))
                continue;
            Block* block = GetOrSplitBlock(i);
            if (!block) {
                complete = false;
                continue;
            }
            std::memset(block->Bits + kPlaneBytes * lz, 0, kPlaneBytes);
            block->SummaryY[lz] = 0;
            block->SummaryX[lz] = 0;
        }
    }
    return complete;
}

bool QelBlockedBitTree::SetBox(QelIntBBox3 box)
{
    const auto width = static_cast<std::uint32_t>(box.Width()), height = static_cast<std::uint32_t>(box.Height()),
               depth = static_cast<std::uint32_t>(box.Depth());
    const std::uint32_t blocksX = BlocksFor(width), blocksY = BlocksFor(height), blocksZ = BlocksFor(depth);
    if (blocksX != m_blocksX || blocksY != m_blocksY || blocksZ != m_blocksZ) {
        const std::uint64_t wanted = std::uint64_t{blocksX} * blocksY * blocksZ;
        if (wanted > 0xFFFFFFFFull)
            return false;
        const auto count = static_cast<std::uint32_t>(wanted);
        QelManagedPtr<ManagedBlock> blocks;
        QelManagedPtr<std::uint8_t> flags;
        if (!AllocTables(m_manager, count, blocks, flags))
            return false;
        const std::uint32_t kept = std::min(count, m_blockCount);
        for (std::uint32_t i = 0; i < kept; ++i)
            blocks.get()[i].store(GetBlock(i), std::memory_order_relaxed);
        if (kept != 0)
            std::memcpy(flags.get(), m_emptiness.get(), kept);
        for (std::uint32_t i = kept; i < m_blockCount; ++i) {
            if (Block* entry = GetBlock(i); HasStorage(entry))
                FreeBlock(entry);
        }
        m_blocks = std::move(blocks);
        m_emptiness = std::move(flags);
    }
    TakeSize(width, height, depth);
    return true;
}

// ---- Checking ----

bool QelBlockedBitTree::Verify(char* message, std::uint32_t size) const
{
    bool verified = false;
    QelFaultRecord fault;
    if (!QelRunGuarded(kVerifyGuardName, [&] { verified = VerifyGuarded(message, size); }, fault))
        return Fail(message, size, "An unknown error (exception) occurred during Bittree check");
    return verified;
}

bool QelBlockedBitTree::VerifyGuarded(char* message, std::uint32_t size) const
{
    if (m_blocksX != BlocksFor(m_width) || m_blocksY != BlocksFor(m_height) || m_blocksZ != BlocksFor(m_depth))
        return Fail(message, size, "Invalid Block Size for Bittree");
    if (std::uint64_t{m_blocksX} * m_blocksY * m_blocksZ != m_blockCount)
        return Fail(message, size, "Invalid Volume size for Bittree");
    if (m_blockCount != 0 && !m_blocks)
        return Fail(message, size, "Invalid Block Pointer for Bittree");
    for (std::uint32_t i = 0; i < m_blockCount; ++i) {
        const Block* entry = GetBlock(i);
        if (!HasStorage(entry))
            continue;
        QelFaultRecord fault;
        if (!QelRunGuarded(kVerifyGuardName, [entry] { TouchBlock(entry); }, fault))
            return Fail(message, size, "Invalid Block Data pointer for Bittree");
    }
    QelFaultRecord fault;
    const std::uint8_t* flags = m_emptiness.get();
    if (!QelRunGuarded(kVerifyGuardName, [flags, this] { TouchFlags(flags, m_blockCount); }, fault))
        return Fail(message, size, "Invalid Block Emptiness pointer for Bittree");
    return true;
}
