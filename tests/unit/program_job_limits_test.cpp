// The limits that a scheduler sets for a job.
#include "program/system/job_limits.h"
#include "program/system/processors.h"
#include "tests/unit/control_groups.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <map>
#include <string>

namespace Tavrin::SplatProgram {
namespace {

constexpr std::uint64_t mebibyte = 1 << 20;

JobLimits limitsOf(const std::map<std::string, std::string>& variables) {
    return jobLimits([&](const char* name) {
        const auto found = variables.find(name);
        return found == variables.end() ? nullptr : found->second.c_str();
    });
}

TEST(JobLimits, WithoutASchedulerThereAreNone) {
    EXPECT_EQ(limitsOf({}).processors, std::nullopt);
    EXPECT_EQ(limitsOf({}).memory, std::nullopt);
}

TEST(JobLimits, AreThoseOfTheTask) {
    const JobLimits limits = limitsOf({{"SLURM_CPUS_PER_TASK", "3"}, {"SLURM_MEM_PER_NODE", "2048"}});
    EXPECT_EQ(limits.processors, 3u);
    EXPECT_EQ(limits.memory, 2048 * mebibyte);
}

TEST(JobLimits, MemoryOfAProcessorCountsForThoseOfTheTaskOrTheNode) {
    EXPECT_EQ(limitsOf({{"SLURM_CPUS_PER_TASK", "3"}, {"SLURM_MEM_PER_CPU", "100"}}).memory, 300 * mebibyte);
    EXPECT_EQ(limitsOf({{"SLURM_CPUS_ON_NODE", "8"}, {"SLURM_MEM_PER_CPU", "100"}}).memory, 800 * mebibyte);
    EXPECT_EQ(limitsOf({{"SLURM_MEM_PER_CPU", "100"}}).memory, 100 * mebibyte);
}

TEST(JobLimits, WhatIsNoNumberLimitsNothing) {
    for (const char* const word : {"", "0", "-1", "many", "4 GB", "99999999999999999999999"}) {
        const JobLimits limits = limitsOf(
            {{"SLURM_CPUS_PER_TASK", word}, {"SLURM_MEM_PER_NODE", word}, {"SLURM_MEM_PER_CPU", word}});
        EXPECT_EQ(limits.processors, std::nullopt) << word;
        EXPECT_EQ(limits.memory, std::nullopt) << word;
    }
    EXPECT_EQ(limitsOf({{"SLURM_MEM_PER_NODE", "18446744073709551615"}}).memory, UINT64_MAX);
}

#ifndef _WIN32 // control groups are Linux's

class GroupMemory : public ControlGroupTest {
protected:
    std::uint64_t memory(const std::string& groups) const { return groupMemory(groups, scratch.folder()); }
};

TEST_F(GroupMemory, WithoutALimitIsAllOfIt) {
    write("job/memory.max", "max\n");
    write("job/memory.current", "1000\n");
    EXPECT_EQ(memory("0::/job\n"), UINT64_MAX);
    EXPECT_EQ(memory(""), UINT64_MAX);
}

TEST_F(GroupMemory, IsTheLeastThatAnyGroupOnThePathLeaves) {
    write("job/memory.max", "5000\n");
    write("job/memory.current", "2000\n");
    write("job/memory.stat", "anon 1500\ninactive_file 500\n");
    write("job/step/memory.max", "9000\n");
    write("job/step/memory.current", "100\n");
    EXPECT_EQ(memory("0::/job/step\n"), 3500u);
    write("job/step/memory.high", "600\n");
    EXPECT_EQ(memory("0::/job/step\n"), 500u);
}

TEST_F(GroupMemory, OfTheOlderKindLimitsToo) {
    write("memory/job/memory.limit_in_bytes", "7000\n");
    write("memory/job/memory.usage_in_bytes", "3000\n");
    write("memory/job/memory.stat", "total_inactive_file 1000\n");
    EXPECT_EQ(memory("5:cpuset:/\n4:memory:/job\n"), 5000u);
    EXPECT_EQ(memory("5:cpuset:/job\n"), UINT64_MAX);
}

// A group that is not visible in a container is the one mounted as the root.
TEST_F(GroupMemory, OfAPathThatIsNotShownIsThatOfTheRoot) {
    write("memory.max", "4000\n");
    write("memory.current", "0\n");
    EXPECT_EQ(memory("0::/pods.slice:cri:4711\n"), 4000u);
    write("pods.slice:cri:4711/memory.max", "1000\n");
    write("pods.slice:cri:4711/memory.current", "0\n");
    EXPECT_EQ(memory("0::/pods.slice:cri:4711\n"), 1000u);
}

#endif

} // namespace
} // namespace Tavrin::SplatProgram
