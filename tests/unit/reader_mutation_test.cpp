// Makes single faults in datasets that a conversion wrote. Each must be found, and none may crash the reader.
#include "plyconvert.h"
#include "reader/record.h"
#include "reader/verify.h"
#include "tests/support/dataset_writer.h"
#include "tests/support/files.h"
#include "tests/support/plyfile.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

namespace {

using namespace Tavrin::SplatReader;
using DatasetWriter::Bytes;
using DatasetWriter::Files;

struct Mutation {
    std::string name;
    std::function<void(Files&)> apply;
};

void replaceAt(Bytes& bytes, std::size_t at, std::size_t length, const std::string& with) {
    bytes.replace(at, length, with);
}

// Adds faults of syntax: each comma, quote, colon, brace and bracket removed; each line removed, repeated,
// and swapped with the next.
void addSyntaxFaults(const Files& files, std::vector<Mutation>& list) {
    const Bytes& meta = files.meta;
    for (std::size_t at = 0; at < meta.size(); ++at) {
        if (std::string(",\":{}[]").find(meta[at]) != std::string::npos) {
            list.push_back({"meta without byte " + std::to_string(at),
                            [at](Files& f) { replaceAt(f.meta, at, 1, ""); }});
        }
    }
    for (std::size_t at = 0; at < meta.size();) {
        const std::size_t end = meta.find('\n', at) + 1;
        const std::string line = meta.substr(at, end - at);
        list.push_back({"meta without the line at " + std::to_string(at),
                        [at, line](Files& f) { replaceAt(f.meta, at, line.size(), ""); }});
        list.push_back({"meta with the line twice at " + std::to_string(at),
                        [at, line](Files& f) { f.meta.insert(at, line); }});
        at = end;
    }
}

// Adds changes of the numbers that another part of the dataset repeats or implies, each in its first digit.
void addNumberFaults(const Files& files, std::vector<Mutation>& list) {
    const Bytes& meta = files.meta;
    for (const char* key :
         {"totalSplats", "totalLevel", "cellLengthX", "cellLengthY", "indexDataSize", "splats"}) {
        const std::size_t at = meta.find_first_of("123456789", meta.find(std::string("\"") + key + "\""));
        list.push_back(
            {std::string("another ") + key, [at](Files& f) { f.meta[at] = f.meta[at] == '9' ? '8' : '9'; }});
    }
    const std::size_t ranges = meta.find("\"boundingBox\"");
    for (std::size_t at = ranges; at < meta.size(); ++at) {
        const bool starts = meta[at] >= '1' && meta[at] <= '9' &&
                            (meta[at - 1] == '[' || meta[at - 1] == '-' || meta[at - 1] == ' ');
        if (starts) {
            list.push_back({"another number in the ranges at " + std::to_string(at),
                            [at](Files& f) { f.meta[at] = f.meta[at] == '9' ? '8' : '9'; }});
        }
    }
}

void addWordFaults(std::vector<Mutation>& list) {
    const auto word = [&list](const std::string& from, const std::string& to) {
        list.push_back({from + " as " + to,
                        [from, to](Files& f) { f.meta.replace(f.meta.find(from), from.size(), to); }});
    };
    word("\"4.0\"", "\"4.1\"");
    word("Tavrin Splats", "Other Splats");
    word("all right reserved", "all rights reserved");
    word("COMPRESS", "DEFAULT");
    word("COMPRESS", "compress");
    word("Quality", "Portable");
    word("Quality", "Other");
    word("\"position\"", "\"Position\"");
    word("\"envscale\"", "\"scale\"");
    word("\"epsg\": 0", "\"epsg\": none");
    word("\"epsg\": 0", "\"epsg\": 99999999999");
    word("\"offset\": [0, 0, 0]", "\"offset\": [0, 0]");
}

void addSizeFaults(const Files& files, std::vector<Mutation>& list) {
    const auto sizes = [&list](const char* name, Bytes Files::*member, std::vector<std::size_t> lengths) {
        for (const std::size_t length : lengths) {
            list.push_back({std::string(name) + " of " + std::to_string(length) + " bytes",
                            [member, length](Files& f) { (f.*member).resize(length); }});
        }
    };
    const std::size_t data = files.data.size();
    sizes("data", &Files::data, {0, 1, 31, 32, data - 33, data - 32, data - 1, data + 1, data + 32});
    const std::size_t sh = files.coefficients.size();
    sizes("coefficients", &Files::coefficients, {0, 1, 64, sh - 64, sh - 1, sh + 1, sh + 64, 2 * sh, 3 * sh});
    const std::size_t index = files.index.size();
    sizes("index", &Files::index, {0, 1, 4, 19, index - 1, index + 1, index + 20});
    sizes("meta", &Files::meta,
          {0, 1, 2, 100, files.meta.size() / 2, files.meta.size() - 2, files.meta.size() - 3});
}

// Adds a change of every bit of every index field.
void addIndexFaults(const Files& files, std::vector<Mutation>& list) {
    for (std::size_t at = 0; at < files.index.size(); ++at) {
        for (const int bit : {0, 3, 7}) {
            list.push_back(
                {"index byte " + std::to_string(at) + " bit " + std::to_string(bit),
                 [at, bit](Files& f) { f.index[at] = static_cast<char>(f.index[at] ^ (1 << bit)); }});
        }
    }
}

void addRecordFaults(const Files& files, std::vector<Mutation>& list) {
    const std::size_t records = files.data.size() / 32;
    const auto field = [&list](const std::string& name, std::size_t at, std::uint64_t value, int width) {
        list.push_back(
            {name, [at, value, width](Files& f) { DatasetWriter::setWord(f.data, at, value, width); }});
    };
    for (const std::size_t record : {std::size_t{0}, records / 2, records - 1}) {
        const std::string name = " of record " + std::to_string(record);
        for (std::size_t axis = 0; axis < 3; ++axis) {
            field("no number on axis " + std::to_string(axis) + name, 32 * record + 4 * axis, 0x7FC00000, 4);
            field("infinity on axis " + std::to_string(axis) + name, 32 * record + 4 * axis, 0xFF800000, 4);
            field("far away on axis " + std::to_string(axis) + name, 32 * record + 4 * axis, 0x60000000, 4);
        }
        field("no rotation" + name, 32 * record + 22, 0, 4);
        field("impossible rotation" + name, 32 * record + 22, 0x3FFFFFFF, 4);
        if (files.hasCoefficients) {
            for (const std::size_t at : {60u, 61u, 62u, 63u}) {
                list.push_back({"padding byte " + std::to_string(at) + name,
                                [record, at](Files& f) { f.coefficients[64 * record + at] = '\x10'; }});
            }
        }
    }
}

Files readFiles(const std::filesystem::path& folder) {
    Files files;
    files.meta = support::readFile(folder / "converted_from_ply.ytr");
    files.data = support::readFile(folder / "data.bin");
    files.index = support::readFile(folder / "index.bin");
    files.hasCoefficients = std::filesystem::exists(folder / "shcoef.bin");
    files.coefficients = files.hasCoefficients ? support::readFile(folder / "shcoef.bin") : Bytes();
    return files;
}

VerifyReport reportOf(const Files& files, const std::filesystem::path& folder) {
    writeFiles(folder, files);
    VerifyOptions options;
    options.level = VerifyLevel::full;
    return verifyDataset(folder, options);
}

std::uint64_t findingsOf(const VerifyReport& report) {
    return report.findings.errorCount() + report.findings.warningCount();
}

// The unchanged dataset has no errors. It may have warnings, such as of values that all have one step.
void expectEachFound(const Files& files, const std::vector<Mutation>& list) {
    const support::Scratch scratch;
    const VerifyReport sound = reportOf(files, scratch / "sound");
    ASSERT_EQ(sound.findings.errorCount(), 0u);
    for (const Mutation& mutation : list) {
        Files changed = files;
        mutation.apply(changed);
        EXPECT_GT(findingsOf(reportOf(changed, scratch / "changed")), findingsOf(sound)) << mutation.name;
    }
}

TEST(ReaderMutation, EverySingleFaultOfAOneCellSceneIsFound) {
    const support::Scratch scratch;
    support::randomFile(7, 300, true).write(scratch / "in.ply");
    ASSERT_EQ(plyConvert((scratch / "in.ply").string().c_str(), (scratch / "out").string().c_str()),
              PLYCONVERT_DONE);
    const Files files = readFiles(scratch / "out");
    std::vector<Mutation> list;
    addSyntaxFaults(files, list);
    addNumberFaults(files, list);
    addWordFaults(list);
    addSizeFaults(files, list);
    addIndexFaults(files, list);
    addRecordFaults(files, list);
    EXPECT_GE(list.size(), 400u);
    expectEachFound(files, list);
}

TEST(ReaderMutation, EverySingleFaultOfAGridIsFound) {
    const Files files = DatasetWriter::gridScene();
    std::vector<Mutation> list;
    addIndexFaults(files, list);
    // Moves a splat across each border of its cell.
    for (std::size_t record = 0; record < files.data.size() / 32; ++record) {
        for (const float shift : {-31.0f, 31.0f}) {
            for (const std::size_t axis : {0u, 1u}) {
                list.push_back(
                    {"record " + std::to_string(record) + " moved", [record, shift, axis](Files& f) {
                         const auto* at = reinterpret_cast<const std::byte*>(f.data.data());
                         const float value = loadFloat(at + 32 * record + 4 * axis) + shift;
                         DatasetWriter::setWord(f.data, 32 * record + 4 * axis,
                                                std::bit_cast<std::uint32_t>(value), 4);
                     }});
            }
        }
    }
    EXPECT_GE(list.size(), 250u);
    expectEachFound(files, list);
}

} // namespace
