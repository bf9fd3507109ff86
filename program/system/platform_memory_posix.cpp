#include "program/system/platform.h"

#include "program/system/job_limits.h"

#include <algorithm>
#include <fstream>
#include <initializer_list>
#include <iterator>
#include <limits>
#include <sstream>

#include <sys/resource.h>
#include <unistd.h>

namespace Tavrin::SplatProgram {
namespace {

constexpr std::uint64_t unlimited = std::numeric_limits<std::uint64_t>::max();

// The number after `key` in a file of "KEY NUMBER" lines; nothing if the key is missing.
std::optional<std::uint64_t> numberAfter(const std::filesystem::path& path, std::string_view key) {
    std::ifstream file(path);
    for (std::string word; file >> word;) {
        std::uint64_t number = 0;
        if (word == key && file >> number) {
            return number;
        }
    }
    return std::nullopt;
}

std::optional<std::uint64_t> numberIn(const std::filesystem::path& path) {
    std::ifstream file(path);
    std::uint64_t number = 0;
    return file >> number ? std::optional(number) : std::nullopt;
}

// Bytes that the machine has free or can free without swapping.
std::uint64_t machineMemory() {
    if (const auto kibibytes = numberAfter("/proc/meminfo", "MemAvailable:")) {
        return *kibibytes * 1024;
    }
    const long pages = ::sysconf(_SC_AVPHYS_PAGES);
    const long pageSize = ::sysconf(_SC_PAGESIZE);
    return pages > 0 && pageSize > 0 ? std::uint64_t(pages) * std::uint64_t(pageSize) : unlimited;
}

struct ControlGroupFiles {
    const char* limit;
    const char* usage;
    const char* cacheKey; // in memory.stat: file pages that the kernel drops when the group needs memory
};

// The least free memory of the group and its ancestors. A missing file means no limit.
std::uint64_t controlGroupMemory(const std::filesystem::path& root, std::filesystem::path group,
                                 const ControlGroupFiles& files) {
    std::uint64_t available = unlimited;
    for (;;) {
        const std::filesystem::path folder = root / group.relative_path();
        const auto limit = numberIn(folder / files.limit);
        const auto usage = numberIn(folder / files.usage);
        if (limit && usage) {
            const std::uint64_t cache = numberAfter(folder / "memory.stat", files.cacheKey).value_or(0);
            const std::uint64_t used = *usage - std::min(cache, *usage);
            available = std::min(available, *limit - std::min(used, *limit));
        }
        if (!group.has_relative_path()) {
            return available;
        }
        group = group.parent_path();
    }
}

std::uint64_t processLimit() {
    std::uint64_t available = unlimited;
    for (const auto resource : {RLIMIT_AS, RLIMIT_DATA}) {
        rlimit limit = {};
        if (::getrlimit(resource, &limit) == 0 && limit.rlim_cur != RLIM_INFINITY) {
            available = std::min<std::uint64_t>(available, limit.rlim_cur);
        }
    }
    return available;
}

} // namespace

std::uint64_t groupMemory(const std::string& groups, const std::filesystem::path& root) {
    std::uint64_t available = unlimited;
    std::istringstream lines(groups);
    // Lines are "0::/path" for the unified hierarchy and "N:controllers:/path" for the older ones. A path may
    // hold colons.
    for (std::string line; std::getline(lines, line);) {
        const std::size_t controllers = line.find(':') + 1;
        const std::size_t path = line.find(':', controllers) + 1;
        const std::string group = line.substr(path);
        if (line.starts_with("0::")) {
            for (const char* const limit : {"memory.max", "memory.high"}) {
                available = std::min(
                    available, controlGroupMemory(root, group, {limit, "memory.current", "inactive_file"}));
            }
        } else if ((',' + line.substr(controllers, path - 1 - controllers) + ',').find(",memory,") !=
                   std::string::npos) {
            available =
                std::min(available, controlGroupMemory(root / "memory", group,
                                                       {"memory.limit_in_bytes", "memory.usage_in_bytes",
                                                        "total_inactive_file"}));
        }
    }
    return available;
}

// Not getrusage, whose peak includes the parent process before exec.
std::uint64_t peakMemory() {
    return numberAfter("/proc/self/status", "VmHWM:").value_or(0) * 1024;
}

std::uint64_t availableMemory() {
    std::ifstream file("/proc/self/cgroup");
    const std::string groups((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    return std::min({machineMemory(), groupMemory(groups, "/sys/fs/cgroup"), processLimit(),
                     jobLimits().memory.value_or(unlimited)});
}

} // namespace Tavrin::SplatProgram
