// plyconvert.exe on the command line.

#include "tests/support/conversion.h"
#include "tests/support/files.h"
#include "tests/support/plyfile.h"
#include "tests/support/process.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <utility>
#include <vector>

#include <windows.h>

namespace windows_test {
namespace {

namespace fs = std::filesystem;
using testing::HasSubstr;
using testing::StartsWith;

// The exit statuses that docs/program.md lists.
constexpr int done = 0;
constexpr int usage = 1;
constexpr int inputRefused = 2;
constexpr int outputRefused = 3;
constexpr int verificationFailed = 6;
constexpr int doesNotFit = 7;
constexpr int interrupted = 130;

const std::set<std::string> datasetNames = {"converted_from_ply.ytr", "data.bin", "index.bin", "log.txt",
                                            "shcoef.bin"};

// The program, running in the background. In a process group of its own it only gets Ctrl-Break; otherwise it
// gets all events of its caller's console.
class Running {
public:
    Running(const std::vector<std::string>& words, const fs::path& errors) {
        SECURITY_ATTRIBUTES inherit = {sizeof(SECURITY_ATTRIBUTES), nullptr, TRUE};
        const HANDLE file = CreateFileW(errors.c_str(), GENERIC_WRITE, FILE_SHARE_READ, &inherit,
                                        CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
        STARTUPINFOW startup = {};
        startup.cb = sizeof startup;
        startup.dwFlags = STARTF_USESTDHANDLES;
        startup.hStdOutput = file;
        startup.hStdError = file;
        std::string line = PLYCONVERT_PROGRAM;
        for (const std::string& word : words) {
            line += " \"" + word + '"';
        }
        std::wstring wide = support::pathFromText(line).native();
        EXPECT_TRUE(CreateProcessW(nullptr, wide.data(), nullptr, nullptr, TRUE, 0, nullptr, nullptr,
                                   &startup, &process_));
        CloseHandle(file);
    }
    Running(const Running&) = delete;
    Running& operator=(const Running&) = delete;
    ~Running() {
        CloseHandle(process_.hThread);
        CloseHandle(process_.hProcess);
    }

    DWORD id() const { return process_.dwProcessId; }

    bool hasEnded() const { return WaitForSingleObject(process_.hProcess, 0) == WAIT_OBJECT_0; }

    // From outside, without a chance to clean up.
    void kill() const { TerminateProcess(process_.hProcess, 1); }

    int status() const {
        WaitForSingleObject(process_.hProcess, INFINITE);
        DWORD status = 0;
        GetExitCodeProcess(process_.hProcess, &status);
        return static_cast<int>(status);
    }

private:
    PROCESS_INFORMATION process_ = {};
};

// A link to a folder, while this object lives. Wine cannot make one, but it follows those of the host system.
class FolderLink {
public:
    FolderLink(const fs::path& target, fs::path link) : link_(std::move(link)) {
        constexpr DWORD unprivileged = 2; // SYMBOLIC_LINK_FLAG_ALLOW_UNPRIVILEGED_CREATE
        CreateSymbolicLinkW(link_.c_str(), target.c_str(), SYMBOLIC_LINK_FLAG_DIRECTORY | unprivileged);
        isBelow_ = !exists();
        if (isBelow_) {
            runBelow(L"ln", L"-s " + target.generic_wstring(), true);
        }
    }
    FolderLink(const FolderLink&) = delete;
    FolderLink& operator=(const FolderLink&) = delete;
    // Removed before its target, because wine cannot remove a dangling link.
    ~FolderLink() {
        if (isBelow_) {
            runBelow(L"rm", L"", false);
        } else {
            RemoveDirectoryW(link_.c_str());
        }
    }

    const fs::path& path() const { return link_; }

    bool exists() const {
        const DWORD attributes = GetFileAttributesW(link_.c_str());
        return attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0;
    }

private:
    // Runs a program of the host system to make or remove the link, and waits until that has happened.
    void runBelow(const std::wstring& program, const std::wstring& words, bool isThere) const {
        std::wstring line = program + L' ' + words + L' ' + link_.generic_wstring();
        STARTUPINFOW startup = {};
        startup.cb = sizeof startup;
        PROCESS_INFORMATION process = {}; // without handles, since it is not a process of wine
        const BOOL isStarted = CreateProcessW((L"Z:\\bin\\" + program).c_str(), line.data(), nullptr, nullptr,
                                              FALSE, 0, nullptr, nullptr, &startup, &process);
        EXPECT_TRUE(isStarted);
        while (isStarted && exists() != isThere) {
            Sleep(1);
        }
    }

    fs::path link_;
    bool isBelow_ = false;
};

class Program : public testing::Test {
protected:
    support::Scratch scratch;
    fs::path work = scratch / "work"; // only the program's inputs and outputs
    fs::path input = work / "scene.ply";
    fs::path output = work / "out";

    void SetUp() override { fs::create_directories(work); }

    support::ProcessResult run(std::vector<std::string> words) const {
        words.insert(words.begin(), PLYCONVERT_PROGRAM);
        return support::runProcess({std::move(words), {}, scratch.folder()});
    }

    support::ProcessResult convert(const fs::path& from, const fs::path& to) const {
        return run({support::textOf(from), support::textOf(to)});
    }

    // A run that cleans up after dead ones and then fails.
    int failForMemory() const {
        return run({"--max-memory", "1", support::textOf(input), support::textOf(output)}).status;
    }

    static void write(const fs::path& path, std::size_t splats) {
        support::randomFile(splats, splats, true).write(path);
    }

    void convertFirst(std::size_t splats) const {
        write(input, splats);
        const support::ProcessResult result = convert(input, output);
        ASSERT_EQ(result.status, done) << result.errors;
        ASSERT_EQ(support::filesUnder(output), datasetNames);
    }

    static void expectRefusal(const support::ProcessResult& result, int status, const std::string& what) {
        EXPECT_EQ(result.status, status);
        EXPECT_THAT(result.errors, StartsWith("plyconvert: error: "));
        EXPECT_THAT(result.errors, HasSubstr(what));
        EXPECT_EQ(std::count(result.errors.begin(), result.errors.end(), '\n'), 1) << result.errors;
        EXPECT_EQ(result.output, "");
    }

    std::set<std::string> names() const {
        std::set<std::string> found;
        for (const fs::directory_entry& entry : fs::directory_iterator(work)) {
            found.insert(support::textOf(entry.path().filename()));
        }
        return found;
    }
};

TEST_F(Program, GivesTheLibrarysDataset) {
    convertFirst(1000);
    const fs::path direct = scratch / "direct";
    ASSERT_EQ(support::convertOnce(scratch.folder(), input, direct).process.status, 0);
    const support::DatasetFiles program = support::readDataset(output);
    const support::DatasetFiles library = support::readDataset(direct);
    EXPECT_EQ(program.data, library.data);
    EXPECT_EQ(program.coefficients, library.coefficients);
    EXPECT_EQ(program.index, library.index);
    EXPECT_EQ(support::withoutGuid(program.meta), support::withoutGuid(library.meta));
    EXPECT_EQ(names(), (std::set<std::string>{"out", "scene.ply"}));
}

TEST_F(Program, SaysWhatADatasetHolds) {
    convertFirst(1000);
    const support::ProcessResult result = run({"info", "--json", support::textOf(output)});
    EXPECT_EQ(result.status, done) << result.errors;
    EXPECT_THAT(result.output, HasSubstr("\"totalSplats\":1000,\"splatsHeld\":1000,\"splatsLeftOut\":0,"));
}

TEST_F(Program, VerifiesEveryRecordAgainstTheScene) {
    convertFirst(1000);
    const std::vector<std::string> words = {"verify", support::textOf(output), "--against",
                                            support::textOf(input)};
    const support::ProcessResult sound = run(words);
    EXPECT_EQ(sound.status, done) << sound.errors;
    EXPECT_THAT(sound.output, HasSubstr("1,000 splats in 1 cell: no errors"));

    std::string data = support::readFile(output / "data.bin");
    data[0] ^= 0x40; // of the first splat's x
    support::writeFile(output / "data.bin", data);
    EXPECT_EQ(run(words).status, verificationFailed);
}

TEST_F(Program, ExportsASceneThatConvertsToTheSamePositions) {
    convertFirst(1000);
    const fs::path exported = work / "exported.ply";
    const support::ProcessResult result = run({"export", support::textOf(output), support::textOf(exported)});
    ASSERT_EQ(result.status, done) << result.errors;
    const std::string scene = support::readFile(exported);
    EXPECT_EQ(scene.size() - scene.find("end_header\n") - std::string("end_header\n").size(),
              1000 * support::floatsWith * sizeof(float));
    ASSERT_EQ(convert(exported, work / "again").status, done);
    const std::string first = support::readFile(output / "data.bin");
    const std::string second = support::readFile(work / "again" / "data.bin");
    constexpr std::size_t record = 32;
    constexpr std::size_t position = 12;
    ASSERT_EQ(first.size(), 1000 * record);
    ASSERT_EQ(second.size(), first.size());
    for (std::size_t at = 0; at < first.size(); at += record) {
        ASSERT_EQ(first.substr(at, position), second.substr(at, position)) << "of record " << at / record;
    }
}

TEST_F(Program, RefusesAWrongCommandLine) {
    expectRefusal(run({"--no-such-option", "a", "b"}), usage, "--no-such-option");
    expectRefusal(run({"convert"}), usage, "IN is required");
}

TEST_F(Program, HasNoCatalogueOnThisSystem) {
    expectRefusal(run({"catalogue", "town", "city.json"}), usage, "catalogue is not in this build");
}

TEST_F(Program, SaysThatItDrawsNoPictures) {
    expectRefusal(run({"picture", "out", "out.tif", "--gsd", "0.1"}), usage, "picture is not in this build");
}

// A slash does not begin an option, unlike in other programs on Windows.
TEST_F(Program, TakesAWordThatBeginsWithASlashForAPath) {
    expectRefusal(run({"/none.ply", "/out"}), inputRefused, "/none.ply: there is no such file");
}

TEST_F(Program, RefusesInputsAndTouchesNothing) {
    convertFirst(10);
    const std::string data = support::readFile(output / "data.bin");
    const std::string scene = support::readFile(input);

    expectRefusal(convert(work / "none.ply", output), inputRefused, "none.ply: there is no such file");
    expectRefusal(convert(work, output), inputRefused, "is a folder");
    support::writeFile(work / "cut.ply", scene.substr(0, scene.size() - 1));
    expectRefusal(convert(work / "cut.ply", output), inputRefused, "the file is cut");
    support::writeFile(work / "text.ply", "ply\r\nformat ascii 1.0\r\nend_header\r\n");
    EXPECT_EQ(convert(work / "text.ply", output).status, inputRefused);

    EXPECT_EQ(support::readFile(output / "data.bin"), data);
    EXPECT_EQ(names(), (std::set<std::string>{"cut.ply", "out", "scene.ply", "text.ply"}));
}

TEST_F(Program, RefusesFoldersOfSomebodyElsesFilesUnlessForced) {
    write(input, 10);
    fs::create_directories(output / "deep");
    support::writeFile(output / "deep" / "notes.txt", "precious");
    expectRefusal(convert(input, output), outputRefused, "neither empty nor an earlier dataset");
    EXPECT_EQ(support::readFile(output / "deep" / "notes.txt"), "precious");
    ASSERT_EQ(run({"--force", support::textOf(input), support::textOf(output)}).status, done);
    EXPECT_EQ(support::filesUnder(output), datasetNames);
    EXPECT_EQ(names(), (std::set<std::string>{"out", "scene.ply"}));
}

TEST_F(Program, RefusesAFolderThatHoldsTheInputByWhateverName) {
    write(input, 10);
    const std::string scene = support::readFile(input);
    expectRefusal(convert(input, work), outputRefused, "holds the input");
    std::string shouted = support::textOf(work);
    shouted.replace(shouted.size() - 4, 4, "WORK");
    expectRefusal(run({"--force", support::textOf(input), shouted}), outputRefused, "holds the input");
    expectRefusal(run({"--force", support::textOf(input), shouted + "/../work/."}), outputRefused,
                  "holds the input");
    expectRefusal(convert(input, input), outputRefused, "is the input itself");
    EXPECT_EQ(support::readFile(input), scene);
}

TEST_F(Program, ReplacesAnEarlierDataset) {
    convertFirst(10);
    const fs::path other = work / "other.ply";
    write(other, 20);
    ASSERT_EQ(convert(other, output).status, done);
    EXPECT_EQ(support::readFile(output / "data.bin").size(), 20u * 32);
    EXPECT_EQ(support::filesUnder(output), datasetNames);
    EXPECT_EQ(names(), (std::set<std::string>{"other.ply", "out", "scene.ply"}));
}

TEST_F(Program, TakesTheFolderWithASeparatorAtItsEnd) {
    write(input, 10);
    std::string folder = support::textOf(output);
    std::replace(folder.begin(), folder.end(), '/', '\\');
    ASSERT_EQ(run({support::textOf(input), folder + "/"}).status, done);
    EXPECT_EQ(run({"verify", "--quiet", folder + "/"}).status, done);
    EXPECT_EQ(support::filesUnder(output), datasetNames);
}

TEST_F(Program, MakesMissingFoldersAboveTheOutput) {
    write(input, 10);
    ASSERT_EQ(convert(input, work / "a" / "b" / "out").status, done);
    EXPECT_EQ(support::filesUnder(work / "a" / "b" / "out"), datasetNames);
}

// The manifest makes the code page UTF-8, from Windows 10 of May 2019 on.
TEST_F(Program, TakesPathsInEveryScript) {
    const fs::path scene = work / L"B\u00E4ume \u68EE \U0001F332.ply";
    const fs::path folder = work / L"fertig \u6771\u4EAC";
    write(scene, 10);
    const support::ProcessResult result = convert(scene, folder);
    ASSERT_EQ(result.status, done) << result.errors;
    EXPECT_THAT(result.output, StartsWith(support::textOf(folder) + ": 10 splats in 1 cell"));
    EXPECT_EQ(support::filesUnder(folder), datasetNames);
    EXPECT_THAT(support::readFile(folder / "log.txt"),
                StartsWith("INFO(convert:74): input data file:" + support::textOf(scene) + "\r\n"));
    EXPECT_EQ(run({"info", support::textOf(scene), support::textOf(folder)}).status, done);
    expectRefusal(convert(work / L"\u68EE.ply", folder), inputRefused, "\xE6\xA3\xAE.ply: there is no such");
}

TEST_F(Program, CleansUpAfterDeadRuns) {
    convertFirst(10);
    const std::string data = support::readFile(output / "data.bin");
    // The system gives no process this id: ids are multiples of four.
    fs::rename(output, work / "out.replaced-4000000001");
    fs::create_directories(work / "out.partial-4000000001");
    support::writeFile(work / "out.partial-4000000001" / "data.bin", "half");
    support::writeFile(work / "out.partial-4000000001.lock", "");
    expectRefusal(convert(work / "out.partial-4000000001", output), inputRefused, "is a folder");
    EXPECT_EQ(names().count("out.partial-4000000001"), 1u) << "a refused input touches nothing";

    ASSERT_EQ(failForMemory(), doesNotFit);
    EXPECT_EQ(support::readFile(output / "data.bin"), data) << "the earlier dataset is back";
    EXPECT_EQ(names(), (std::set<std::string>{"out", "scene.ply"}));
}

TEST_F(Program, LeavesWhatALiveRunWrites) {
    write(input, 10);
    const fs::path lock = work / "out.partial-4000000001.lock";
    fs::create_directories(work / "out.partial-4000000001");
    const HANDLE held =
        CreateFileW(lock.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_NEW, FILE_ATTRIBUTE_NORMAL, nullptr);
    ASSERT_NE(held, INVALID_HANDLE_VALUE);
    EXPECT_EQ(convert(input, output).status, done);
    EXPECT_EQ(names(), (std::set<std::string>{"out", "out.partial-4000000001", "out.partial-4000000001.lock",
                                              "scene.ply"}));
    CloseHandle(held);
}

// A link as the last component of the path is followed.
TEST_F(Program, ReplacesTheDatasetBehindALink) {
    convertFirst(10);
    const FolderLink link(output, work / "link");
    const fs::path other = work / "other.ply";
    write(other, 20);
    ASSERT_EQ(convert(other, link.path()).status, done);
    EXPECT_EQ(support::readFile(output / "data.bin").size(), 20u * 32);
    EXPECT_TRUE(link.exists());
    EXPECT_EQ(names(), (std::set<std::string>{"link", "other.ply", "out", "scene.ply"}));
}

TEST_F(Program, RefusesAFolderWithALinkInItThoughForced) {
    convertFirst(10);
    fs::create_directories(work / "mine");
    const FolderLink link(output, work / "mine" / "link");
    const std::vector<std::string> words = {"--force", support::textOf(input),
                                            support::textOf(work / "mine")};
    expectRefusal(run(words), outputRefused, "mounted at");
    EXPECT_EQ(support::filesUnder(output), datasetNames);
    EXPECT_EQ(names(), (std::set<std::string>{"mine", "out", "scene.ply"}));
}

TEST_F(Program, RefusesAFolderThatHoldsTheInputByALink) {
    write(input, 10);
    const FolderLink link(work, scratch / "link");
    expectRefusal(convert(input, link.path()), outputRefused, "holds the input");
    expectRefusal(convert(link.path() / "scene.ply", work), outputRefused, "holds the input");
}

// A running conversion, with an earlier dataset in place.
class ProgramUnderWay : public Program {
protected:
    std::string earlier; // data.bin

    void SetUp() override {
        Program::SetUp();
        convertFirst(10);
        earlier = support::readFile(output / "data.bin");
        write(input, 200'000);
    }

    // Starts conversions until `blow` hits one while it writes. The moment is random; rarely a conversion
    // ends before.
    int strike(const std::function<void(const Running&)>& blow) const {
        constexpr int attempts = 20;
        for (int attempt = 0; attempt < attempts; ++attempt) {
            const Running program({support::textOf(input), support::textOf(output)}, scratch / "errors");
            const fs::path partial = work / ("out.partial-" + std::to_string(program.id()));
            while (!fs::exists(partial) && !program.hasEnded()) {
                Sleep(1);
            }
            blow(program);
            const int status = program.status();
            if (status != done) {
                return status;
            }
        }
        return done;
    }

    void expectTheEarlierDataset() const {
        EXPECT_TRUE(support::readFile(output / "data.bin") == earlier);
        EXPECT_EQ(support::filesUnder(output), datasetNames);
    }
};

// With a new console for this process, so that an event only reaches this process and the program.
class ProgramInAConsole : public ProgramUnderWay {
protected:
    void SetUp() override {
        ProgramUnderWay::SetUp();
        FreeConsole();
        ASSERT_TRUE(AllocConsole());
        SetConsoleCtrlHandler(ignore, TRUE);
    }

    void TearDown() override {
        SetConsoleCtrlHandler(ignore, FALSE);
        FreeConsole();
    }

    void interruptBy(DWORD event) const {
        const int status =
            strike([event](const Running&) { EXPECT_TRUE(GenerateConsoleCtrlEvent(event, 0)); });
        EXPECT_EQ(status, interrupted);
        EXPECT_EQ(support::withPlainLineEnds(support::readFile(scratch / "errors")),
                  "plyconvert: error: interrupted: nothing was published, what was written is removed\n");
        expectTheEarlierDataset();
        EXPECT_EQ(names(), (std::set<std::string>{"out", "scene.ply"}));
    }

private:
    static BOOL WINAPI ignore(DWORD) { return TRUE; }
};

TEST_F(ProgramInAConsole, EndsAtCtrlC) {
    interruptBy(CTRL_C_EVENT);
}

TEST_F(ProgramInAConsole, EndsAtCtrlBreak) {
    if (!GenerateConsoleCtrlEvent(CTRL_BREAK_EVENT, 0)) {
        GTEST_SKIP() << "this system sends no Ctrl-Break, as wine 8.0 does not";
    }
    interruptBy(CTRL_BREAK_EVENT);
}

TEST_F(ProgramUnderWay, LeavesTheEarlierDatasetWhenKilled) {
    EXPECT_EQ(strike([](const Running& program) { program.kill(); }), 1);
    expectTheEarlierDataset();
    const std::set<std::string> left = names();
    EXPECT_EQ(left.size(), 4u) << "the folder that was written, and its lock";
    EXPECT_EQ(failForMemory(), doesNotFit);
    EXPECT_EQ(names(), (std::set<std::string>{"out", "scene.ply"}));
    expectTheEarlierDataset();
}

} // namespace
} // namespace windows_test
