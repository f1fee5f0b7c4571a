#include "base/QelMemoryManager.h"

#include <atomic>
#include <cstdint>
#include <new>
#include <sys/mman.h>
#include <unistd.h>

namespace {

constinit std::atomic<bool> s_tracking{true};
constinit std::atomic<std::int32_t> s_outstanding{0};

std::size_t PageSize() noexcept
{
    static const std::size_t size = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
    return size;
}

// The default manager differs from the dumb one by identity only.
class QelDumbMemoryManagerMod final : public QelDumbMemoryManager {};

}  // namespace

// The operating system wants the length back when a mapping is released, so the
// first page of each mapping keeps it and the caller gets the page after it.
void* QelMemoryManager::Alloc(std::size_t size) noexcept
{
    if (size == 0)
        size = 4;
    const std::size_t page = PageSize();
    if (size > SIZE_MAX - 2 * page)
        return nullptr;
    const std::size_t length = (size + page - 1) / page * page + page;
    void* mapping = mmap(nullptr, length, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (mapping == MAP_FAILED)
        return nullptr;
    *static_cast<std::size_t*>(mapping) = length;
    return static_cast<char*>(mapping) + page;
}

void QelMemoryManager::Free(void* block) noexcept
{
    if (!block)
        return;
    char* mapping = static_cast<char*>(block) - PageSize();
    munmap(mapping, *reinterpret_cast<std::size_t*>(mapping));
}

void* QelMemoryManager::AllocAligned(std::size_t size, void** rawBlock) noexcept
{
    void* raw = size <= SIZE_MAX - 16 ? Alloc(size + 16) : nullptr;
    *rawBlock = raw;
    const auto address = reinterpret_cast<std::uintptr_t>(raw);
    if (address % 16 == 0)
        return raw;
    return reinterpret_cast<void*>((address + 16) & ~std::uintptr_t{15});
}

QelMemoryManager* QelMemoryManager::GetDefault()
{
    static const std::unique_ptr<QelMemoryManager> manager(new QelDumbMemoryManagerMod);
    return manager.get();
}

std::unique_ptr<QelDumbMemoryManager> QelDumbMemoryManager::New()
{
    return std::unique_ptr<QelDumbMemoryManager>(new (std::nothrow) QelDumbMemoryManager);
}

void* QelDumbMemoryManager::Alloc(std::size_t size) noexcept
{
    void* block = new (std::nothrow) char[size];
    if (block && s_tracking.load(std::memory_order_relaxed))
        s_outstanding.fetch_add(1, std::memory_order_relaxed);
    return block;
}

void QelDumbMemoryManager::Free(void* block) noexcept
{
    if (!block)
        return;
    delete[] static_cast<char*>(block);
    if (!s_tracking.load(std::memory_order_relaxed))
        return;
    // Never below zero, even when tracking was switched on with blocks out.
    std::int32_t count = s_outstanding.load(std::memory_order_relaxed);
    while (count >= 1 && !s_outstanding.compare_exchange_weak(count, count - 1, std::memory_order_relaxed)) {
    }
}

std::int32_t QelDumbMemoryManager::OutstandingBlocks() noexcept
{
    return s_outstanding.load(std::memory_order_relaxed);
}

void QelDumbMemoryManager::SetTracking(bool on) noexcept
{
    s_tracking.store(on, std::memory_order_relaxed);
}
