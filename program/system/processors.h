// How many processors this process may use.
#pragma once

#include <filesystem>
#include <optional>
#include <string>

namespace Tavrin::SplatProgram {

// At least 1: what the machine has, less what the process's affinity, the quota of its control group and its
// job (job_limits.h) leave out.
unsigned usableProcessors();

// The processors that the quotas of a control group and of its ancestors leave, rounded up; nothing without a
// quota. `groups` has the lines of /proc/self/cgroup, `root` stands for /sys/fs/cgroup.
std::optional<unsigned> quotaProcessors(const std::string& groups, const std::filesystem::path& root);

} // namespace Tavrin::SplatProgram
