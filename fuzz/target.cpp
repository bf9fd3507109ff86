#include "fuzz/target.h"

#include "tests/support/dataset_writer.h"

#include <cstdio>
#include <cstdlib>
#include <sstream>

#include <fcntl.h>
#include <unistd.h>

// Called by libFuzzer and by the replay before the first input. Discards standard output, which the library
// writes to.
extern "C" int LLVMFuzzerInitialize(int*, char***) {
    const int nothing = open("/dev/null", O_WRONLY);
    fuzz::require(nothing >= 0 && dup2(nothing, STDOUT_FILENO) >= 0, "standard output can be discarded");
    close(nothing);
    return 0;
}

namespace fuzz {

namespace {

void show(const char* name, const std::string& text) {
    std::fprintf(stderr, "%s (%zu bytes): ", name, text.size());
    for (const char c : text.substr(0, 2000)) {
        const auto byte = static_cast<unsigned char>(c);
        std::fprintf(stderr, byte >= 0x20 && byte < 0x7f ? "%c" : "\\x%02x", byte);
    }
    std::fputc('\n', stderr);
}

} // namespace

void require(bool holds, std::string_view expectation) {
    if (!holds) {
        std::fprintf(stderr, "Finding: expected that %.*s\n", static_cast<int>(expectation.size()),
                     expectation.data());
        std::abort();
    }
}

void requireEqual(const std::string& found, const std::string& expected, std::string_view what) {
    if (found != expected) {
        show("found   ", found);
        show("expected", expected);
        std::fprintf(stderr, "Finding: %.*s differs\n", static_cast<int>(what.size()), what.data());
        std::abort();
    }
}

const std::filesystem::path& scratch() {
    static const DatasetWriter::TemporaryFolder folder = [] {
        const char* const memory = "/dev/shm";
        if (std::getenv("TMPDIR") == nullptr && access(memory, W_OK) == 0) {
            setenv("TMPDIR", memory, 0);
        }
        return DatasetWriter::TemporaryFolder();
    }();
    return folder.path();
}

std::string readFile(const std::filesystem::path& path) {
    std::ifstream file(path, std::ios::binary);
    require(static_cast<bool>(file), path.string() + " can be read");
    std::ostringstream bytes;
    bytes << file.rdbuf();
    return bytes.str();
}

bool statesAtMost(std::string_view file, long long records) {
    std::istringstream lines{std::string(file)};
    for (std::string line; std::getline(lines, line);) {
        if (line.find("element") == line.npos) {
            continue;
        }
        std::istringstream words(line);
        for (std::string word; words >> word;) {
            if (std::strtoll(word.c_str(), nullptr, 10) > records) {
                return false;
            }
        }
    }
    return true;
}

} // namespace fuzz
