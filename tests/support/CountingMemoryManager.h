#pragma once

#include "base/QelMemoryManager.h"

#include <cstddef>
#include <cstdlib>
#include <set>

/// A manager for tests: blocks from malloc, so that the address sanitizer sees
/// them, with counts, a record of which blocks are its own, and a switch that makes
/// Alloc fail.
class CountingMemoryManager final : public QelMemoryManager {
public:
    ~CountingMemoryManager() override
    {
        for (void* block : m_blocks)
            std::free(block);
    }

    [[nodiscard]] void* Alloc(std::size_t size) noexcept override
    {
        ++m_allocCalls;
        m_lastSize = size;
        if (m_failing)
            return nullptr;
        if (m_allowed == 0)
            return nullptr;
        if (m_allowed > 0)
            --m_allowed;
        void* block = std::malloc(size == 0 ? 1 : size);
        if (block)
            m_blocks.insert(block);
        return block;
    }

    // A foreign block is counted and left alone, so a test sees the mistake.
    void Free(void* block) noexcept override
    {
        if (!block)
            return;
        if (m_blocks.erase(block) == 0) {
            ++m_foreignFrees;
            return;
        }
        std::free(block);
    }

    void SetFailing(bool failing) noexcept { m_failing = failing; }
    /// Lets `allowed` more Alloc calls succeed and fails the rest; -1 lifts the limit.
    void SetFailAfter(int allowed) noexcept { m_allowed = allowed; }

    [[nodiscard]] std::size_t Outstanding() const noexcept { return m_blocks.size(); }
    [[nodiscard]] int AllocCalls() const noexcept { return m_allocCalls; }
    [[nodiscard]] std::size_t LastSize() const noexcept { return m_lastSize; }
    [[nodiscard]] int ForeignFrees() const noexcept { return m_foreignFrees; }

private:
    std::set<void*> m_blocks;
    int m_allocCalls = 0;
    int m_foreignFrees = 0;
    std::size_t m_lastSize = 0;
    bool m_failing = false;
    int m_allowed = -1;
};
