#pragma once

#include <cstddef>

/// A bump allocator of 64-byte aligned blocks for the per-frame records of one
/// render worker: Reserve the frame's total once, Reset, then Alloc each record.
/// There is no free of a single block; the reserved block lives as long as the
/// manager. Not shared: one manager a worker, used from that worker's thread.
class QelStackMemoryManager {
public:
    static constexpr std::size_t kAlignment = 64;
    /// Room reserved beyond the caller's sum, for aligning Base and each block, so
    /// that a caller reserves the sum of its sizes and not of the rounded sizes.
    static constexpr std::size_t kSlack = 400;

    QelStackMemoryManager() noexcept = default;
    ~QelStackMemoryManager();
    QelStackMemoryManager(const QelStackMemoryManager&) = delete;
    QelStackMemoryManager& operator=(const QelStackMemoryManager&) = delete;

    /// Makes room for `size` bytes of blocks. When the room is there already nothing
    /// changes, Cursor included, so Reset must follow for reuse; otherwise the block
    /// grows, and what was allocated before is gone. False, with nothing changed,
    /// when no block can be had.
    [[nodiscard]] bool Reserve(std::size_t size) noexcept;
    /// Hands out the same blocks again, in the same order for the same sizes.
    void Reset() noexcept;
    /// The next block: 64-byte aligned, taking the next multiple of 64 strictly above
    /// `size`. A block that would end beyond Block + Capacity, or any block before a
    /// Reserve, is a bug report; a handler that returns from it gets null.
    [[nodiscard]] void* Alloc(std::size_t size);

    [[nodiscard]] const std::byte* Block() const noexcept { return m_block; }
    [[nodiscard]] const std::byte* Base() const noexcept { return m_base; }
    [[nodiscard]] const std::byte* Cursor() const noexcept { return m_cursor; }
    [[nodiscard]] std::size_t Capacity() const noexcept { return m_capacity; }

private:
    std::byte* m_block = nullptr;   // from realloc; null until the first Reserve
    std::byte* m_base = nullptr;    // first 64-byte boundary strictly behind m_block
    std::byte* m_cursor = nullptr;  // m_base plus a multiple of 64
    std::size_t m_capacity = 0;     // bytes in m_block
};
