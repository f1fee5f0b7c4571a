#pragma once

#include <cstdint>
#include <string>
#include <vector>

/// Where the kernel describes the processors: cpuN/topology and cpuN/cache.
inline constexpr const char* kQelCpuSysRoot = "/sys/devices/system/cpu";

/// The processors the calling thread may run on, by number, ascending; empty when
/// the kernel won't say. Linux has no process-wide mask: a thread's mask is the one
/// it inherited, which for the threads of a host is the process's own.
[[nodiscard]] std::vector<int> QelAffinityProcessors();

struct QelProcessorCounts {
    std::uint32_t Logical = 0;
    std::uint32_t Cores = 0;     // different (package, core) pairs
    std::uint32_t Packages = 0;  // different packages
};

/// Counts `processors` by the kernel's topology files under `cpuRoot`. A processor
/// whose files can't be read counts as a core of its own in one unknown package,
/// which errs towards more threads rather than fewer.
[[nodiscard]] QelProcessorCounts QelCountProcessors(const std::string& cpuRoot, const std::vector<int>& processors);

/// The size in KB of the highest-level data or unified cache of processor 0 under
/// `cpuRoot`; 0 when there is none to read.
[[nodiscard]] std::int32_t QelLastLevelCacheKB(const std::string& cpuRoot);
