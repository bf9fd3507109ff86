#include "program/system/processors.h"

#include "program/system/job_limits.h"

#include <algorithm>
#include <fstream>
#include <iterator>
#include <sstream>
#include <thread>

#include <sched.h>

namespace Tavrin::SplatProgram {
namespace {

namespace fs = std::filesystem;

std::optional<unsigned> processorsOf(double quota, double period) {
    if (!(quota > 0.0) || !(period > 0.0)) {
        return std::nullopt;
    }
    return static_cast<unsigned>(std::clamp((quota + period - 1.0) / period, 1.0, 1e6));
}

// Reads "QUOTA PERIOD" in microseconds; "max" and -1 mean no quota.
std::optional<unsigned> unifiedQuota(const fs::path& group) {
    std::ifstream file(group / "cpu.max");
    double quota = 0.0;
    double period = 0.0;
    return file >> quota >> period ? processorsOf(quota, period) : std::nullopt;
}

std::optional<unsigned> olderQuota(const fs::path& group) {
    std::ifstream quotaFile(group / "cpu.cfs_quota_us");
    std::ifstream periodFile(group / "cpu.cfs_period_us");
    double quota = 0.0;
    double period = 0.0;
    return quotaFile >> quota && periodFile >> period ? processorsOf(quota, period) : std::nullopt;
}

// The smallest quota of the group and its ancestors.
std::optional<unsigned> leastQuota(const fs::path& root, fs::path group,
                                   std::optional<unsigned> (*quotaOf)(const fs::path&)) {
    std::optional<unsigned> least;
    for (;; group = group.parent_path()) {
        const auto own = quotaOf(root / group.relative_path());
        least = own && least ? std::min(*own, *least) : own ? own : least;
        if (!group.has_relative_path()) {
            return least;
        }
    }
}

unsigned affinityProcessors() {
    cpu_set_t processors;
    CPU_ZERO(&processors);
    // Fails on machines with more processors than cpu_set_t has bits.
    if (::sched_getaffinity(0, sizeof processors, &processors) == 0) {
        return static_cast<unsigned>(std::max(CPU_COUNT(&processors), 1));
    }
    return std::max(std::thread::hardware_concurrency(), 1u);
}

} // namespace

std::optional<unsigned> quotaProcessors(const std::string& groups, const fs::path& root) {
    std::optional<unsigned> least;
    std::istringstream lines(groups);
    // Lines are "0::/path" for the unified hierarchy and "N:controllers:/path" for the older ones.
    for (std::string line; std::getline(lines, line);) {
        const std::size_t controllers = line.find(':') + 1;
        const std::size_t path = line.find(':', controllers) + 1;
        std::optional<unsigned> own;
        if (line.starts_with("0::")) {
            own = leastQuota(root, line.substr(path), unifiedQuota);
        } else if ((',' + line.substr(controllers, path - 1 - controllers) + ',').find(",cpu,") !=
                   std::string::npos) {
            own = leastQuota(root / "cpu", line.substr(path), olderQuota);
        }
        least = own && least ? std::min(*own, *least) : own ? own : least;
    }
    return least;
}

unsigned usableProcessors() {
    std::ifstream file("/proc/self/cgroup");
    const std::string groups((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    const unsigned affinity = affinityProcessors();
    return std::min({quotaProcessors(groups, "/sys/fs/cgroup").value_or(affinity), affinity,
                     jobLimits().processors.value_or(affinity)});
}

} // namespace Tavrin::SplatProgram
