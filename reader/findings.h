// The findings of a check: errors and warnings, one line each. Memory stays bounded however broken the input
// is.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <map>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace Tavrin::SplatReader {

// The parts as one text.
std::string joined(std::initializer_list<std::string_view> parts);

struct Finding {
    std::string file;     // name inside the dataset folder
    std::uint64_t offset; // byte offset in that file
    std::string expected; // what the format requires
    std::string found;    // what the file has
    std::string kind;     // short fixed name of the check, for machines ("index-offset", ...)

    // "index.bin, byte 24: expected ..., found ..."
    std::string text() const;
};

// Thrown when a dataset cannot be used at all. what() is one line with file, offset, expected and found.
class DatasetError : public std::runtime_error {
public:
    explicit DatasetError(Finding finding)
        : std::runtime_error(finding.text()), finding_(std::move(finding)) {}
    const Finding& finding() const { return finding_; }

private:
    Finding finding_;
};

// Collects findings. The first `perKind` of each kind are kept, the rest only counted.
class Findings {
public:
    explicit Findings(std::size_t perKind = 10) : perKind_(perKind) {}

    void error(std::string_view kind, std::string_view file, std::uint64_t offset, std::string expected,
               std::string found);
    void warning(std::string_view kind, std::string_view file, std::uint64_t offset, std::string expected,
                 std::string found);
    // Adds the findings of a later check.
    void append(const Findings& more);

    const std::vector<Finding>& errors() const { return errors_.kept; }
    const std::vector<Finding>& warnings() const { return warnings_.kept; }
    std::uint64_t errorCount() const { return errors_.total; }
    std::uint64_t warningCount() const { return warnings_.total; }
    // The number of findings by kind. Beyond the limit of a kind it is larger than the number listed.
    const std::map<std::string, std::uint64_t>& errorKinds() const { return errors_.kinds; }
    const std::map<std::string, std::uint64_t>& warningKinds() const { return warnings_.kinds; }

private:
    struct List {
        std::vector<Finding> kept;
        std::map<std::string, std::uint64_t> kinds;
        std::uint64_t total = 0;
    };
    void add(List& list, std::string_view kind, std::string_view file, std::uint64_t offset,
             std::string expected, std::string found);
    void append(List& list, const List& more) const;

    std::size_t perKind_;
    List errors_;
    List warnings_;
};

} // namespace Tavrin::SplatReader
