// The number of processors that this process may use.
#pragma once

#include <filesystem>
#include <optional>
#include <string>

namespace Tavrin::SplatProgram {

// The processors of the machine, limited by the process's affinity, the quota of its control group and its
// job (job_limits.h). At least 1.
unsigned usableProcessors();

// The processors by the quotas of a control group and its ancestors, rounded up; nothing without a quota.
// `groups` has the lines of /proc/self/cgroup; `root` is /sys/fs/cgroup, or a copy of it in tests.
std::optional<unsigned> quotaProcessors(const std::string& groups, const std::filesystem::path& root);

} // namespace Tavrin::SplatProgram
