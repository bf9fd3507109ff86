// Shared by the fuzz targets. A target defines LLVMFuzzerTestOneInput, which runs one input and ends the
// process when a check fails. libFuzzer calls it again and again with generated inputs; replay_main.cpp calls
// it once for every file of the committed corpus.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <span>
#include <string>
#include <string_view>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace fuzz {

// Reads values from the front of an input. After its end every value is zero.
class Source {
public:
    Source(const std::uint8_t* data, std::size_t size) : rest_(data, size) {}

    bool isEmpty() const { return rest_.empty(); }

    template <typename Value>
    Value take() {
        Value value{};
        const std::size_t count = std::min(sizeof value, rest_.size());
        std::memcpy(&value, rest_.data(), count);
        rest_ = rest_.subspan(count);
        return value;
    }

    // A number below `limit`, which is at most 256.
    std::size_t takeBelow(std::size_t limit) { return take<std::uint8_t>() % limit; }

    std::string takeText(std::size_t length) {
        std::string text = remaining().substr(0, length);
        rest_ = rest_.subspan(text.size());
        return text;
    }

    std::string remaining() const {
        return std::string(reinterpret_cast<const char*>(rest_.data()), rest_.size());
    }

private:
    std::span<const std::uint8_t> rest_;
};

// If `holds` is false, prints the expectation to standard error and aborts.
void require(bool holds, std::string_view expectation);
void requireEqual(const std::string& found, const std::string& expected, std::string_view what);

// A folder of this process, in memory if the system has such a file system, removed when the process ends.
const std::filesystem::path& scratch();

std::string readFile(const std::filesystem::path& path);

// False if some line of a file could be read as an element line with a count above `records`. Such inputs are
// skipped: the library's work grows with the stated count, and slowness is no finding.
bool statesAtMost(std::string_view file, long long records);

} // namespace fuzz
