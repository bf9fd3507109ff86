#include "program/system/processors.h"

#include "program/system/job_limits.h"

#include <algorithm>
#include <bit>
#include <cstdint>

#include <windows.h>

namespace Tavrin::SplatProgram {

// Windows has no control groups.
std::optional<unsigned> quotaProcessors(const std::string&, const std::filesystem::path&) {
    return std::nullopt;
}

namespace {

unsigned ownProcessors() {
    DWORD_PTR own = 0;
    DWORD_PTR machine = 0;
    // Both are 0 for a process in several processor groups.
    if (!GetProcessAffinityMask(GetCurrentProcess(), &own, &machine) || own == 0) {
        return std::max<unsigned>(GetActiveProcessorCount(ALL_PROCESSOR_GROUPS), 1);
    }
    return static_cast<unsigned>(std::popcount(std::uint64_t{own}));
}

} // namespace

unsigned usableProcessors() {
    const unsigned own = ownProcessors();
    return std::min(own, jobLimits().processors.value_or(own));
}

} // namespace Tavrin::SplatProgram
