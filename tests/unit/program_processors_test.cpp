// The number of processors that a control group allows the program.
#include "program/system/processors.h"
#include "tests/unit/control_groups.h"

#include <gtest/gtest.h>

#include <string>

namespace Tavrin::SplatProgram {
namespace {

#ifndef _WIN32 // control groups are Linux's

class ControlGroups : public ControlGroupTest {
protected:
    std::optional<unsigned> quota(const std::string& groups) const {
        return quotaProcessors(groups, scratch.folder());
    }
};

TEST_F(ControlGroups, WithoutAQuotaLimitNothing) {
    EXPECT_EQ(quota(""), std::nullopt);
    EXPECT_EQ(quota("0::/job\n"), std::nullopt);
    write("job/cpu.max", "max 100000\n");
    write("cpu/old/cpu.cfs_quota_us", "-1\n");
    write("cpu/old/cpu.cfs_period_us", "100000\n");
    EXPECT_EQ(quota("4:cpu,cpuacct:/old\n0::/job\n"), std::nullopt);
}

TEST_F(ControlGroups, LimitByTheirQuotaRoundedUp) {
    write("job/cpu.max", "150000 100000\n");
    EXPECT_EQ(quota("0::/job\n"), 2u);
    write("job/cpu.max", "200000 100000\n");
    EXPECT_EQ(quota("0::/job\n"), 2u);
    write("job/cpu.max", "1000 100000\n");
    EXPECT_EQ(quota("0::/job\n"), 1u);
}

TEST_F(ControlGroups, LimitThoseBelowThem) {
    write("cpu.max", "300000 100000\n");
    write("job/cpu.max", "800000 100000\n");
    write("job/step/cpu.max", "max 100000\n");
    EXPECT_EQ(quota("0::/job/step\n"), 3u);
}

TEST_F(ControlGroups, OfTheOlderKindLimitToo) {
    write("cpu/job/cpu.cfs_quota_us", "400000\n");
    write("cpu/job/cpu.cfs_period_us", "100000\n");
    EXPECT_EQ(quota("9:cpuset:/\n3:cpu,cpuacct:/job\n2:cpuacct:/job\n"), 4u);
    EXPECT_EQ(quota("3:cpuset:/job\n"), std::nullopt);
}

#endif

TEST(Processors, AreAtLeastOne) {
    EXPECT_GE(usableProcessors(), 1u);
}

} // namespace
} // namespace Tavrin::SplatProgram
