#include "threaded/QelSystemInfo.h"

#include "threaded/imp/QelCpuTopology.h"

#include <algorithm>
#include <atomic>
#include <cpuid.h>
#include <cstring>
#include <unistd.h>

namespace {

// 0 while no pin lives.
constinit std::atomic<int> s_pinnedCount{0};

constexpr std::int32_t kSmallCacheKB = 512;

bool Bit(unsigned word, int bit) noexcept
{
    return ((word >> bit) & 1u) != 0;
}

void ReadCpuid(QelSystemInfo::Facts& facts)
{
    unsigned eax = 0, ebx = 0, ecx = 0, edx = 0;
    // On x86-64 CPUID always exists; __get_cpuid still checks on 32-bit builds.
    if (!__get_cpuid(0, &eax, &ebx, &ecx, &edx))
        return;
    facts.MaxCpuidLeaf = static_cast<std::int32_t>(eax);
    std::memcpy(facts.Vendor.data(), &ebx, 4);
    std::memcpy(facts.Vendor.data() + 4, &edx, 4);
    std::memcpy(facts.Vendor.data() + 8, &ecx, 4);
    facts.Vendor[12] = '\0';
    facts.IsIntel = std::strcmp(facts.Vendor.data(), "GenuineIntel") == 0;
    facts.IsAMD = std::strcmp(facts.Vendor.data(), "AuthenticAMD") == 0;

    if (facts.MaxCpuidLeaf < 1)
        return;
    __cpuid(1, eax, ebx, ecx, edx);
    facts.FeaturesRead = true;
    facts.HasMMX = Bit(edx, 23);
    facts.HasSSE = Bit(edx, 25);
    facts.HasSSE2 = Bit(edx, 26);
    facts.HasHyperThreading = Bit(edx, 28);
    facts.HasSSE3 = Bit(ecx, 0);
    facts.HasSSE41 = Bit(ecx, 19);
    QelSystemInfo::DecodeSignature(eax, facts.Family, facts.Model);
}

}  // namespace

const QelSystemInfo& QelSystemInfo::Instance()
{
    static const QelSystemInfo instance(ReadFacts());
    return instance;
}

QelSystemInfo::Facts QelSystemInfo::ReadFacts()
{
    Facts facts;
    ReadCpuid(facts);

    // The rule for the thread count was tuned on one vendor's caches; on others the
    // size is left at 0, which makes hyper-threaded machines use one thread a core.
    if (facts.IsIntel && facts.MaxCpuidLeaf > 1)
        facts.CacheSizeKB = QelLastLevelCacheKB(kQelCpuSysRoot);

    const std::vector<int> processors = QelAffinityProcessors();
    if (!processors.empty()) {
        const QelProcessorCounts counts = QelCountProcessors(kQelCpuSysRoot, processors);
        facts.LogicalCount = counts.Logical;
        facts.CoreCount = counts.Cores;
        facts.PackageCount = counts.Packages;
    } else {
        const long online = sysconf(_SC_NPROCESSORS_ONLN);
        facts.LogicalCount = static_cast<std::uint32_t>(std::max(online, 1L));
        facts.CoreCount = facts.LogicalCount;
        facts.PackageCount = 1;
    }
    return facts;
}

void QelSystemInfo::DecodeSignature(std::uint32_t eax, std::int32_t& family, std::int32_t& model) noexcept
{
    family = static_cast<std::int32_t>((((eax >> 20) & 0xFFu) << 4) | ((eax >> 8) & 0xFu));
    model = static_cast<std::int32_t>((((eax >> 16) & 0xFu) << 4) | ((eax >> 4) & 0xFu));
}

int QelSystemInfo::RenderThreadCount() const noexcept
{
    if (const int pinned = s_pinnedCount.load(std::memory_order_relaxed); pinned > 0)
        return pinned;
    const std::uint32_t count = m_facts.LogicalCount > m_facts.CoreCount && m_facts.CacheSizeKB < kSmallCacheKB
                                    ? m_facts.CoreCount
                                    : m_facts.LogicalCount;
    return static_cast<int>(std::min<std::uint32_t>(count, 0x7FFFFFFF));
}

QelRenderThreadCountPin::QelRenderThreadCountPin(int count) noexcept
    : m_previous(s_pinnedCount.load(std::memory_order_relaxed))
{
    s_pinnedCount.store(std::max(count, 1), std::memory_order_relaxed);
}

QelRenderThreadCountPin::~QelRenderThreadCountPin()
{
    s_pinnedCount.store(m_previous, std::memory_order_relaxed);
}
