#include "base/QelIsa.h"

#include <algorithm>
#include <atomic>
#include <cpuid.h>

namespace {

constexpr QelIsa kHighestIsa = QelIsa::Avx512;

// The cap of the live QelIsaLimit objects; the highest level when there are none.
constinit std::atomic<QelIsa> s_cap{kHighestIsa};

// XCR0 says which register states the operating system saves on a task switch.
// The instruction exists only when CPUID reports OSXSAVE, which the caller checks.
std::uint64_t ReadXcr0() noexcept
{
    std::uint32_t low = 0;
    std::uint32_t high = 0;
    asm volatile("xgetbv" : "=a"(low), "=d"(high) : "c"(0));
    return (std::uint64_t{high} << 32) | low;
}

QelIsa DetectBestIsa() noexcept
{
    unsigned eax = 0, ebx = 0, ecx = 0, edx = 0;
    if (!__get_cpuid(1, &eax, &ebx, &ecx, &edx) || !(edx & bit_SSE2))
        return QelIsa::Scalar;

    // AVX2 needs the processor bits and an operating system that keeps the upper
    // halves of the YMM registers; without the latter the instructions would work
    // until the first task switch corrupts them.
    const bool hasOsxsave = (ecx & bit_OSXSAVE) != 0;
    const bool hasAvx = (ecx & bit_AVX) != 0;
    if (!hasOsxsave || !hasAvx)
        return QelIsa::Sse2;
    constexpr std::uint64_t kXmmYmmState = 0x6;
    if ((ReadXcr0() & kXmmYmmState) != kXmmYmmState)
        return QelIsa::Sse2;
    if (!__get_cpuid_count(7, 0, &eax, &ebx, &ecx, &edx) || !(ebx & bit_AVX2))
        return QelIsa::Sse2;
    // The 512-bit level: foundation, byte/word and doubleword/quadword instructions,
    // with the mask registers and all 32 ZMM registers saved by the system.
    constexpr unsigned kAvx512Bits = bit_AVX512F | bit_AVX512BW | bit_AVX512DQ;
    constexpr std::uint64_t kZmmState = 0xE6;
    if ((ebx & kAvx512Bits) != kAvx512Bits || (ReadXcr0() & kZmmState) != kZmmState)
        return QelIsa::Avx2;
    return QelIsa::Avx512;
}

QelIsa HardwareBestIsa() noexcept
{
    static const QelIsa best = DetectBestIsa();
    return best;
}

}  // namespace

std::vector<QelIsa> QelSupportedIsas()
{
    std::vector<QelIsa> isas;
    for (auto level = static_cast<std::uint8_t>(QelIsa::Scalar);
         level <= static_cast<std::uint8_t>(HardwareBestIsa()); ++level)
        isas.push_back(static_cast<QelIsa>(level));
    return isas;
}

bool QelIsaSupported(QelIsa isa) noexcept
{
    return isa <= HardwareBestIsa();
}

QelIsa QelBestIsa() noexcept
{
    return std::min(HardwareBestIsa(), s_cap.load(std::memory_order_relaxed));
}

const char* QelIsaName(QelIsa isa) noexcept
{
    switch (isa) {
    case QelIsa::Scalar:
        return "Scalar";
    case QelIsa::Sse2:
        return "Sse2";
    case QelIsa::Avx2:
        return "Avx2";
    case QelIsa::Avx512:
        return "Avx512";
    }
    return "Unknown";
}

QelIsaLimit::QelIsaLimit(QelIsa cap) noexcept : m_previous(s_cap.load(std::memory_order_relaxed))
{
    s_cap.store(std::min(cap, m_previous), std::memory_order_relaxed);
}

QelIsaLimit::~QelIsaLimit()
{
    s_cap.store(m_previous, std::memory_order_relaxed);
}
