#pragma once

#include "base/QelDebug.h"
#include "base/QelIntRange.h"
#include "base/QelMemoryManager.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <type_traits>

/// Whether QelArray may move its elements as bytes and fill them with bytewise
/// copies of the default element. True for trivially copyable types. A type with a
/// destructor may opt in by specialising this to true, provided its default value
/// owns nothing, so that every bytewise copy of it can be destroyed on its own.
/// The array destroys all elements of such a type when it is deleted, and offers no
/// Resize, which would drop elements without destroying them.
template <class T>
inline constexpr bool kQelArrayBytewise = std::is_trivially_copyable_v<T>;

/// An array over an inclusive integer index range, which may be negative, so that a
/// look-up table is indexed by a signed voxel value directly. The array owns its
/// block, which comes from the memory manager it was given, or from malloc when that
/// is null. Any number of threads may read it at once, but not while it is resized.
template <class T>
class QelArray {
    static_assert(kQelArrayBytewise<T>, "QelArray moves elements as bytes: see kQelArrayBytewise");

public:
    /// An empty array whose later elements start as `defaultElem`.
    explicit QelArray(const T& defaultElem = T{}, QelMemoryManager* manager = nullptr)
        : m_defaultElem(defaultElem), m_manager(manager)
    {
    }

    ~QelArray()
    {
        if constexpr (!std::is_trivially_destructible_v<T>)
            std::destroy_n(m_data, Length());
        FreeBlock();
    }

    QelArray(const QelArray&) = delete;
    QelArray& operator=(const QelArray&) = delete;

    /// Elements over `range`, all `defaultElem`; an empty range gives an empty array.
    /// Null for a range with an infinite bound, or when no block can be had.
    [[nodiscard]] static std::unique_ptr<QelArray> New(const QelIntRange& range, const T& defaultElem,
                                                       QelMemoryManager* manager)
    {
        if (range.IsInf())
            return nullptr;
        std::unique_ptr<QelArray> array(new (std::nothrow) QelArray(defaultElem, manager));
        if (!array || !array->Reshape(range))
            return nullptr;
        return array;
    }

    /// Elements 0 to size - 1. A negative size is a bug report.
    [[nodiscard]] static std::unique_ptr<QelArray> New(int size, const T& defaultElem, QelMemoryManager* manager)
    {
        QEL_ASSERT(size >= 0,
                   "QelArray::New (size, default_elem):\n  \"size\" must be positive or zero. %d was given\n",
                   size);
        if (size < 0)  // reached only under a handler that returns
            return nullptr;
        return New(size == 0 ? QelIntRange::Empty() : QelIntRange(0, size - 1), defaultElem, manager);
    }

    /// Unchecked: the index must lie in Range().
    [[nodiscard]] T& Elem(std::int32_t index) noexcept { return m_zeroElement[index]; }
    [[nodiscard]] const T& Elem(std::int32_t index) const noexcept { return m_zeroElement[index]; }
    /// Where index 0 lies, whether or not 0 is in the range; null when empty.
    [[nodiscard]] T* ZElem() noexcept { return m_zeroElement; }
    [[nodiscard]] const T* ZElem() const noexcept { return m_zeroElement; }
    /// The first element; null when empty.
    [[nodiscard]] T* Data() noexcept { return m_data; }
    [[nodiscard]] const T* Data() const noexcept { return m_data; }

    /// 64 bits: a range that isn't infinite may still hold more than 2^31 - 1 indices.
    [[nodiscard]] std::int64_t Length() const noexcept { return Count(m_range); }
    [[nodiscard]] const QelIntRange& Range() const noexcept { return m_range; }
    [[nodiscard]] const T& DefaultElem() const noexcept { return m_defaultElem; }
    [[nodiscard]] QelMemoryManager* MemoryManager() const noexcept { return m_manager; }

    /// Keeps the elements whose index lies in both ranges; the others are DefaultElem.
    /// An empty range gives the block back. False, with nothing changed, for a range
    /// with an infinite bound. False also when no block can be had: the range and the
    /// block then stay, but the shared elements have already moved to the start of the
    /// block, so the contents no longer sit at their indices.
    [[nodiscard]] bool Resize(const QelIntRange& range) noexcept
        requires std::is_trivially_destructible_v<T>
    {
        return Reshape(range);
    }

private:
    [[nodiscard]] static std::int64_t Count(const QelIntRange& range) noexcept
    {
        return range.IsEmpty() ? 0 : std::int64_t{range.Max} - range.Min + 1;
    }
    // A count is below 2^32, so the product is exact in 64 bits.
    [[nodiscard]] static std::size_t Bytes(std::int64_t count) noexcept
    {
        return static_cast<std::size_t>(count) * sizeof(T);
    }

    bool Reshape(const QelIntRange& range) noexcept
    {
        if (range.IsInf())
            return false;
        if (range.IsEmpty()) {
            FreeBlock();
            m_range = QelIntRange::Empty();
            return true;
        }
        if (range == m_range)
            return true;

        const QelIntRange kept = m_range.And(range);
        const std::int64_t keptCount = Count(kept);
        // Moving the kept elements to the start first lets realloc shrink the block
        // without losing them.
        if (keptCount > 0)
            std::memmove(static_cast<void*>(m_data), m_zeroElement + kept.Min, Bytes(keptCount));
        T* block = Reallocate(keptCount, Bytes(Count(range)));
        if (!block)
            return false;

        m_data = block;
        m_zeroElement = block - range.Min;
        if (keptCount == 0) {
            Fill(block, Count(range));
        } else {
            T* keptPlace = m_zeroElement + kept.Min;
            std::memmove(static_cast<void*>(keptPlace), block, Bytes(keptCount));
            Fill(block, std::int64_t{kept.Min} - range.Min);
            Fill(keptPlace + keptCount, std::int64_t{range.Max} - kept.Max);
        }
        m_range = range;
        return true;
    }

    // A block of `bytes` whose first `keptCount` elements are those at the start of
    // the current block; null, with the current block untouched, when none can be had.
    T* Reallocate(std::int64_t keptCount, std::size_t bytes) noexcept
    {
        if (!m_manager)
            return static_cast<T*>(std::realloc(static_cast<void*>(m_data), bytes));
        T* block = static_cast<T*>(m_manager->Alloc(bytes));
        if (!block)
            return nullptr;
        if (keptCount > 0)
            std::memcpy(static_cast<void*>(block), m_data, Bytes(keptCount));
        if (m_data)
            m_manager->Free(m_data);
        return block;
    }

    void Fill(T* first, std::int64_t count) noexcept
    {
        if constexpr (std::is_trivially_copyable_v<T>) {
            std::fill_n(first, count, m_defaultElem);
        } else {
            for (std::int64_t i = 0; i < count; ++i)
                std::memcpy(static_cast<void*>(first + i), &m_defaultElem, sizeof(T));
        }
    }

    void FreeBlock() noexcept
    {
        if (m_data) {
            if (m_manager)
                m_manager->Free(m_data);
            else
                std::free(static_cast<void*>(m_data));
        }
        m_data = nullptr;
        m_zeroElement = nullptr;
    }

    QelIntRange m_range;
    T* m_data = nullptr;
    T* m_zeroElement = nullptr;  // m_data - Min: saves the subtraction in every Elem
    T m_defaultElem;
    QelMemoryManager* m_manager;
};
