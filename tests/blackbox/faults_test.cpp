// Faults of the system: what the library prints, returns and leaves behind.

#include "tests/blackbox/blackbox.h"
#include "tests/support/properties.h"

#if defined(__linux__)

#include <csignal>
#include <fstream>
#include <system_error>

#include <sys/mount.h>
#include <unistd.h>

namespace blackbox {
namespace {

using support::CallReport;
using support::DatasetFiles;
using support::Host;
using support::HostReport;
using support::PlyFile;

// A file system mounted at a folder; the destructor unmounts it. Mounting needs root.
class Mount {
public:
    explicit Mount(fs::path place) : place_(std::move(place)) { fs::create_directories(place_); }
    ~Mount() {
        if (isMounted_) {
            umount(place_.c_str());
        }
    }
    Mount(const Mount&) = delete;
    Mount& operator=(const Mount&) = delete;

    // In memory, of a size like "1m".
    bool small(const std::string& size) {
        isMounted_ = mount("blackbox", place_.c_str(), "tmpfs", 0, ("size=" + size).c_str()) == 0;
        return isMounted_;
    }
    // The folder itself, read only.
    bool readOnly() {
        isMounted_ = mount(place_.c_str(), place_.c_str(), "", MS_BIND, nullptr) == 0;
        return isMounted_ && mount("", place_.c_str(), "", MS_BIND | MS_REMOUNT | MS_RDONLY, nullptr) == 0;
    }

private:
    fs::path place_;
    bool isMounted_ = false;
};

constexpr const char* needsRoot = "mounting a file system needs root";

class Faults : public BlackBox {
protected:
    static constexpr std::size_t splats = 20'000; // 640,000 bytes of data.bin and twice that of coefficients

    PlyFile scene = support::randomFile(5, splats, true);

    static const CallReport& onlyCall(const HostReport& report) {
        EXPECT_EQ(report.childFailure, "");
        EXPECT_EQ(report.calls.size(), 1u);
        return report.calls.at(0);
    }

    static void expectFileSystemError(const HostReport& report, const std::string& operation,
                                      const fs::path& path, std::errc code) {
        const CallReport& call = onlyCall(report);
        EXPECT_FALSE(call.result.has_value());
        EXPECT_EQ(call.exception, "filesystem_error");
        EXPECT_THAT(call.what, testing::HasSubstr(operation));
        EXPECT_EQ(call.path1, support::pathBytes(path));
        EXPECT_EQ(call.code, static_cast<int>(code)) << call.what;
        EXPECT_TRUE(call.floatModeKept);
        EXPECT_TRUE(report.endReached);
    }

    // A conversion with a fault of the input at some moment.
    HostReport convertWith(const std::string& fault, const std::string& value) {
        return Host(scratch.folder())
            .step("input", support::pathBytes(input))
            .step(fault, value)
            .convert(input, output)
            .run();
    }

    // The dataset of a file with only the first `length` bytes of the scene.
    DatasetFiles datasetOfCutFile(std::size_t length) {
        const fs::path cut = scratch / "cut.ply";
        support::writeFile(cut, scene.bytes().substr(0, length));
        expectDone(Host(scratch.folder()).convert(cut, scratch / "of-cut").run());
        return support::readDataset(scratch / "of-cut");
    }
};

// Failed writes are not reported. The files have what fitted, and the call returns 0.
TEST_F(Faults, AFullDiskIsNotReported) {
    scene.write(input);
    Mount disk(scratch / "disk");
    if (!disk.small("1m")) {
        GTEST_SKIP() << needsRoot;
    }
    output = scratch / "disk" / "out";
    const HostReport report = convertToTheEnd();
    EXPECT_EQ(report.process.output, emptyLines(2));
    EXPECT_LE(fs::file_size(output / "data.bin") + fs::file_size(output / "shcoef.bin"), 1u << 20);
    EXPECT_LT(fs::file_size(output / "shcoef.bin"), splats * 64);
    EXPECT_EQ(fs::file_size(output / "converted_from_ply.ytr"), 0u);
}

// The same with a limit on the file size. The bytes that were written are correct.
TEST_F(Faults, AFileSizeLimitIsNotReportedWhenItsSignalIsIgnored) {
    scene.write(input);
    const DatasetFiles whole = datasetOfCutFile(scene.bytes().size());
    const HostReport report = Host(scratch.folder())
                                  .step("ignore-signal", std::to_string(SIGXFSZ))
                                  .step("file-size", "100000")
                                  .convert(input, output)
                                  .run();
    EXPECT_EQ(onlyCall(report).result, 0);
    const DatasetFiles found = support::readDataset(output);
    EXPECT_EQ(found.data.size(), 100'000u);
    EXPECT_TRUE(found.data == whole.data.substr(0, 100'000));
    EXPECT_EQ(found.index, whole.index);
    EXPECT_EQ(support::withoutGuid(found.meta), support::withoutGuid(whole.meta));
}

TEST_F(Faults, AFileSizeLimitEndsTheProcessByItsSignal) {
    scene.write(input);
    const HostReport report = Host(scratch.folder()).step("file-size", "100000").convert(input, output).run();
    EXPECT_FALSE(onlyCall(report).result.has_value());
    EXPECT_FALSE(report.process.exited);
    EXPECT_EQ(report.process.status, SIGXFSZ);
}

struct Refused {
    const char* name;
    const char* file;
    const char* line; // on standard output and in the log
    std::set<std::string> left;
};

void PrintTo(const Refused& refused, std::ostream* stream) {
    *stream << refused.file;
}

class RefusedFile : public Faults, public testing::WithParamInterface<Refused> {};

TEST_P(RefusedFile, EndsTheProcessAndWhatIsWrittenStays) {
    oneSplat(true).write(input);
    const HostReport report = convertWith("refuse-file", GetParam().file);
    expectProcessEnd(report, exitMinusOne);
    EXPECT_THAT(report.process.output, testing::EndsWith(std::string(GetParam().line) + '\n'));
    EXPECT_THAT(log(), testing::EndsWith(std::string(GetParam().line) + '\n'));
    EXPECT_EQ(support::filesUnder(output), GetParam().left);
}

constexpr const char* data533 = "ERROR(indexer:533): cannot open data bin file,write file fail";
constexpr const char* data541 = "ERROR(indexer:541): cannot open data bin file,write file fail";
constexpr const char* index850 = "ERROR(indexer:850): cannot open data bin file,write file fail";
constexpr const char* meta519 = "ERROR(indexer:519): cannot open meta file,write file fail";

INSTANTIATE_TEST_SUITE_P(
    All, RefusedFile,
    testing::Values(Refused{"data", "data.bin", data533, {"log.txt"}},
                    Refused{"shcoef", "shcoef.bin", data541, {"data.bin", "log.txt"}},
                    Refused{"index", "index.bin", index850, {"data.bin", "log.txt", "shcoef.bin"}},
                    Refused{"meta",
                            "converted_from_ply.ytr",
                            meta519,
                            {"data.bin", "index.bin", "log.txt", "shcoef.bin"}}),
    [](const testing::TestParamInfo<Refused>& refused) { return std::string(refused.param.name); });

TEST_F(Faults, WithoutALogTheConversionGoesOn) {
    oneSplat().write(input);
    const HostReport report = convertWith("refuse-file", "log.txt");
    expectDone(report);
    EXPECT_EQ(report.process.output, emptyLines(2));
    EXPECT_EQ(support::filesUnder(output),
              (std::set<std::string>{"converted_from_ply.ytr", "data.bin", "index.bin"}));
}

// Without a log an ERROR line goes only to standard output.
TEST_F(Faults, WithoutALogAnErrorIsStillPrinted) {
    PlyFile().write(input);
    const HostReport report = convertWith("refuse-file", "log.txt");
    expectProcessEnd(report, exitMinusOne);
    EXPECT_EQ(report.process.output, "ERROR(indexer:708): cannot GET lod0 data\n");
}

// The input is removed before the check opens it.
TEST_F(Faults, AnInputThatVanishesBeforeTheCheckGivesMinusOne) {
    scene.write(input);
    makeOldOutput();
    const HostReport report = convertWith("vanish", "opening");
    EXPECT_EQ(onlyCall(report).result, -1);
    EXPECT_EQ(report.process.output, "cannot open file\n");
    expectOldOutputUntouched();
}

TEST_F(Faults, AnInputThatVanishesDuringTheCheckHasNoSize) {
    scene.write(input);
    makeOldOutput();
    expectFileSystemError(convertWith("vanish", "opened"), "file_size", input,
                          std::errc::no_such_file_or_directory);
    expectOldOutputUntouched();
}

TEST_F(Faults, AnInputThatVanishesBeforeTheHeaderEndsTheProcess) {
    scene.write(input);
    makeOldOutput();
    const HostReport report = convertWith("vanish", "header");
    expectProcessEnd(report, exitMinusOne);
    EXPECT_EQ(report.process.output, "cannot open file\n");
    expectOldOutputUntouched();
}

// A scan without a file prints nothing. The chunker then loses its block, and no splats are left.
TEST_F(Faults, AnInputThatVanishesBeforeTheScanIsMissedByTheChunker) {
    for (const char* moment : {"scan", "chunking"}) {
        scene.write(input);
        const HostReport report = convertWith("vanish", moment);
        expectProcessEnd(report, exitMinusOne);
        EXPECT_EQ(report.process.output,
                  "ERROR(chunker:61): file cannot open \nERROR(indexer:548): cannot GET lod0 data\n")
            << moment;
        EXPECT_EQ(support::filesUnder(output), (std::set<std::string>{"data.bin", "log.txt", "shcoef.bin"}));
    }
}

// The input is cut before its header is read, so it declares nothing.
TEST_F(Faults, AnInputThatLosesItsHeaderHasNoSplats) {
    scene.write(input);
    const HostReport report = convertWith("cut-header", "0");
    expectProcessEnd(report, exitMinusOne);
    EXPECT_EQ(report.process.output, "ERROR(indexer:708): cannot GET lod0 data\n");
}

// Cut later, it is like a file that was cut from the start: the missing records are read as zeros.
TEST_F(Faults, AnInputThatShrinksBeforeTheScanIsACutFile) {
    scene.write(input);
    const std::size_t half = scene.header().size() + support::floatsWith * sizeof(float) * splats / 2 + 100;
    expectDone(convertWith("cut-scan", std::to_string(half)));
    const DatasetFiles expected = datasetOfCutFile(half);
    const DatasetFiles found = support::readDataset(output);
    EXPECT_TRUE(found.data == expected.data);
    EXPECT_TRUE(found.coefficients == expected.coefficients);
    EXPECT_EQ(found.index, expected.index);
    EXPECT_EQ(support::withoutGuid(found.meta), support::withoutGuid(expected.meta));
}

// Cut between scan and chunking, the box is that of the whole file, the records are those of the cut file.
TEST_F(Faults, AnInputThatShrinksBeforeTheChunkerKeepsItsBox) {
    scene.write(input);
    const std::size_t half = scene.header().size() + support::floatsWith * sizeof(float) * splats / 2 + 100;
    const DatasetFiles whole = datasetOfCutFile(scene.bytes().size());
    expectDone(convertWith("cut-chunking", std::to_string(half)));
    const DatasetFiles expected = datasetOfCutFile(half);
    const DatasetFiles found = support::readDataset(output);
    EXPECT_TRUE(found.data == expected.data);
    EXPECT_TRUE(found.coefficients == expected.coefficients);
    EXPECT_EQ(support::metaValue(found.meta, "cellLengthX"), support::metaValue(whole.meta, "cellLengthX"));
}

// /proc/self/mem can be opened but not read at its start.
TEST_F(Faults, AnInputThatCannotBeReadGivesMinusOne) {
    makeOldOutput();
    input = "/proc/self/mem";
    const HostReport report = convert();
    EXPECT_EQ(onlyCall(report).result, -1);
    EXPECT_EQ(report.process.output, "");
    expectOldOutputUntouched();
}

TEST_F(Faults, AnEmptyDeviceAsInputGivesMinusOne) {
    input = "/dev/null";
    EXPECT_EQ(onlyCall(convert()).result, -1);
    EXPECT_FALSE(fs::exists(output));
}

// Header lines that do not fit into memory. Nothing may be deleted before that is known.
class LongLines : public Faults {
protected:
    // Writes a header with a line of `zeros` zero bytes, which take no space on the disk.
    void writeWithLongLine(const std::string& start, std::uintmax_t zeros, const std::string& rest) {
        support::writeFile(input, start);
        fs::resize_file(input, start.size() + zeros);
        std::ofstream(input, std::ios::binary | std::ios::app) << rest;
    }

    void expectOutOfMemoryBelow(const char* addressSpace, const fs::path& file) {
#if defined(PLYCONVERT_ADDRESS_SPACE_IN_USE)
        GTEST_SKIP() << "the sanitizer's runtime leaves no address space to limit";
#endif
        makeOldOutput();
        const HostReport report =
            Host(scratch.folder()).step("address-space", addressSpace).convert(file, output).run();
        const CallReport& call = onlyCall(report);
        EXPECT_FALSE(call.result.has_value());
        EXPECT_EQ(call.exception, "bad_alloc");
        EXPECT_TRUE(report.endReached);
        EXPECT_EQ(report.process.output, "");
        expectOldOutputUntouched();
    }

    std::string header = scene.header();
};

TEST_F(LongLines, ACommentThatDoesNotFitIntoMemoryIsAnAllocationError) {
    const std::size_t first = header.find('\n') + 1;
    writeWithLongLine(header.substr(0, first) + "comment ", 700'000'000, '\n' + header.substr(first));
    expectOutOfMemoryBelow("600000000", input);
}

// "end_header" with a carriage return does not end the header, so the body is read as header lines.
TEST_F(LongLines, ABodyThatIsReadAsHeaderAndDoesNotFitIsAnAllocationError) {
    std::string text;
    for (const char c : header) {
        text += c == '\n' ? std::string("\r\n") : std::string(1, c);
    }
    writeWithLongLine(text, 900'000'000, "");
    expectOutOfMemoryBelow("300000000", input);
}

// An endless device is one endless line.
TEST_F(LongLines, AnEndlessDeviceIsAnAllocationError) {
    expectOutOfMemoryBelow("200000000", "/dev/zero");
}

// Permissions only apply without root's rights. The host keeps its report file open, so it can still write
// it.
class Permissions : public Faults {
protected:
    fs::path locked = scratch / "locked";

    void SetUp() override {
        fs::create_directories(locked);
        for (fs::path folder = scratch.folder(); folder.has_relative_path(); folder = folder.parent_path()) {
            if ((fs::status(folder).permissions() & fs::perms::others_exec) == fs::perms::none) {
                GTEST_SKIP() << folder << " is closed to others";
            }
        }
    }
    void TearDown() override { fs::permissions(locked, fs::perms::owner_all); }

    HostReport convertWithoutRights() {
        return Host(scratch.folder()).step("without-rights").convert(input, output).run();
    }
    void lock(const fs::path& path, fs::perms permissions) { fs::permissions(path, permissions); }
};

constexpr fs::perms readOnly =
    fs::perms::owner_read | fs::perms::owner_exec | fs::perms::others_read | fs::perms::others_exec;

TEST_F(Permissions, AnInputThatMayNotBeReadGivesMinusOne) {
    oneSplat().write(input);
    makeOldOutput();
    lock(input, fs::perms::none);
    const HostReport report = convertWithoutRights();
    EXPECT_EQ(onlyCall(report).result, -1);
    EXPECT_EQ(report.process.output, "cannot open file\n");
    expectOldOutputUntouched();
}

TEST_F(Permissions, AnInputInAClosedFolderThrowsExists) {
    input = locked / "scene.ply";
    oneSplat().write(input);
    lock(locked, fs::perms::none);
    expectFileSystemError(convertWithoutRights(), "exists", input, std::errc::permission_denied);
}

TEST_F(Permissions, AnOutputInALockedFolderThrowsCreateDirectories) {
    oneSplat().write(input);
    output = locked / "out";
    lock(locked, readOnly);
    expectFileSystemError(convertWithoutRights(), "create_directories", output, std::errc::permission_denied);
}

TEST_F(Permissions, AnOldOutputInALockedFolderThrowsRemoveAll) {
    oneSplat().write(input);
    output = locked / "out";
    makeOldOutput();
    lock(output, readOnly);
    lock(output / "old", readOnly);
    lock(output / "old" / "deep", readOnly);
    lock(locked, readOnly);
    const HostReport report = convertWithoutRights();
    EXPECT_EQ(onlyCall(report).exception, "filesystem_error");
    EXPECT_THAT(onlyCall(report).what, testing::HasSubstr("remove_all"));
    EXPECT_EQ(onlyCall(report).code, static_cast<int>(std::errc::permission_denied));
    lock(output, fs::perms::owner_all);
    lock(output / "old", fs::perms::owner_all);
    lock(output / "old" / "deep", fs::perms::owner_all);
    expectOldOutputUntouched();
}

TEST_F(Faults, AReadOnlyFileSystemThrowsAndKeepsWhatItHolds) {
    oneSplat().write(input);
    output = scratch / "disk" / "out";
    makeOldOutput();
    Mount disk(scratch / "disk");
    if (!disk.readOnly()) {
        GTEST_SKIP() << needsRoot;
    }
    expectFileSystemError(convert(), "remove_all", output, std::errc::read_only_file_system);
    expectOldOutputUntouched();
    output = scratch / "disk" / "new";
    expectFileSystemError(convert(), "create_directories", output, std::errc::read_only_file_system);
}

// A mount point can be emptied but not removed.
TEST_F(Faults, AMountPointAsOutputThrowsRemoveAll) {
    oneSplat().write(input);
    Mount disk(output);
    if (!disk.small("1m")) {
        GTEST_SKIP() << needsRoot;
    }
    support::writeFile(output / "file", "");
    expectFileSystemError(convert(), "remove_all", output, std::errc::device_or_resource_busy);
    EXPECT_EQ(support::filesUnder(output), std::set<std::string>());
}

} // namespace
} // namespace blackbox

#endif
