#include "threaded/imp/QelCpuTopology.h"

#include <cerrno>
#include <fstream>
#include <memory>
#include <sched.h>
#include <set>
#include <unistd.h>
#include <utility>

namespace {

// The first word of a small kernel file, or empty when it can't be read.
std::string ReadWord(const std::string& path)
{
    std::ifstream file(path);
    std::string word;
    file >> word;
    return word;
}

bool ReadInt(const std::string& path, long long& value)
{
    const std::string word = ReadWord(path);
    if (word.empty())
        return false;
    try {
        std::size_t used = 0;
        value = std::stoll(word, &used);
        return used == word.size();
    } catch (const std::exception&) {
        return false;
    }
}

// Cache sizes read "48K", "2048K", or on some kernels "8M"; a bare number is bytes.
long long ParseKB(const std::string& text)
{
    try {
        std::size_t used = 0;
        const long long number = std::stoll(text, &used);
        const std::string unit = text.substr(used);
        if (unit == "K")
            return number;
        if (unit == "M")
            return number * 1024;
        if (unit == "G")
            return number * 1024 * 1024;
        if (unit.empty())
            return number / 1024;
    } catch (const std::exception&) {
    }
    return 0;
}

struct CpuSetDeleter {
    void operator()(cpu_set_t* set) const noexcept { CPU_FREE(set); }
};

}  // namespace

std::vector<int> QelAffinityProcessors()
{
    // The mask must be at least as wide as the kernel's; we don't know its width,
    // so widen until the kernel stops refusing.
    for (int width = 1024; width <= (1 << 20); width *= 2) {
        std::unique_ptr<cpu_set_t, CpuSetDeleter> set(CPU_ALLOC(width));
        if (!set)
            return {};
        const std::size_t bytes = CPU_ALLOC_SIZE(width);
        CPU_ZERO_S(bytes, set.get());
        if (sched_getaffinity(0, bytes, set.get()) != 0) {
            if (errno == EINVAL)
                continue;
            return {};
        }
        std::vector<int> processors;
        for (int cpu = 0; cpu < width; ++cpu) {
            if (CPU_ISSET_S(cpu, bytes, set.get()))
                processors.push_back(cpu);
        }
        return processors;
    }
    return {};
}

QelProcessorCounts QelCountProcessors(const std::string& cpuRoot, const std::vector<int>& processors)
{
    constexpr long long kUnknownPackage = -1;
    std::set<std::pair<long long, long long>> cores;
    std::set<long long> packages;
    for (const int cpu : processors) {
        const std::string topology = cpuRoot + "/cpu" + std::to_string(cpu) + "/topology/";
        long long package = kUnknownPackage;
        long long core = 0;
        if (!ReadInt(topology + "physical_package_id", package))
            package = kUnknownPackage;
        // Core numbers are only unique within a package; a processor we know
        // nothing of gets a core number that no real core has.
        if (!ReadInt(topology + "core_id", core))
            core = -1 - static_cast<long long>(cpu);
        cores.emplace(package, core);
        packages.insert(package);
    }
    return {static_cast<std::uint32_t>(processors.size()), static_cast<std::uint32_t>(cores.size()),
            static_cast<std::uint32_t>(packages.size())};
}

std::int32_t QelLastLevelCacheKB(const std::string& cpuRoot)
{
    long long bestLevel = 0;
    long long bestKB = 0;
    for (int index = 0;; ++index) {
        const std::string cache = cpuRoot + "/cpu0/cache/index" + std::to_string(index) + "/";
        long long level = 0;
        if (!ReadInt(cache + "level", level))
            break;
        if (ReadWord(cache + "type") == "Instruction")
            continue;
        const long long kb = ParseKB(ReadWord(cache + "size"));
        if (kb > 0 && level >= bestLevel) {
            bestLevel = level;
            bestKB = kb;
        }
    }
    if (bestKB == 0 && cpuRoot == kQelCpuSysRoot) {
        // Kernels without cache files may still answer through the C library.
        for (const int name : {_SC_LEVEL3_CACHE_SIZE, _SC_LEVEL2_CACHE_SIZE}) {
            const long bytes = sysconf(name);
            if (bytes > 0) {
                bestKB = bytes / 1024;
                break;
            }
        }
    }
    return static_cast<std::int32_t>(std::min<long long>(bestKB, 0x7FFFFFFF));
}
