#include "program/system/job_limits.h"

#include <algorithm>
#include <charconv>
#include <cstdlib>
#include <limits>
#include <string_view>

namespace Tavrin::SplatProgram {
namespace {

// Slurm states memory in units of this.
constexpr std::uint64_t mebibyte = std::uint64_t{1} << 20;

std::optional<std::uint64_t> numberOf(const char* text) {
    const std::string_view word = text != nullptr ? text : "";
    std::uint64_t number = 0;
    const auto [stop, error] = std::from_chars(word.data(), word.data() + word.size(), number);
    const bool isNumber = error == std::errc() && stop == word.data() + word.size();
    return isNumber && number > 0 ? std::optional(number) : std::nullopt;
}

std::uint64_t product(std::uint64_t one, std::uint64_t other) {
    constexpr std::uint64_t most = std::numeric_limits<std::uint64_t>::max();
    return one > most / other ? most : one * other;
}

} // namespace

JobLimits jobLimits(const std::function<const char*(const char*)>& variable) {
    JobLimits limits;
    const auto ofTask = numberOf(variable("SLURM_CPUS_PER_TASK"));
    if (ofTask) {
        limits.processors =
            static_cast<unsigned>(std::min<std::uint64_t>(*ofTask, std::numeric_limits<unsigned>::max()));
    }
    limits.memory = numberOf(variable("SLURM_MEM_PER_NODE"));
    if (const auto ofProcessor = numberOf(variable("SLURM_MEM_PER_CPU"))) {
        const auto onNode = numberOf(variable("SLURM_CPUS_ON_NODE"));
        const std::uint64_t share = product(*ofProcessor, ofTask ? *ofTask : onNode.value_or(1));
        limits.memory = std::min(limits.memory.value_or(share), share);
    }
    if (limits.memory) {
        limits.memory = product(*limits.memory, mebibyte);
    }
    return limits;
}

JobLimits jobLimits() {
    return jobLimits([](const char* name) { return std::getenv(name); });
}

} // namespace Tavrin::SplatProgram
