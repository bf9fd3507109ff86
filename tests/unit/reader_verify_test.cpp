// verifyDataset on sound datasets, single faults and malicious sizes.
#include "reader/verify.h"
#include "tests/support/dataset_writer.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <random>
#include <thread>

namespace {

using namespace Tavrin::SplatReader;
using DatasetWriter::Files;
using DatasetWriter::setWord;
using DatasetWriter::TemporaryFolder;
using testing::HasSubstr;

std::string allFindings(const VerifyReport& report) {
    std::string text;
    for (const Finding& finding : report.findings.errors()) {
        text += "error: " + finding.text() + "\n";
    }
    for (const Finding& finding : report.findings.warnings()) {
        text += "warning: " + finding.text() + "\n";
    }
    return text;
}

VerifyReport verify(const Files& files, VerifyLevel level = VerifyLevel::full) {
    const TemporaryFolder folder;
    writeFiles(folder.path(), files);
    VerifyOptions options;
    options.level = level;
    return verifyDataset(folder.path(), options);
}

Files soundFiles() {
    return DatasetWriter::oneCellFiles(DatasetWriter::smallScene());
}

TEST(ReaderVerify, ASoundSceneHasNoFindings) {
    for (const VerifyLevel level : {VerifyLevel::quick, VerifyLevel::full}) {
        const VerifyReport report = verify(soundFiles(), level);
        EXPECT_EQ(allFindings(report), "");
        EXPECT_TRUE(report.sound());
        EXPECT_EQ(report.cells, 1u);
        EXPECT_EQ(report.splatsHeld, 5u);
        EXPECT_EQ(report.splatsLeftOut, 0u);
        EXPECT_EQ(report.dataBytes, 160u);
        EXPECT_EQ(report.coefficientBytes, 320u);
        EXPECT_EQ(report.indexBytes, 20u);
        EXPECT_EQ(report.use.has_value(), level == VerifyLevel::full);
    }
}

TEST(ReaderVerify, ASoundGridHasNoFindingsAndSaysWhatIsLeftOut) {
    const VerifyReport report = verify(DatasetWriter::gridScene());
    EXPECT_EQ(report.findings.errorCount(), 0u) << allFindings(report);
    EXPECT_EQ(report.cells, 4u);
    EXPECT_EQ(report.splatsHeld, 7u);
    EXPECT_EQ(report.splatsLeftOut, 999'994u);
    ASSERT_TRUE(report.use);
    EXPECT_EQ(report.use->records, 7u);
}

TEST(ReaderVerify, AGridWithoutAnySplatIsSound) {
    const VerifyReport report = verify(DatasetWriter::gridFiles({}));
    EXPECT_EQ(allFindings(report), "");
    EXPECT_EQ(report.splatsLeftOut, 1'000'001u);
}

TEST(ReaderVerify, OtherFormsAreSound) {
    DatasetWriter::MetaFields fields;
    fields.fileType = "Portable";
    EXPECT_EQ(allFindings(verify(DatasetWriter::oneCellFiles(DatasetWriter::smallScene(), fields))), "");

    fields.fileType = "Quality";
    fields.encoding = "DEFAULT";
    fields.totalLevel = 2;
    Files raw = DatasetWriter::oneCellFiles(DatasetWriter::smallScene(), fields);
    raw.index = DatasetWriter::indexEntry(0, {{4, 0}, {1, 128}});
    raw.coefficients = std::string(5 * 192, '\0');
    EXPECT_EQ(allFindings(verify(raw)), "");
    raw.index = DatasetWriter::indexEntry(0, {{5, 0}, {0, 0}});
    EXPECT_EQ(allFindings(verify(raw)), "");
}

TEST(ReaderVerify, ReportsHowTheStepsAreUsed) {
    const VerifyReport report = verify(soundFiles());
    ASSERT_TRUE(report.use);
    EXPECT_EQ(report.use->scale[0].lowest, 0u);
    EXPECT_EQ(report.use->scale[0].highest, 65535u);
    EXPECT_EQ(report.use->scale[0].atZero, 1u);
    EXPECT_EQ(report.use->opacity.atMaximum, 1u);
    const std::array<std::uint32_t, 3> maxima = {2047u, 1023u, 2047u};
    for (std::size_t channel = 0; channel < 3; ++channel) {
        EXPECT_EQ(report.use->coefficient[channel].lowest, 0u);
        EXPECT_EQ(report.use->coefficient[channel].highest, maxima[channel]);
    }
}

struct Fault {
    std::string name;
    std::function<void(Files&)> apply;
    std::string kind;
    VerifyLevel level = VerifyLevel::quick;
    bool grid = false;
};

std::ostream& operator<<(std::ostream& out, const Fault& fault) {
    return out << fault.name;
}

void inMeta(Files& files, const std::string& from, const std::string& to) {
    const std::size_t at = files.meta.find(from);
    ASSERT_NE(at, std::string::npos) << from;
    files.meta.replace(at, from.size(), to);
}

void inRecord(Files& files, std::size_t record, std::size_t offset, std::uint64_t value, int width) {
    setWord(files.data, 32 * record + offset, value, width);
}

constexpr VerifyLevel full = VerifyLevel::full;

const std::vector<Fault>& faults() {
    static const std::vector<Fault> list = {
        // sizes
        {"data one byte short", [](Files& f) { f.data.pop_back(); }, "data-size"},
        {"data one byte long", [](Files& f) { f.data += '\0'; }, "data-size"},
        {"data one record short", [](Files& f) { f.data.resize(f.data.size() - 32); }, "data-size"},
        {"data one record long", [](Files& f) { f.data += f.data.substr(0, 32); }, "data-size"},
        {"data empty", [](Files& f) { f.data.clear(); }, "data-size"},
        {"coefficients one byte short", [](Files& f) { f.coefficients.pop_back(); }, "coefficient-size"},
        {"coefficients one byte long", [](Files& f) { f.coefficients += 'x'; }, "coefficient-size"},
        {"coefficients one record short", [](Files& f) { f.coefficients.resize(256); }, "coefficient-size"},
        {"coefficients one record long", [](Files& f) { f.coefficients.resize(384); }, "coefficient-size"},
        {"coefficients empty", [](Files& f) { f.coefficients.clear(); }, "coefficient-size"},
        {"coefficients missing", [](Files& f) { f.hasCoefficients = false; }, "file-missing"},
        {"coefficients unasked", [](Files& f) { inMeta(f, "Quality", "Portable"); }, "coefficient-file"},
        {"coefficients in the other form", [](Files& f) { inMeta(f, "COMPRESS", "DEFAULT"); },
         "coefficient-size"},
        {"index one byte short", [](Files& f) { f.index.pop_back(); }, "index-size"},
        {"index one byte long", [](Files& f) { f.index += '\0'; }, "index-size"},
        {"index empty", [](Files& f) { f.index.clear(); }, "index-size"},
        {"index doubled", [](Files& f) { f.index += f.index; }, "index-size"},
        {"meta empty", [](Files& f) { f.meta.clear(); }, "meta-syntax"},
        {"meta without a comma", [](Files& f) { inMeta(f, "0,", "0"); }, "meta-syntax"},
        // the one cell
        {"key of the one cell", [](Files& f) { setWord(f.index, 0, 1, 4); }, "index-key"},
        {"count one less", [](Files& f) { setWord(f.index, 4, 4, 4); }, "index-bytes"},
        {"count one more", [](Files& f) { setWord(f.index, 4, 6, 4); }, "index-range"},
        {"count zero", [](Files& f) { setWord(f.index, 4, 0, 4); }, "index-sum"},
        {"count lies", [](Files& f) { setWord(f.index, 4, 0xFFFFFFFF, 4); }, "index-sum"},
        {"count and size one less", [](Files& f) { setWord(f.index, 4, 4, 4), setWord(f.index, 16, 128, 4); },
         "data-size"},
        {"offset", [](Files& f) { setWord(f.index, 8, 32, 8); }, "index-offset"},
        {"offset far outside", [](Files& f) { setWord(f.index, 8, UINT64_MAX, 8); }, "index-range"},
        {"size", [](Files& f) { setWord(f.index, 16, 161, 4); }, "index-bytes"},
        {"splat count above the index", [](Files& f) { inMeta(f, ": 5,", ": 6,"), inMeta(f, "[5]", "[6]"); },
         "index-sum"},
        {"splat count below the index", [](Files& f) { inMeta(f, ": 5,", ": 4,"), inMeta(f, "[5]", "[4]"); },
         "index-sum"},
        {"levels",
         [](Files& f) { inMeta(f, "Level\": 1", "Level\": 2"), inMeta(f, "Size\": 20", "Size\": 36"); },
         "index-size"},
        {"levels lie", [](Files& f) { inMeta(f, "Level\": 1", "Level\": 2147483647"); }, "index-size"},
        // the grid
        {"keys out of order",
         [](Files& f) { std::swap_ranges(f.index.begin(), f.index.begin() + 4, f.index.begin() + 20); },
         "index-order", VerifyLevel::quick, true},
        {"key twice", [](Files& f) { setWord(f.index, 20, 0, 4); }, "index-order", VerifyLevel::quick, true},
        {"key outside in X", [](Files& f) { setWord(f.index, 60, 4 | (1u << 16), 4); }, "index-key",
         VerifyLevel::quick, true},
        {"key outside in Y", [](Files& f) { setWord(f.index, 60, 3 | (3u << 16), 4); }, "index-key",
         VerifyLevel::quick, true},
        {"key far outside", [](Files& f) { setWord(f.index, 60, 0xFFFFFFFF, 4); }, "index-key",
         VerifyLevel::quick, true},
        {"gap", [](Files& f) { setWord(f.index, 28, 96, 8); }, "index-offset", VerifyLevel::quick, true},
        {"overlap", [](Files& f) { setWord(f.index, 28, 32, 8); }, "index-offset", VerifyLevel::quick, true},
        {"empty entry",
         [](Files& f) {
             f.index += DatasetWriter::indexEntry(3 | (2u << 16), {{0, 0}});
         },
         "index-count", VerifyLevel::quick, true},
        {"sum off", [](Files& f) { setWord(f.index, 64, 2, 4), setWord(f.index, 76, 64, 4); }, "data-size",
         VerifyLevel::quick, true},
        {"entries swapped",
         [](Files& f) { f.index = f.index.substr(20, 20) + f.index.substr(0, 20) + f.index.substr(40); },
         "index-offset", VerifyLevel::quick, true},
        {"entry missing", [](Files& f) { f.index.erase(20, 20); }, "index-offset", VerifyLevel::quick, true},
        {"more entries than records", [](Files& f) { f.index.resize(20 * 12); }, "index-size",
         VerifyLevel::quick, true},
        {"splat in the wrong cell",
         [](Files& f) { inRecord(f, 0, 0, std::bit_cast<std::uint32_t>(25.0f), 4); }, "record-cell", full,
         true},
        {"splat outside the grid",
         [](Files& f) { inRecord(f, 6, 4, std::bit_cast<std::uint32_t>(-21.0f), 4); }, "record-cell", full,
         true},
        {"key moved", [](Files& f) { setWord(f.index, 60, 3 | (2u << 16), 4); }, "record-cell", full, true},
        {"cell length", [](Files& f) { inMeta(f, "\"cellLengthX\": 30", "\"cellLengthX\": 15"); },
         "meta-cell-length", VerifyLevel::quick, true},
        // records
        {"x not a number", [](Files& f) { inRecord(f, 1, 0, 0x7FC00000, 4); }, "record-position", full},
        {"y infinite", [](Files& f) { inRecord(f, 1, 4, 0x7F800000, 4); }, "record-position", full},
        {"z infinite", [](Files& f) { inRecord(f, 4, 8, 0xFF800000, 4); }, "record-position", full},
        {"impossible rotation", [](Files& f) { inRecord(f, 2, 22, 0xFFFFFFFF, 4); }, "record-rotation", full},
        {"lowest scale gone", [](Files& f) { inRecord(f, 0, 16, 1, 2); }, "record-range", full},
        {"highest scale gone", [](Files& f) { inRecord(f, 4, 18, 65534, 2); }, "record-range", full},
        {"highest normal gone", [](Files& f) { inRecord(f, 4, 30, 0, 2); }, "record-range", full},
        {"highest red gone", [](Files& f) { inRecord(f, 4, 12, 254, 1); }, "record-range", full},
        {"lowest blue gone",
         [](Files& f) {
             inMeta(f, "\"color\",\n\t\t\t\"min\": [0, 0, 0]", "\"color\",\n\t\t\t\"min\": [0, 0, 0.5]");
             inRecord(f, 0, 14, 200, 1);
         },
         "record-range", full},
        {"colour range far turned round",
         [](Files& f) {
             inMeta(f, "\"color\",\n\t\t\t\"min\": [0, 0, 0]", "\"color\",\n\t\t\t\"min\": [0, 0, 1e13]");
         },
         "meta-range", full},
        {"highest opacity gone", [](Files& f) { inRecord(f, 4, 15, 7, 1); }, "record-range", full},
        {"highest coefficients gone",
         [](Files& f) { f.coefficients.replace(256, 60, std::string(60, '\1')); }, "record-range", full},
        {"padding", [](Files& f) { f.coefficients[64 + 63] = '\1'; }, "record-padding", full},
        {"padding of the last", [](Files& f) { f.coefficients[4 * 64 + 60] = '\x80'; }, "record-padding",
         full},
    };
    return list;
}

class ReaderVerifyFault : public testing::TestWithParam<Fault> {};

TEST_P(ReaderVerifyFault, IsFound) {
    const Fault& fault = GetParam();
    Files files = fault.grid ? DatasetWriter::gridScene() : soundFiles();
    fault.apply(files);
    const VerifyReport report = verify(files, fault.level);
    EXPECT_FALSE(report.sound());
    EXPECT_EQ(report.findings.errorKinds().count(fault.kind), 1u) << allFindings(report);
    for (const Finding& finding : report.findings.errors()) {
        EXPECT_EQ(finding.text().find('\n'), std::string::npos);
        EXPECT_THAT(finding.text(), HasSubstr(", byte "));
    }
}

INSTANTIATE_TEST_SUITE_P(Single, ReaderVerifyFault, testing::ValuesIn(faults()), [](const auto& instance) {
    std::string name;
    for (const char c : instance.param.name) {
        name += c == ' ' ? '_' : c;
    }
    return name;
});

TEST(ReaderVerify, WarningsAreNoErrors) {
    Files files = soundFiles();
    inRecord(files, 2, 0, std::bit_cast<std::uint32_t>(100.0f),
             4);                  // outside the box: bounds may be stated wrongly
    inRecord(files, 3, 22, 0, 4); // a source rotation of zeros
    const VerifyReport report = verify(files);
    EXPECT_EQ(report.findings.errorCount(), 0u) << allFindings(report);
    EXPECT_EQ(report.findings.warningKinds().count("record-box"), 1u);
    EXPECT_EQ(report.findings.warningKinds().count("record-rotation"), 1u);
    EXPECT_EQ(report.use->undefinedRotations, 1u);
}

TEST(ReaderVerify, CrowdedStepsAreAWarning) {
    std::vector<DatasetWriter::StoredSplat> scene = DatasetWriter::smallScene();
    for (std::size_t i = 1; i < 4; ++i) {
        scene[i].scale[1] = 0;
    }
    const VerifyReport report = verify(DatasetWriter::oneCellFiles(scene));
    ASSERT_EQ(report.findings.warningCount(), 1u) << allFindings(report);
    EXPECT_THAT(report.findings.warnings()[0].text(), HasSubstr("\"scale\" on axis y"));
    EXPECT_THAT(report.findings.warnings()[0].text(), HasSubstr("4 of 5 records at step 0"));
}

TEST(ReaderVerify, FindingsOfOneKindAreCountedPastTheirLimit) {
    Files files = soundFiles();
    for (std::size_t i = 0; i < 5; ++i) {
        inRecord(files, i, 0, 0x7FC00000, 4);
    }
    const TemporaryFolder folder;
    writeFiles(folder.path(), files);
    VerifyOptions options;
    options.level = full;
    options.findingsPerKind = 2;
    const VerifyReport report = verifyDataset(folder.path(), options);
    EXPECT_EQ(report.findings.errorKinds().at("record-position"), 5u);
    EXPECT_EQ(report.findings.errors().size(), 2u);
}

// More records than one thread reads. The threads' findings must be in the order of the file.
TEST(ReaderVerify, ManyRecordsAreCheckedInTheirOrder) {
    constexpr std::size_t count = 200'000;
    std::vector<DatasetWriter::StoredSplat> splats = DatasetWriter::smallScene();
    splats.resize(count, splats[1]);
    Files files = DatasetWriter::oneCellFiles(splats);
    constexpr std::size_t coefficientSize = 64;
    for (const std::size_t broken : {count - 1, std::size_t{150'000}, std::size_t{3}}) {
        files.coefficients[broken * coefficientSize + 60] = '\1';
    }
    const TemporaryFolder folder;
    writeFiles(folder.path(), files);
    VerifyOptions options;
    options.level = VerifyLevel::full;
    options.findingsPerKind = 2;
    std::uint64_t told = 0;
    options.progress = [&](std::uint64_t done, std::uint64_t all) {
        EXPECT_EQ(all, count);
        EXPECT_LE(told, done);
        EXPECT_LE(done, all);
        told = done;
    };
    const VerifyReport report = verifyDataset(folder.path(), options);
    EXPECT_GT(told, 0u);
    EXPECT_EQ(report.findings.errorKinds().at("record-padding"), 3u) << allFindings(report);
    ASSERT_EQ(report.findings.errors().size(), 2u);
    EXPECT_EQ(report.findings.errors()[0].offset, 3u * coefficientSize + 60);
    EXPECT_EQ(report.findings.errors()[1].offset, 150'000u * coefficientSize + 60);
    ASSERT_TRUE(report.use);
    EXPECT_EQ(report.use->records, count);
    EXPECT_EQ(report.use->opacity.atMaximum, 1u);
    EXPECT_EQ(report.use->scale[2].lowest, 0u);
    EXPECT_EQ(report.use->scale[2].highest, 65535u);
}

// Verifies 400,000 records, some of them broken, with different numbers of threads.
struct ReaderVerifyThreads : testing::Test {
    static constexpr std::size_t count = 400'000;
    const TemporaryFolder folder;
    VerifyOptions options;

    ReaderVerifyThreads() {
        options.level = VerifyLevel::full;
        std::vector<DatasetWriter::StoredSplat> splats = DatasetWriter::smallScene();
        splats.resize(count, splats[1]);
        Files files = DatasetWriter::oneCellFiles(splats);
        for (std::size_t broken = 1000; broken < count; broken += 60'000) {
            files.coefficients[broken * 64 + 60] = '\1';
        }
        writeFiles(folder.path(), files);
    }
};

TEST_F(ReaderVerifyThreads, TheReportIsTheSameForEveryNumber) {
    options.threads = 1;
    const VerifyReport one = verifyDataset(folder.path(), options);
    EXPECT_EQ(one.findings.errorKinds().at("record-padding"), 7u);
    for (const unsigned threads : {2u, 3u, 16u, 100u}) {
        SCOPED_TRACE(threads);
        options.threads = threads;
        const VerifyReport many = verifyDataset(folder.path(), options);
        EXPECT_EQ(allFindings(many), allFindings(one));
        ASSERT_TRUE(many.use);
        EXPECT_EQ(many.use->records, count);
        EXPECT_EQ(many.use->scale[2].highest, one.use->scale[2].highest);
        EXPECT_EQ(many.use->opacity.atMaximum, one.use->opacity.atMaximum);
    }
}

TEST_F(ReaderVerifyThreads, ProgressIsToldByTheCallerAloneAndMayEndIt) {
    struct Ended {};
    for (const unsigned threads : {1u, 2u, 16u}) {
        SCOPED_TRACE(threads);
        options.threads = threads;
        options.progress = [caller = std::this_thread::get_id()](std::uint64_t, std::uint64_t) {
            EXPECT_EQ(std::this_thread::get_id(), caller);
            throw Ended();
        };
        EXPECT_THROW(verifyDataset(folder.path(), options), Ended);
    }
}

TEST_F(ReaderVerifyThreads, AFileThatEndsEarlyIsFoundByEveryNumber) {
    std::filesystem::resize_file(folder.path() / "shcoef.bin", count * 64 - 1);
    options.threads = 1;
    const std::string expected = allFindings(verifyDataset(folder.path(), options));
    EXPECT_THAT(expected, HasSubstr("shcoef.bin"));
    for (const unsigned threads : {2u, 16u}) {
        options.threads = threads;
        EXPECT_EQ(allFindings(verifyDataset(folder.path(), options)), expected) << threads;
    }
}

TEST(ReaderVerify, EveryOneOfManyRecordsIsLookedForInItsOwnCell) {
    constexpr std::size_t each = 70'000;
    std::vector<DatasetWriter::StoredSplat> first(each, DatasetWriter::smallScene()[1]);
    std::vector<DatasetWriter::StoredSplat> second = first;
    for (std::size_t i = 0; i < each; ++i) {
        first[i].position = {-5.0f, -15.0f, 0.0f};
        second[i].position = {25.0f, -15.0f, 0.0f};
    }
    second[each - 2].position = first[0].position;
    const VerifyReport report = verify(DatasetWriter::gridFiles({{0, first}, {1, second}}));
    EXPECT_EQ(report.findings.errorKinds().at("record-cell"), 1u) << allFindings(report);
    EXPECT_THAT(allFindings(report), HasSubstr("byte " + std::to_string((2 * each - 2) * 32) +
                                               ": expected a position in cell (1, 0), found (-5, -15, 0), "
                                               "which lies in cell (0, 0)"));
}

TEST(ReaderVerify, AFolderThatIsNoneIsAFinding) {
    const TemporaryFolder folder;
    EXPECT_THAT(allFindings(verifyDataset(folder.path() / "none")),
                HasSubstr("expected a dataset folder, found none"));
    const VerifyReport empty = verifyDataset(folder.path());
    EXPECT_EQ(empty.findings.errorKinds().at("file-missing"), 3u) << allFindings(empty);
}

TEST(ReaderVerify, SparseGiantsEndQuickly) {
#if defined(_WIN32)
    GTEST_SKIP() << "resize_file gives a file no more than the free room of the disk here";
#endif
    const TemporaryFolder folder;
    Files files = DatasetWriter::gridScene();
    writeFiles(folder.path(), files);
    std::filesystem::resize_file(folder.path() / "index.bin", 1ull << 42);
    EXPECT_FALSE(verifyDataset(folder.path()).sound());
}

TEST(ReaderVerify, KeysThatRunTogetherAreNotChecked) {
    DatasetWriter::MetaFields fields;
    Files files = DatasetWriter::gridFiles({{5u, {DatasetWriter::splatAt(160, 0)}}}, fields);
    // A box of 100,000 cells along X; a key may come twice, the second time without splats.
    files.index += DatasetWriter::indexEntry(5u, {{0, 32}});
    fields.totalSplats = 1'000'001;
    fields.box = {{0, 0, 0}, {3'000'000, 50, 5}};
    fields.cellLengthX = fields.cellLengthY = 30;
    files.meta = DatasetWriter::metaText(fields);
    const VerifyReport report = verify(files);
    EXPECT_EQ(report.findings.errorCount(), 0u) << allFindings(report);
    EXPECT_EQ(report.findings.warningKinds().count("index-grid"), 1u);
}

// Random bytes in every file must give a report and no crash.
TEST(ReaderVerify, RandomDamageNeverCrashes) {
    std::mt19937 engine(3);
    const TemporaryFolder folder;
    std::size_t sound = 0;
    for (int round = 0; round < 500; ++round) {
        Files files = round % 2 == 0 ? soundFiles() : DatasetWriter::gridScene();
        std::string* const targets[] = {&files.meta, &files.data, &files.index, &files.coefficients};
        for (std::string* target : targets) {
            if (engine() % 2 == 0) {
                continue;
            }
            const unsigned changes = 1 + engine() % 4;
            for (unsigned i = 0; i < changes && !target->empty(); ++i) {
                (*target)[engine() % target->size()] = static_cast<char>(engine());
            }
            if (engine() % 8 == 0) {
                target->resize(engine() % (2 * target->size() + 1));
            }
        }
        writeFiles(folder.path(), files);
        VerifyOptions options;
        options.level = full;
        sound += verifyDataset(folder.path(), options).sound() ? 1u : 0u;
    }
    EXPECT_LT(sound, 250u);
}

} // namespace
