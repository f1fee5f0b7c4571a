#include "bittree/QelBlockedBitTree.h"

#include "base/QelDebug.h"
#include "bittree/imp/QelBitWords.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <limits>
#include <new>
#include <vector>

namespace {

using Block = QelBlockedBitTree::Block;
using qel::bits::BlocksFor;

constexpr std::size_t kHeaderWords = 7;
constexpr std::size_t kKindChunk = 65536;

enum class Kind : std::uint8_t { Empty = 0, Data = 1, Full = 2 };

void PutWord(std::uint8_t* at, std::uint32_t value) noexcept
{
    for (int k = 0; k < 4; ++k)
        at[k] = static_cast<std::uint8_t>(value >> (8 * k));
}

std::uint32_t GetWord(const std::uint8_t* at) noexcept
{
    return std::uint32_t{at[0]} | std::uint32_t{at[1]} << 8 | std::uint32_t{at[2]} << 16 |
           std::uint32_t{at[3]} << 24;
}

bool WriteAll(std::FILE* file, const void* bytes, std::size_t count) noexcept
{
    return std::fwrite(bytes, 1, count, file) == count;
}

bool ReadAll(std::FILE* file, void* bytes, std::size_t count) noexcept
{
    return std::fread(bytes, 1, count, file) == count;
}

// The kind bytes, read a chunk at a time so that a header that promises more
// entries than the stream holds costs no more memory than the stream does.
bool ReadKinds(std::FILE* file, std::uint32_t count, std::vector<std::uint8_t>& kinds)
{
    try {
        while (kinds.size() < count) {
            const std::size_t chunk = std::min<std::size_t>(kKindChunk, count - kinds.size());
            const std::size_t at = kinds.size();
            kinds.resize(at + chunk);
            if (!ReadAll(file, kinds.data() + at, chunk))
                return false;
        }
    } catch (const std::bad_alloc&) {
        return false;
    }
    for (std::uint8_t kind : kinds) {
        if (kind > static_cast<std::uint8_t>(Kind::Full))
            return false;
    }
    return true;
}

}  // namespace

bool QelBlockedBitTree::Save(std::FILE* file) const
{
    QEL_ASSERT(file != nullptr, "Save():\n  NULL pointer (file)\n");
    if (!file)
        return false;
    std::array<std::uint8_t, 4 * kHeaderWords> header;
    const std::uint32_t words[kHeaderWords] = {m_width,   m_height,  m_depth,     m_blocksX,
                                               m_blocksY, m_blocksZ, m_blockCount};
    for (std::size_t k = 0; k < kHeaderWords; ++k)
        PutWord(header.data() + 4 * k, words[k]);
    if (!WriteAll(file, header.data(), header.size()))
        return false;

    std::array<std::uint8_t, 4096> kinds;
    for (std::uint32_t first = 0; first < m_blockCount; first += kinds.size()) {
        const std::uint32_t count = std::min<std::uint32_t>(kinds.size(), m_blockCount - first);
        for (std::uint32_t k = 0; k < count; ++k) {
            const Block* entry = GetBlock(first + k);
            const Kind kind = entry == nullptr ? Kind::Empty : entry == FullBlock() ? Kind::Full : Kind::Data;
            kinds[k] = static_cast<std::uint8_t>(kind);
        }
        if (!WriteAll(file, kinds.data(), count))
            return false;
    }
    for (std::uint32_t i = 0; i < m_blockCount; ++i) {
        const Block* entry = GetBlock(i);
        if (HasStorage(entry) && !WriteAll(file, entry->Bits, kBitBytes))
            return false;
    }
    return std::fflush(file) == 0;
}

std::unique_ptr<QelBlockedBitTree> QelBlockedBitTree::Load(std::FILE* file, QelMemoryManager* manager)
{
    QEL_ASSERT(file != nullptr, "Save():\n  NULL pointer (file)\n");
    if (!file)
        return nullptr;
    std::array<std::uint8_t, 4 * kHeaderWords> header;
    if (!ReadAll(file, header.data(), header.size()))
        return nullptr;
    std::uint32_t words[kHeaderWords];
    for (std::size_t k = 0; k < kHeaderWords; ++k)
        words[k] = GetWord(header.data() + 4 * k);
    const auto [width, height, depth, blocksX, blocksY, blocksZ, count] = words;
    // Sizes must fit the box the tree reports; the block counts must be the ones
    // the sizes give, so the count can't claim more than the dimensions allow.
    constexpr auto kMaxSize = static_cast<std::uint32_t>(std::numeric_limits<std::int32_t>::max());
    if (width > kMaxSize || height > kMaxSize || depth > kMaxSize)
        return nullptr;
    if (blocksX != BlocksFor(width) || blocksY != BlocksFor(height) || blocksZ != BlocksFor(depth) ||
        std::uint64_t{blocksX} * blocksY * blocksZ != count)
        return nullptr;

    std::vector<std::uint8_t> kinds;
    if (!ReadKinds(file, count, kinds))
        return nullptr;
    std::unique_ptr<QelBlockedBitTree> tree = Make(width, height, depth, manager);
    if (!tree)
        return nullptr;
    for (std::uint32_t i = 0; i < count; ++i) {
        if (kinds[i] == static_cast<std::uint8_t>(Kind::Full)) {
            tree->m_blocks.get()[i].store(FullBlock(), std::memory_order_relaxed);
            continue;
        }
        if (kinds[i] != static_cast<std::uint8_t>(Kind::Data))
            continue;
        Block* block = tree->NewBlock();
        if (!block)
            return nullptr;
        // Owned by the tree from here, so a short read gives it back with the rest.
        tree->m_blocks.get()[i].store(block, std::memory_order_relaxed);
        if (!ReadAll(file, block->Bits, kBitBytes))
            return nullptr;
    }
    tree->CompleteSummaryInX();
    tree->CompleteSummaryInY();
    tree->ComputeBlockEmptiness();
    return tree;
}
