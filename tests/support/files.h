// Scratch folders and whole files.
#pragma once

#include <filesystem>
#include <set>
#include <string>
#include <string_view>

namespace support {

// A folder for the running test inside the build folder, emptied at the start and removed at the end.
class Scratch {
public:
    Scratch();
    ~Scratch();
    Scratch(const Scratch&) = delete;
    Scratch& operator=(const Scratch&) = delete;

    const std::filesystem::path& folder() const { return folder_; }
    std::filesystem::path operator/(const std::filesystem::path& name) const { return folder_ / name; }

private:
    std::filesystem::path folder_;
};

// Both throw std::runtime_error when the file cannot be opened.
std::string readFile(const std::filesystem::path& path);
void writeFile(const std::filesystem::path& path, std::string_view bytes);

// Paths of everything under a folder, relative to it, with '/' between the parts.
std::set<std::string> filesUnder(const std::filesystem::path& folder);

// A path as the 8-bit string that the library takes: UTF-8, on Windows the ANSI code page.
std::string pathBytes(const std::filesystem::path& path);

// Conversion between paths and UTF-8 text.
std::string textOf(const std::filesystem::path& path);
std::filesystem::path pathFromText(std::string_view text);

// Text with every CR LF as LF.
std::string withPlainLineEnds(std::string_view text);

} // namespace support
