// Cuts a small sound file at every length, and inverts every bit of its header. Each conversion must end in
// one of the documented ways. A second conversion must end in the same way with the same bytes. A dataset
// must be that of the reference converter.

#include "tests/blackbox/blackbox.h"
#include "tests/reference/converter.h"
#include "tests/support/header_errors.h"
#include "tests/support/sha256.h"

#if !defined(_WIN32)
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>
#endif

#include <algorithm>
#include <fstream>
#include <functional>
#include <stdexcept>

namespace blackbox {
namespace {

#if !defined(_WIN32)

using support::PlyFile;

// All possible outcomes of a header: results of the call, ends of the process (a scene without splats),
// errors.
bool isDocumented(const std::string& ending) {
    return ending == "result 0" || ending == "result -1" || ending == "exit status 255" ||
           std::ranges::find(support::headerErrors, ending) != support::headerErrors.end();
}

// The ending of a conversion, and a hash of its output.
struct Run {
    std::string ending;
    std::string left;
};

PlyFile soundFile(bool coefficients) {
    PlyFile ply = support::randomFile(11, coefficients ? 2 : 3, coefficients);
    if (!coefficients) {
        ply.comments = {"comment minx -20", "comment maxx 20.5", "comment miny -15", "comment epsg 25832",
                        "comment source s1"};
    }
    return ply;
}

// A hash of standard output and of the folder's files, without the guid's digits.
std::string hashOfLeft(const fs::path& output, const fs::path& standardOutput) {
    support::Sha256 hash;
    hash.update(support::readFile(standardOutput));
    for (const std::string& name :
         fs::exists(output) ? support::filesUnder(output) : std::set<std::string>{}) {
        const std::string bytes = support::readFile(output / name);
        hash.update(name + '\n');
        hash.update(name == "converted_from_ply.ytr" ? support::withoutGuid(bytes) : bytes);
    }
    return hash.finish();
}

// Compares the dataset with that of the reference converter; empty if they are equal.
std::string differenceFromReference(const fs::path& output, const std::string& file) {
    const reference::Dataset expected = reference::convert(file);
    const support::DatasetFiles found = support::readDataset(output);
    return found.data != expected.data                         ? "with another data.bin"
           : found.coefficients != expected.coefficients       ? "with another shcoef.bin"
           : found.index != expected.index                     ? "with another index.bin"
           : support::withoutGuid(found.meta) != expected.meta ? "with another meta document"
                                                               : "";
}

// Converts the files of its lane, each twice, in child processes. A new process is started only after a
// conversion has ended the last one. Each run adds a line to the lane's file: a hash and the ending.
class Lane {
public:
    using FileOf = std::function<std::string(std::size_t)>;

    Lane(fs::path folder, std::vector<std::size_t> cases, FileOf fileOf)
        : folder_(std::move(folder)), cases_(std::move(cases)), fileOf_(std::move(fileOf)) {
        fs::create_directories(folder_);
        support::writeFile(results_, "");
    }

    pid_t pid() const { return pid_; }

    void start() {
        pid_ = fork();
        if (pid_ == 0) {
            try {
                convertTheRest();
                _exit(finished);
            } catch (const std::exception& error) {
                report({std::string("the test failed: ") + error.what(), ""});
                _exit(finished);
            }
        }
    }

    // To be called when the process has ended. True if nothing is left to convert.
    bool takeEnd(int status) {
        if (WIFEXITED(status) && WEXITSTATUS(status) == finished) {
            return true;
        }
        const std::string ending = WIFEXITED(status) ? "exit status " + std::to_string(WEXITSTATUS(status))
                                                     : "signal " + std::to_string(WTERMSIG(status));
        report({ending, hashOfLeft(output_, standardOutput_)});
        return runs().size() == 2 * cases_.size();
    }

    void check() const {
        const std::vector<Run> all = runs();
        ASSERT_EQ(all.size(), 2 * cases_.size()) << (all.empty() ? "" : all.back().ending);
        for (std::size_t i = 0; i < cases_.size(); ++i) {
            const Run& first = all[2 * i];
            const Run& second = all[2 * i + 1];
            EXPECT_TRUE(isDocumented(first.ending)) << first.ending << ", case " << cases_[i];
            EXPECT_EQ(second.ending, first.ending) << "case " << cases_[i];
            EXPECT_EQ(second.left, first.left) << "case " << cases_[i];
        }
    }

    // The ending of each of the lane's cases.
    void addEndings(std::map<std::size_t, std::string>& endings) const {
        const std::vector<Run> all = runs();
        for (std::size_t i = 0; i < all.size(); i += 2) {
            endings[cases_[i / 2]] = all[i].ending;
        }
    }

private:
    static constexpr int finished = 77; // not a status of the library

    fs::path folder_;
    std::vector<std::size_t> cases_;
    FileOf fileOf_;
    fs::path input_ = folder_ / "scene.ply";
    fs::path output_ = folder_ / "out";
    fs::path standardOutput_ = folder_ / "stdout";
    fs::path results_ = folder_ / "runs";
    pid_t pid_ = 0;

    void report(const Run& run) const {
        std::ofstream(results_, std::ios::app) << run.left << ' ' << run.ending << std::endl;
    }

    std::vector<Run> runs() const {
        std::vector<Run> all;
        std::ifstream lines(results_);
        for (std::string line; std::getline(lines, line);) {
            const std::size_t blank = line.find(' ');
            all.push_back({.ending = line.substr(blank + 1), .left = line.substr(0, blank)});
        }
        return all;
    }

    void convertTheRest() const {
        using Convert = std::int32_t (*)(const char*, const char*);
        void* const library = dlopen(PLYCONVERT_LIBRARY, RTLD_NOW | RTLD_LOCAL);
        const auto convert =
            library != nullptr ? reinterpret_cast<Convert>(dlsym(library, "plyConvert")) : nullptr;
        if (convert == nullptr) {
            throw std::runtime_error(dlerror());
        }
        const int output = open(standardOutput_.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
        dup2(output, STDOUT_FILENO);
        for (std::size_t run = runs().size(); run < 2 * cases_.size(); ++run) {
            const std::string file = fileOf_(cases_[run / 2]);
            support::writeFile(input_, file);
            fs::remove_all(output_);
            fs::resize_file(standardOutput_, 0);
            std::string ending = endingOf([&] { return convert(input_.c_str(), output_.c_str()); });
            if (ending == "result 0") {
                const std::string difference = differenceFromReference(output_, file);
                ending += (difference.empty() ? "" : " ") + difference;
            }
            report({ending, hashOfLeft(output_, standardOutput_)});
        }
    }

    template <typename Call>
    static std::string endingOf(Call call) {
        try {
            return "result " + std::to_string(call());
        } catch (const std::invalid_argument& error) {
            return std::string("invalid_argument ") + error.what();
        } catch (const std::out_of_range& error) {
            return std::string("out_of_range ") + error.what();
        } catch (const std::exception& error) {
            return std::string("exception ") + error.what();
        }
    }
};

// Converts the files of all cases and returns the ending of each. Many run at a time, because a conversion
// mostly waits for the pauses of its pools.
std::map<std::size_t, std::string> convertAll(const fs::path& scratch, std::size_t count,
                                              const Lane::FileOf& fileOf) {
    constexpr std::size_t laneCount = 12;
    std::vector<std::unique_ptr<Lane>> lanes;
    for (std::size_t number = 0; number < laneCount; ++number) {
        std::vector<std::size_t> cases;
        for (std::size_t i = number; i < count; i += laneCount) {
            cases.push_back(i);
        }
        lanes.push_back(std::make_unique<Lane>(scratch / std::to_string(number), cases, fileOf));
        lanes.back()->start();
    }
    for (const std::unique_ptr<Lane>& lane : lanes) {
        for (bool done = false; !done;) {
            int status = 0;
            waitpid(lane->pid(), &status, 0);
            done = lane->takeEnd(status);
            if (!done) {
                lane->start();
            }
        }
    }
    std::map<std::size_t, std::string> endings;
    for (const std::unique_ptr<Lane>& lane : lanes) {
        lane->check();
        lane->addEndings(endings);
    }
    return endings;
}

class Mutations : public testing::Test {
protected:
    support::Scratch scratch;

    // A file passes the check if it contains the last required name. Missing bytes are zeros.
    void cutEverywhere(bool coefficients) {
        const std::string file = soundFile(coefficients).bytes();
        const std::size_t enough = file.find("rot_0") + 5;
        const auto endings = convertAll(scratch.folder(), file.size() + 1,
                                        [&file](std::size_t length) { return file.substr(0, length); });
        for (std::size_t length = 0; length <= file.size(); ++length) {
            EXPECT_EQ(endings.at(length), length < enough ? "result -1" : "result 0") << length << " bytes";
        }
    }

    static std::size_t countOf(const std::map<std::size_t, std::string>& endings, const std::string& ending) {
        return static_cast<std::size_t>(
            std::ranges::count_if(endings, [&ending](const auto& entry) { return entry.second == ending; }));
    }

    std::map<std::size_t, std::string> turnEveryBit(const std::string& file, std::size_t headerSize) {
        return convertAll(scratch.folder(), headerSize * 8, [&file](std::size_t bit) {
            std::string changed = file;
            changed[bit / 8] = static_cast<char>(changed[bit / 8] ^ (1 << bit % 8));
            return changed;
        });
    }
};

TEST_F(Mutations, CutAtEveryLength) {
    cutEverywhere(false);
}

TEST_F(Mutations, CutAtEveryLengthWithCoefficients) {
    cutEverywhere(true);
}

TEST_F(Mutations, EveryBitOfTheHeader) {
    const PlyFile ply = soundFile(false);
    const auto endings = turnEveryBit(ply.bytes(), ply.header().size());
    EXPECT_GT(countOf(endings, "result 0"), 0u);
    EXPECT_GT(countOf(endings, "result -1"), 0u);
    EXPECT_GT(countOf(endings, "exit status 255"), 0u); // the keyword "element" is destroyed
    EXPECT_GT(countOf(endings, "invalid_argument invalid stof argument"), 0u);
    EXPECT_GT(countOf(endings, "invalid_argument invalid stoi argument"), 0u);
}

// Only the properties that the library reads; it skips the other lines.
TEST_F(Mutations, EveryBitOfTheHeaderWithCoefficients) {
    const PlyFile ply = soundFile(true);
    std::string header = "ply\nformat binary_little_endian 1.0\nelement vertex 2\n";
    for (const char* const name : {"f_dc_0", "f_rest_0", "opacity", "scale_0", "rot_0"}) {
        header += std::string("property float ") + name + '\n';
    }
    header += "end_header\n";
    const auto endings = turnEveryBit(header + ply.bytes().substr(ply.header().size()), header.size());
    EXPECT_GT(countOf(endings, "result 0"), 0u);
    EXPECT_GT(countOf(endings, "result -1"), 0u);
    EXPECT_GT(countOf(endings, "invalid_argument invalid stoll argument"), 0u);
}

#else

TEST(Mutations, NeedFork) {
    GTEST_SKIP() << "the cases run in forked processes, which this system does not have; "
                    "the results and failures of the other black-box tests are the same here";
}

#endif

} // namespace
} // namespace blackbox
