#pragma once

#include "base/QelMemoryManager.h"

#include <cstdlib>
#include <memory>
#include <new>
#include <type_traits>
#include <utility>

// Single owners only: nothing in the system is shared by counting.

/// Owns an object made with new and deletes it.
template <class T>
using QelPtr = std::unique_ptr<T>;

/// Gives a block of plain data back to free, with no destructor call on it.
struct QelFreeDeleter {
    void operator()(void* block) const noexcept { std::free(block); }
};

/// Owns a block from malloc or realloc.
template <class T>
using QelCPtr = std::unique_ptr<T, QelFreeDeleter>;

/// Destroys an object and gives its block back to the manager it came from.
template <class T>
class QelManagedDeleter {
public:
    QelManagedDeleter() noexcept = default;
    explicit QelManagedDeleter(QelMemoryManager* manager) noexcept : m_manager(manager) {}

    void operator()(T* object) const noexcept
    {
        std::destroy_at(object);
        m_manager->Free(object);
    }

    [[nodiscard]] QelMemoryManager* Manager() const noexcept { return m_manager; }

private:
    QelMemoryManager* m_manager = nullptr;
};

/// Owns an object that lives in a block of a QelMemoryManager. A raw block is owned
/// as QelManagedPtr<std::byte>{block, QelManagedDeleter<std::byte>(manager)}.
template <class T>
using QelManagedPtr = std::unique_ptr<T, QelManagedDeleter<T>>;

/// A T made in a block of `manager`; null when no block can be had. A constructor
/// that throws gives the block back before the exception leaves.
template <class T, class... Args>
[[nodiscard]] QelManagedPtr<T> QelMakeManaged(QelMemoryManager* manager, Args&&... args)
{
    // A manager's blocks are aligned as the global allocator's are, and no more.
    static_assert(alignof(T) <= __STDCPP_DEFAULT_NEW_ALIGNMENT__, "over-aligned type in a managed block");
    void* block = manager->Alloc(sizeof(T));
    if (!block)
        return QelManagedPtr<T>(nullptr, QelManagedDeleter<T>(manager));
    try {
        return QelManagedPtr<T>(new (block) T(std::forward<Args>(args)...), QelManagedDeleter<T>(manager));
    } catch (...) {
        manager->Free(block);
        throw;
    }
}
