#include "src/runlog.h"

#include "tests/support/deathtest.h"
#include "tests/support/files.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <iostream>
#include <limits>
#include <locale>
#include <map>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace Tavrin::GaussionSplat {

namespace {

using Lines = std::vector<std::string>;

struct RunLogTest : testing::Test {
    support::Scratch scratch;
    std::string path = (scratch / "log.txt").string();

    ~RunLogTest() override { closeRunLog(); }

    Lines lines() const { return linesOf(path); }

    static Lines linesOf(const std::string& file) {
        std::istringstream text(support::withPlainLineEnds(support::readFile(file)));
        Lines lines;
        for (std::string line; std::getline(text, line);) {
            lines.push_back(line);
        }
        return lines;
    }
};

TEST_F(RunLogTest, LinesNameTheirKindComponentAndNumber) {
    openRunLog(path);
    logInfo("input data file:D:/scans/a.ply", "convert", 74);
    support::standardOutputOf([] { logError("cannot GET lod0 data", "src/indexer", 548); });
    EXPECT_EQ(lines(), (Lines{"INFO(convert:74): input data file:D:/scans/a.ply",
                              "ERROR(indexer:548): cannot GET lod0 data"}));
}

TEST_F(RunLogTest, OnlyTheLastComponentOfTheSourcePathIsPrinted) {
    openRunLog(path);
    const char* const paths[] = {"convert",           "src/convert",          "src\\convert",
                                 "C:\\work\\convert", "C:/work/convert",      "C:convert",
                                 "/abs/convert",      "\\\\host\\s\\convert", "//host/share/convert"};
    for (const char* const source : paths) {
        logInfo("x", source, 1);
    }
    EXPECT_EQ(lines(), Lines(std::size(paths), "INFO(convert:1): x"));
}

TEST_F(RunLogTest, AnyLineNumberIsPrintedInDecimal) {
    openRunLog(path);
    for (const std::int32_t line : {0, 7, 1234567, -1, std::numeric_limits<std::int32_t>::max(),
                                    std::numeric_limits<std::int32_t>::min()}) {
        logInfo("m", "src/indexer", line);
    }
    EXPECT_EQ(lines(),
              (Lines{"INFO(indexer:0): m", "INFO(indexer:7): m", "INFO(indexer:1234567): m",
                     "INFO(indexer:-1): m", "INFO(indexer:2147483647): m", "INFO(indexer:-2147483648): m"}));
}

TEST_F(RunLogTest, MessagesStandAsTheyAre) {
    openRunLog(path);
    for (const char* const message : {"", " ", "ends with blanks  ", "100 %s %n \\n", "\xC3\xBC", "\ttab"}) {
        logInfo(message, "convert", 1);
    }
    EXPECT_EQ(lines(), (Lines{"INFO(convert:1): ", "INFO(convert:1):  ",
                              "INFO(convert:1): ends with blanks  ", "INFO(convert:1): 100 %s %n \\n",
                              "INFO(convert:1): \xC3\xBC", "INFO(convert:1): \ttab"}));
}

TEST_F(RunLogTest, InfoStaysOffStandardOutputAndErrorIsEchoedThere) {
    openRunLog(path);
    EXPECT_EQ(support::standardOutputOf([] { logInfo("quiet", "convert", 1); }), "");
    EXPECT_EQ(
        support::withPlainLineEnds(support::standardOutputOf([] { logError("loud", "src/chunker", 61); })),
        "ERROR(chunker:61): loud\n");
}

TEST_F(RunLogTest, EveryLineIsFlushed) {
    openRunLog(path);
    for (std::size_t count = 1; count <= 3; ++count) {
        logInfo("line", "convert", 1);
        EXPECT_EQ(lines().size(), count); // read while the log is open
    }
}

TEST_F(RunLogTest, OpeningTruncatesWhatStoodThere) {
    support::writeFile(path, "an old log\nof two lines\n");
    openRunLog(path);
    EXPECT_EQ(lines(), Lines());
    logInfo("first run", "convert", 1);
    openRunLog(path);
    logInfo("second run", "convert", 1);
    EXPECT_EQ(lines(), Lines{"INFO(convert:1): second run"});
}

TEST_F(RunLogTest, OpeningReplacesTheLogBefore) {
    const std::string second = (scratch / "second.txt").string();
    openRunLog(path);
    logInfo("one", "convert", 1);
    openRunLog(second);
    logInfo("two", "convert", 1);
    EXPECT_EQ(lines(), Lines{"INFO(convert:1): one"});
    EXPECT_EQ(linesOf(second), Lines{"INFO(convert:1): two"});
}

TEST_F(RunLogTest, AfterClosingLinesAreLostAndErrorsStillEchoed) {
    openRunLog(path);
    logInfo("kept", "convert", 1);
    closeRunLog();
    logInfo("lost", "convert", 2);
    EXPECT_NE(support::standardOutputOf([] { logError("late", "convert", 3); }), "");
    EXPECT_EQ(lines(), Lines{"INFO(convert:1): kept"});
    closeRunLog(); // closing what is closed does nothing
    openRunLog(path);
    logInfo("again", "convert", 4);
    EXPECT_EQ(lines(), Lines{"INFO(convert:4): again"});
}

TEST_F(RunLogTest, AFailedOpenIsSilentAndLosesTheLines) {
    const std::string missing = (scratch / "no such folder" / "log.txt").string();
    EXPECT_EQ(support::standardOutputOf([&] {
                  openRunLog(missing);
                  logInfo("lost", "convert", 1);
              }),
              "");
    EXPECT_EQ(support::withPlainLineEnds(support::standardOutputOf([] { logError("heard", "convert", 2); })),
              "ERROR(convert:2): heard\n");
    EXPECT_FALSE(std::filesystem::exists(missing));
    openRunLog(path);
    logInfo("back", "convert", 3);
    EXPECT_EQ(lines(), Lines{"INFO(convert:3): back"});
}

#if defined(__linux__)
TEST_F(RunLogTest, FailingWritesAreSilent) {
    openRunLog("/dev/full");
    EXPECT_EQ(support::standardOutputOf([] {
                  logInfo("no room", "convert", 1);
                  logInfo("no room", "convert", 2);
                  closeRunLog();
              }),
              "");
}
#endif

TEST(RunLogDeathTest, BeforeTheFirstOpenOnlyErrorsAreSeen) {
    EXPECT_PROCESS_EXIT(
        {
            closeRunLog();
            logInfo("dropped", "convert", 1);
            logError("seen", "src/indexer", 0);
            std::exit(7);
        },
        7, "^ERROR\\(indexer:0\\): seen\n$");
}

// Groups digits by three, as a host's locale may.
struct GroupingDigits : std::numpunct<char> {
    char do_thousands_sep() const override { return '\''; }
    std::string do_grouping() const override { return "\3"; }
};

TEST_F(RunLogTest, TheLocaleOfTheHostChangesNothing) {
    const std::locale grouping(std::locale::classic(), new GroupingDigits);
    const std::locale before = std::locale::global(grouping);
    const std::locale outputBefore = std::cout.imbue(grouping);
    openRunLog(path);
    const std::string echoed = support::standardOutputOf([] { logError("m", "convert", 1234567); });
    logInfo("m", "convert", 1234567);
    std::locale::global(before);
    std::cout.imbue(outputBefore);
    EXPECT_EQ(support::withPlainLineEnds(echoed), "ERROR(convert:1234567): m\n");
    EXPECT_EQ(lines(), (Lines{"ERROR(convert:1234567): m", "INFO(convert:1234567): m"}));
}

using LogOperation = void (*)(std::string message, std::string sourcePath, std::int32_t line);

constexpr int writerCount = 8;
constexpr int linesOfAWriter = 250;

// The message of a writer. No other has its letter or its length.
std::string messageOf(char letter) {
    return std::string(200 + 50 * static_cast<std::size_t>(letter - 'a'), letter);
}

// Writers on threads of their own log at the same time.
void logFromManyThreads(LogOperation write) {
    std::vector<std::thread> threads;
    for (int i = 0; i < writerCount; ++i) {
        threads.emplace_back([write, message = messageOf(static_cast<char>('a' + i))] {
            for (int line = 0; line < linesOfAWriter; ++line) {
                write(message, "src/chunker", line);
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
}

// Expects the lines of every writer, complete and in order, mixed with those of others.
void expectLinesOfAllWriters(const Lines& lines, const std::string& kind) {
    std::map<char, int> next;
    for (const std::string& line : lines) {
        ASSERT_FALSE(line.empty());
        const char letter = line.back();
        ASSERT_TRUE(letter >= 'a' && letter < 'a' + writerCount) << line;
        ASSERT_EQ(line, kind + "(chunker:" + std::to_string(next[letter]++) + "): " + messageOf(letter));
    }
    ASSERT_EQ(next.size(), writerCount);
    for (const auto& [letter, count] : next) {
        EXPECT_EQ(count, linesOfAWriter) << letter;
    }
}

TEST_F(RunLogTest, LinesOfManyThreadsStayWhole) {
    openRunLog(path);
    logFromManyThreads(logInfo);
    expectLinesOfAllWriters(lines(), "INFO");
}

TEST_F(RunLogTest, ErrorsOfManyThreadsStayWholeOnStandardOutputToo) {
    openRunLog(path);
    const std::filesystem::path echo = scratch / "echo.txt";
    support::writeFile(echo, support::standardOutputOf([] { logFromManyThreads(logError); }));
    expectLinesOfAllWriters(linesOf(echo.string()), "ERROR");
    expectLinesOfAllWriters(lines(), "ERROR");
}

// std::cout then has a buffer of its own, which no lock of the C library protects.
TEST_F(RunLogTest, ErrorsStayWholeWhereTheHostHasUntiedStandardOutput) {
    std::ios::sync_with_stdio(false);
    openRunLog(path);
    const std::filesystem::path echo = scratch / "echo.txt";
    support::writeFile(echo, support::standardOutputOf([] {
                           for (int round = 0; round < 3; ++round) {
                               logFromManyThreads(logError);
                           }
                       }));
    EXPECT_EQ(linesOf(echo.string()).size(), 6000u);
    Lines fromLog = lines();
    Lines echoed = linesOf(echo.string());
    std::sort(fromLog.begin(), fromLog.end());
    std::sort(echoed.begin(), echoed.end());
    EXPECT_TRUE(echoed == fromLog);
}

} // namespace

} // namespace Tavrin::GaussionSplat
