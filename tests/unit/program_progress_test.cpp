// The progress line on a terminal of 80 columns.
#include "program/terminal/progress.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <functional>
#include <string>
#include <string_view>
#include <thread>

namespace Tavrin::SplatProgram {
namespace {

// The line that a terminal shows after this output. Understands text, carriage returns and the control
// sequences that Progress uses.
std::string shownAfter(std::string_view output) {
    std::string row;
    std::size_t column = 0;
    while (!output.empty()) {
        if (output.starts_with("\x1b[")) {
            const std::size_t end = output.find_first_not_of("?0123456789", 2);
            if (output.at(end) == 'J') {
                row.resize(column);
            }
            output.remove_prefix(end + 1);
            continue;
        }
        if (output.front() == '\r') {
            column = 0;
        } else {
            row.resize(std::max(row.size(), column + 1), ' ');
            row[column++] = output.front();
        }
        output.remove_prefix(1);
    }
    return row.substr(0, row.find_last_not_of(' ') + 1);
}

std::string outputOf(const std::function<void()>& action) {
    testing::internal::CaptureStderr();
    action();
    return testing::internal::GetCapturedStderr();
}

// Waits for longer than the interval between two updates.
void waitForTheNextUpdate() {
    std::this_thread::sleep_for(std::chrono::milliseconds(250));
}

TEST(Progress, WritesNothingUnlessItIsShown) {
    const std::string output = outputOf([] {
        Progress progress(false);
        progress.update("exporting", 0.5);
        progress.update(Stage::verifying, 0.5);
        progress.clear();
    });
    EXPECT_EQ(output, "");
}

TEST(Progress, TellsTaskShareAndTime) {
    Progress progress(true);
    const std::string line = shownAfter(outputOf([&] { progress.update("exporting", 0.25); }));
    EXPECT_TRUE(line.starts_with("exporting 25 %, ")) << line;
    EXPECT_TRUE(line.ends_with(" left")) << line;
    outputOf([&] { progress.clear(); });
}

TEST(Progress, EstimatesNothingBeforeAFewPercentAreDone) {
    Progress progress(true);
    const std::string line = shownAfter(outputOf([&] { progress.update("exporting", 0.001); }));
    EXPECT_TRUE(line.starts_with("exporting 0 %, ")) << line;
    EXPECT_EQ(line.find("left"), std::string::npos) << line;
    outputOf([&] { progress.clear(); });
}

TEST(Progress, KeepsSharesWithinZeroAndOneHundredPercent) {
    for (const auto& [share, text] : {std::pair{-0.5, " 0 %,"}, {1.5, " 100 %,"}}) {
        Progress progress(true);
        const std::string line =
            shownAfter(outputOf([&, value = share] { progress.update(Stage::verifying, value); }));
        EXPECT_NE(line.find(text), std::string::npos) << line;
        outputOf([&] { progress.clear(); });
    }
}

TEST(Progress, TellsTheSplatsOfAStage) {
    Progress progress(true);
    const std::string line = shownAfter(outputOf([&] { progress.update(Stage::writing, 0.5, 1'234'567); }));
    EXPECT_TRUE(line.starts_with("writing 50 %, 1,234,567 splats, ")) << line;
    outputOf([&] { progress.clear(); });
}

TEST(Progress, IsOneLineNarrowerThanTheTerminal) {
    Progress progress(true);
    const std::string output = outputOf([&] { progress.update(std::string(300, 'x'), 0.5); });
    EXPECT_EQ(output.find('\n'), std::string::npos);
    const std::string line = shownAfter(output);
    EXPECT_FALSE(line.empty());
    EXPECT_LT(line.size(), 80u);
    outputOf([&] { progress.clear(); });
}

TEST(Progress, WritesAShorterLineOverALongerOne) {
    Progress progress(true);
    std::string output = outputOf([&] { progress.update("a long name of a task", 0.5); });
    waitForTheNextUpdate();
    output += outputOf([&] { progress.update("short", 0.5); });
    const std::string line = shownAfter(output);
    EXPECT_TRUE(line.starts_with("short 50 %, ")) << line;
    EXPECT_TRUE(line.ends_with(" left")) << line;
    EXPECT_EQ(line.find("left"), line.rfind("left")) << line;
    outputOf([&] { progress.clear(); });
}

TEST(Progress, ClearsItsLineOnce) {
    Progress progress(true);
    EXPECT_EQ(outputOf([&] { progress.clear(); }), "");
    const std::string line = outputOf([&] { progress.update("exporting", 0.5); });
    EXPECT_NE(shownAfter(line), "");
    EXPECT_EQ(shownAfter(line + outputOf([&] { progress.clear(); })), "");
    EXPECT_EQ(outputOf([&] { progress.clear(); }), "");
}

TEST(Progress, ClearsItsLineWithItsEnd) {
    const std::string output = outputOf([] { Progress(true).update("exporting", 0.5); });
    EXPECT_NE(output.find("exporting"), std::string::npos);
    EXPECT_EQ(shownAfter(output), "");
}

TEST(Progress, WritesAtMostSixLinesASecond) {
    Progress progress(true);
    const std::string output = outputOf([&] {
        for (int i = 0; progress.seconds() < 0.4; ++i) {
            progress.update(i % 2 == 0 ? "even" : "odd", 0.5);
        }
    });
    const double seconds = progress.seconds();
    std::size_t lines = 0;
    for (std::size_t at = output.find('%'); at != std::string::npos; at = output.find('%', at + 1)) {
        ++lines;
    }
    EXPECT_GE(lines, 1u);
    EXPECT_LE(static_cast<double>(lines), 1.0 + 6.0 * seconds);
    outputOf([&] { progress.clear(); });
}

} // namespace
} // namespace Tavrin::SplatProgram
