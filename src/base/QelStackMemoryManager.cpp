#include "base/QelStackMemoryManager.h"

#include "base/QelDebug.h"

#include <cstdint>
#include <cstdlib>

namespace {

// The out-of-space report names this place and not the line of the call: hosts
// match the whole report text, place included, so it must not move with edits.
constexpr const char* kOutOfSpaceFile = "src/base/QelStackMemoryManager";
constexpr int kOutOfSpaceLine = 57;

std::byte* FirstBoundaryBehind(std::byte* block) noexcept
{
    const auto address = reinterpret_cast<std::uintptr_t>(block);
    const std::uintptr_t boundary =
        (address & ~std::uintptr_t{QelStackMemoryManager::kAlignment - 1}) + QelStackMemoryManager::kAlignment;
    return block + (boundary - address);
}

}  // namespace

QelStackMemoryManager::~QelStackMemoryManager()
{
    std::free(m_block);
}

bool QelStackMemoryManager::Reserve(std::size_t size) noexcept
{
    if (size > SIZE_MAX - kSlack)
        return false;
    const std::size_t needed = size + kSlack;
    if (needed <= m_capacity)
        return true;
    auto* block = static_cast<std::byte*>(std::realloc(m_block, needed));
    if (!block)
        return false;
    m_block = block;
    m_base = FirstBoundaryBehind(block);
    m_cursor = m_base;
    m_capacity = needed;
    return true;
}

void QelStackMemoryManager::Reset() noexcept
{
    m_cursor = m_base;
}

void* QelStackMemoryManager::Alloc(std::size_t size)
{
    // The cursor may already stand up to 64 bytes past the end, after a block that
    // ended there exactly, so the room left is signed.
    const std::ptrdiff_t room = m_block ? (m_block + m_capacity) - m_cursor : -1;
    if (room < 0 || size > static_cast<std::size_t>(room)) {
        QelDebug::ReportAssert(kOutOfSpaceFile, kOutOfSpaceLine,
                               "QelStackMemoryManager::Alloc():\n  Out of space. Requesting %d + %d out of total %d.\n",
                               static_cast<int>(m_cursor - m_base), static_cast<int>(size),
                               static_cast<int>(m_capacity));
        return nullptr;
    }
    std::byte* block = m_cursor;
    m_cursor += (size & ~(kAlignment - 1)) + kAlignment;
    return block;
}
