#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

/// Where large native blocks come from. A block goes back to the manager it came
/// from. The base bodies are usable: Alloc hands out zeroed, page-aligned memory
/// straight from the operating system, so a derived manager overrides only what it
/// needs. Safe from any thread.
class QelMemoryManager {
public:
    virtual ~QelMemoryManager() = default;

    /// Null when no block can be had; never throws. A size of 0 gets a small block.
    [[nodiscard]] virtual void* Alloc(std::size_t size) noexcept;
    /// A 16-byte aligned block of `size` bytes; `*rawBlock` receives what must be
    /// handed to Free later. Null (and a null raw block) when no block can be had.
    [[nodiscard]] virtual void* AllocAligned(std::size_t size, void** rawBlock) noexcept;
    virtual void Free(void* block) noexcept;
    virtual void Clear() noexcept {}
    virtual void AnnounceBlockSize(std::size_t /*size*/) noexcept {}
    /// 0 means that the size isn't known, not that memory has run out.
    [[nodiscard]] virtual std::uint64_t GetFreeMemorySize() const noexcept { return 0; }
    [[nodiscard]] virtual std::int32_t GetPeakMemorySize() const noexcept { return 0; }

    /// The default native manager, made at the first call and kept until the
    /// process ends; native factories given a null manager use it.
    [[nodiscard]] static QelMemoryManager* GetDefault();

protected:
    QelMemoryManager() = default;
    QelMemoryManager(const QelMemoryManager&) = delete;
    QelMemoryManager& operator=(const QelMemoryManager&) = delete;
};

/// The manager the system runs on: blocks from the global array allocator, with a
/// process-wide count of outstanding blocks while tracking is on (it is from the start).
class QelDumbMemoryManager : public QelMemoryManager {
public:
    /// Null when the manager can't be made.
    [[nodiscard]] static std::unique_ptr<QelDumbMemoryManager> New();

    [[nodiscard]] void* Alloc(std::size_t size) noexcept override;
    void Free(void* block) noexcept override;

    [[nodiscard]] static std::int32_t OutstandingBlocks() noexcept;
    static void SetTracking(bool on) noexcept;

protected:
    QelDumbMemoryManager() = default;
};
