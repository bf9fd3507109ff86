// Shared by the black-box tests.
#pragma once

#include "tests/support/conversion.h"
#include "tests/support/files.h"
#include "tests/support/plyfile.h"
#include "tests/support/sanitizers.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <string>

namespace blackbox {

namespace fs = std::filesystem;

// The process exit status of -1, in the 8 bits that a system keeps.
inline constexpr int exitMinusOne = 255;

// A test with a scratch folder, a place for the input and one for the output.
class BlackBox : public testing::Test {
protected:
    support::Scratch scratch;
    fs::path input = scratch / "scene.ply";
    fs::path output = scratch / "out";

    support::HostReport convert() { return support::convertOnce(scratch.folder(), input, output); }

    // Converts and expects the call to return 0.
    support::HostReport convertToTheEnd() {
        support::HostReport report = convert();
        expectDone(report);
        return report;
    }

    static void expectDone(const support::HostReport& report, std::size_t calls = 1) {
        ASSERT_EQ(report.childFailure, "");
        ASSERT_EQ(report.calls.size(), calls);
        for (const support::CallReport& call : report.calls) {
            ASSERT_EQ(call.result, 0) << call.exception << ": " << call.what;
        }
        ASSERT_TRUE(report.process.exited);
        ASSERT_EQ(report.process.status, 0) << report.process.errors;
        ASSERT_TRUE(report.endReached);
    }

    // Converts and expects the process to end inside the call with this status.
    support::HostReport convertToProcessEnd(int status) {
        support::HostReport report = convert();
        expectProcessEnd(report, status);
        return report;
    }

    static void expectProcessEnd(const support::HostReport& report, int status) {
        ASSERT_EQ(report.childFailure, "");
        ASSERT_EQ(report.calls.size(), 1u);
        EXPECT_FALSE(report.calls.front().result.has_value());
        EXPECT_EQ(report.calls.front().exception, "");
        EXPECT_TRUE(report.process.exited);
        EXPECT_EQ(report.process.status, status) << report.process.errors;
    }

    std::string metaAfterConversion() {
        convertToTheEnd();
        return support::readDataset(output).meta;
    }

    std::string log() const { return support::withPlainLineEnds(support::readFile(output / "log.txt")); }

    // Makes an earlier output folder, and checks that it is unchanged.
    void makeOldOutput() {
        fs::create_directories(output / "old" / "deep");
        support::writeFile(output / "data.bin", "old data");
        support::writeFile(output / "old" / "deep" / "file", "old file");
    }
    void expectOldOutputUntouched() const {
        EXPECT_EQ(support::filesUnder(output),
                  (std::set<std::string>{"data.bin", "old", "old/deep", "old/deep/file"}));
        EXPECT_EQ(support::readFile(output / "data.bin"), "old data");
        EXPECT_EQ(support::readFile(output / "old" / "deep" / "file"), "old file");
    }
};

// A file of one ordinary splat away from the origin.
inline support::PlyFile oneSplat(bool coefficients = false) {
    support::PlyFile ply;
    ply.coefficients = coefficients;
    ply.add({.position = {1.0f, 2.0f, 3.0f}});
    return ply;
}

// A little-endian value inside bytes.
template <typename Value>
Value valueAt(const std::string& bytes, std::size_t offset) {
    Value value{};
    std::memcpy(&value, bytes.data() + offset, sizeof value);
    return value;
}

inline std::string emptyLines(std::size_t count) {
    return std::string(count, '\n');
}

} // namespace blackbox
