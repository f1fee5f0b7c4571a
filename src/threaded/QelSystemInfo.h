#pragma once

#include "base/QelNoncopyable.h"

#include <array>
#include <cstdint>

/// What the machine can do: vendor, family and model, instruction-set flags, the
/// last-level cache, and how many logical processors, cores and packages the
/// process may run on. Renderers ask it how many threads to use by default.
///
/// Instance() is the process's record, read once on first use and read-only after
/// that, so it is safe from any thread. Other records are made from hand-written
/// Facts, so that the rules can be tried on machines we don't have.
///
/// The processor counts and the cache size come from the operating system, not
/// from walking APIC identifiers with the thread pinned to each processor in turn:
/// the kernel has done that walk already, and pinning would disturb the caller.
/// No operating-system version is kept: nothing here depends on one.
class QelSystemInfo : QelNoncopyable {
public:
    /// Defaults are those of a processor that answers no CPUID question.
    struct Facts {
        std::int32_t MaxCpuidLeaf = -1;    // highest standard CPUID leaf
        std::array<char, 13> Vendor{};     // leaf 0 text in EBX, EDX, ECX order
        bool IsIntel = false;              // Vendor is "GenuineIntel"
        bool IsAMD = false;                // Vendor is "AuthenticAMD"
        bool FeaturesRead = false;         // leaf 1 has been read
        bool HasMMX = false;               // leaf 1 EDX bit 23
        bool HasSSE = false;               // leaf 1 EDX bit 25
        bool HasSSE2 = false;              // leaf 1 EDX bit 26
        bool UseSSE2 = true;               // switches, each ANDed with its flag
        bool HasSSE3 = false;              // leaf 1 ECX bit 0
        bool UseSSE3 = true;
        bool HasSSE41 = false;             // leaf 1 ECX bit 19
        bool UseSSE41 = true;
        bool HasHyperThreading = false;    // leaf 1 EDX bit 28: the package may run several threads
        std::int32_t Family = -1;          // see DecodeSignature
        std::int32_t Model = -1;
        std::int32_t CacheSizeKB = 0;      // last-level cache; kept for Intel only
        std::uint32_t LogicalCount = 0;    // processors the process may run on
        std::uint32_t CoreCount = 0;       // different cores among them
        std::uint32_t PackageCount = 0;    // different packages among them
    };

    /// The record of this machine and process, made at the first call.
    [[nodiscard]] static const QelSystemInfo& Instance();

    explicit QelSystemInfo(const Facts& facts) noexcept : m_facts(facts) {}

    /// Reads this machine: CPUID, the calling thread's affinity, the kernel's
    /// topology and cache files.
    [[nodiscard]] static Facts ReadFacts();

    /// Family and model from the signature in leaf 1 EAX: family is bits 8 to 11
    /// with bits 20 to 27 placed above them, model bits 4 to 7 with bits 16 to 19
    /// placed above them.
    static void DecodeSignature(std::uint32_t eax, std::int32_t& family, std::int32_t& model) noexcept;

    /// The threads a render uses by default. Hyper-threaded siblings share a core's
    /// cache, so with a small last-level cache they would evict each other's data:
    /// then one thread per core. Otherwise one per logical processor. A live
    /// QelRenderThreadCountPin overrides the answer.
    [[nodiscard]] int RenderThreadCount() const noexcept;

    [[nodiscard]] bool IsMMXAvailable() const noexcept { return m_facts.HasMMX; }
    [[nodiscard]] bool IsSSEAvailable() const noexcept { return m_facts.HasSSE; }
    [[nodiscard]] bool IsSSE2Available() const noexcept { return m_facts.HasSSE2 && m_facts.UseSSE2; }
    [[nodiscard]] bool IsSSE3Available() const noexcept { return m_facts.HasSSE3 && m_facts.UseSSE3; }
    [[nodiscard]] bool IsSSE41Available() const noexcept { return m_facts.HasSSE41 && m_facts.UseSSE41; }
    /// Whether some core runs more than one of the process's processors.
    [[nodiscard]] bool IsHyperThreadingAvailable() const noexcept { return m_facts.CoreCount < m_facts.LogicalCount; }

    [[nodiscard]] std::uint32_t GetLogicalCount() const noexcept { return m_facts.LogicalCount; }
    [[nodiscard]] std::uint32_t GetCoreCount() const noexcept { return m_facts.CoreCount; }
    [[nodiscard]] std::uint32_t GetPackageCount() const noexcept { return m_facts.PackageCount; }

    [[nodiscard]] std::int32_t MaxCpuidLeaf() const noexcept { return m_facts.MaxCpuidLeaf; }
    [[nodiscard]] const char* Vendor() const noexcept { return m_facts.Vendor.data(); }
    [[nodiscard]] bool IsIntel() const noexcept { return m_facts.IsIntel; }
    [[nodiscard]] bool IsAMD() const noexcept { return m_facts.IsAMD; }
    [[nodiscard]] std::int32_t Family() const noexcept { return m_facts.Family; }
    [[nodiscard]] std::int32_t Model() const noexcept { return m_facts.Model; }
    [[nodiscard]] std::int32_t CacheSizeKB() const noexcept { return m_facts.CacheSizeKB; }
    [[nodiscard]] const Facts& GetFacts() const noexcept { return m_facts; }

private:
    Facts m_facts;
};

/// For tests: RenderThreadCount() answers `count` (at least 1) while the object
/// lives, so that the choice between serial and threaded loops can be tried on
/// any machine. Pins nest, the inner one winning until it ends. The pin is
/// process-wide: a test must not make pins from two threads at once.
class QelRenderThreadCountPin : QelNoncopyable {
public:
    explicit QelRenderThreadCountPin(int count) noexcept;
    ~QelRenderThreadCountPin();

private:
    int m_previous;
};
