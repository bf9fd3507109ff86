#include "tests/support/files.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <stdexcept>
#include <system_error>

#if defined(_WIN32)
#include <windows.h>
#endif

namespace support {

namespace fs = std::filesystem;

namespace {

// The test's name, with characters replaced that a file name cannot contain.
std::string nameOfRunningTest() {
    const testing::TestInfo* const test = testing::UnitTest::GetInstance()->current_test_info();
    std::string name = test == nullptr ? "none" : std::string(test->test_suite_name()) + "." + test->name();
    std::replace(name.begin(), name.end(), '/', '.');
    return name;
}

} // namespace

Scratch::Scratch() : folder_(fs::path(PLYCONVERT_SCRATCH) / nameOfRunningTest()) {
#if defined(_WIN32)
    // May fail in the process of a death test, when the waiting test holds a file open. The file then stays.
    std::error_code ignored;
    fs::remove_all(folder_, ignored);
#else
    fs::remove_all(folder_);
#endif
    fs::create_directories(folder_);
}

Scratch::~Scratch() {
    std::error_code ignored; // the next run empties it again
    fs::remove_all(folder_, ignored);
}

std::string readFile(const fs::path& path) {
    std::ifstream file(path, std::ios::binary | std::ios::ate);
    if (!file) {
        throw std::runtime_error("cannot read " + path.generic_string());
    }
    std::string bytes(static_cast<std::size_t>(file.tellg()), '\0');
    file.seekg(0);
    file.read(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    return bytes;
}

void writeFile(const fs::path& path, std::string_view bytes) {
    std::ofstream file(path, std::ios::binary);
    if (!file.write(bytes.data(), static_cast<std::streamsize>(bytes.size())).flush()) {
        throw std::runtime_error("cannot write " + path.generic_string());
    }
}

std::set<std::string> filesUnder(const fs::path& folder) {
    std::set<std::string> names;
    for (const fs::directory_entry& entry : fs::recursive_directory_iterator(folder)) {
        names.insert(entry.path().lexically_relative(folder).generic_string());
    }
    return names;
}

std::string pathBytes(const fs::path& path) {
#if defined(_WIN32)
    const std::wstring wide = path.generic_wstring();
    const int length = WideCharToMultiByte(CP_ACP, 0, wide.data(), static_cast<int>(wide.size()), nullptr, 0,
                                           nullptr, nullptr);
    std::string bytes(static_cast<std::size_t>(length), '\0');
    WideCharToMultiByte(CP_ACP, 0, wide.data(), static_cast<int>(wide.size()), bytes.data(), length, nullptr,
                        nullptr);
    return bytes;
#else
    return path.string();
#endif
}

std::string textOf(const fs::path& path) {
    const std::u8string text = path.generic_u8string();
    return {text.begin(), text.end()};
}

fs::path pathFromText(std::string_view text) {
    return {std::u8string(text.begin(), text.end())};
}

std::string withPlainLineEnds(std::string_view text) {
    std::string plain;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '\r' || i + 1 == text.size() || text[i + 1] != '\n') {
            plain += text[i];
        }
    }
    return plain;
}

} // namespace support
