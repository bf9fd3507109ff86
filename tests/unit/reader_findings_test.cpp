// Merged findings of several checks are the same as those of one check.
#include "reader/findings.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using namespace Tavrin::SplatReader;

// The offsets, which identify the findings.
std::vector<std::uint64_t> offsets(const std::vector<Finding>& list) {
    std::vector<std::uint64_t> found;
    for (const Finding& finding : list) {
        found.push_back(finding.offset);
    }
    return found;
}

void note(Findings& findings, const std::string& kind, std::uint64_t offset) {
    findings.error(kind, "data.bin", offset, "this", "that");
}

TEST(Findings, AppendKeepsTheFirstOfEachKindAndCountsTheRest) {
    Findings first(2);
    note(first, "one", 1);
    Findings second(2);
    for (const std::uint64_t offset : {2u, 3u, 4u}) {
        note(second, "one", offset);
        note(second, "other", 10 + offset);
    }
    second.warning("one", "data.bin", 20, "this", "that");
    first.append(second);
    EXPECT_EQ(offsets(first.errors()), (std::vector<std::uint64_t>{1, 2, 12, 13}));
    EXPECT_EQ(offsets(first.warnings()), (std::vector<std::uint64_t>{20}));
    EXPECT_EQ(first.errorCount(), 7u);
    EXPECT_EQ(first.warningCount(), 1u);
    EXPECT_EQ(first.errorKinds(), (std::map<std::string, std::uint64_t>{{"one", 4}, {"other", 3}}));
    note(first, "one", 30); // the kind is full
    EXPECT_EQ(first.errors().size(), 4u);
    EXPECT_EQ(first.errorCount(), 8u);
}

TEST(Findings, AppendingNothingChangesNothing) {
    Findings findings;
    note(findings, "one", 1);
    findings.append(Findings());
    EXPECT_EQ(findings.errorCount(), 1u);
    EXPECT_EQ(offsets(findings.errors()), (std::vector<std::uint64_t>{1}));
}

} // namespace
