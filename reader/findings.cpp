#include "reader/findings.h"

namespace Tavrin::SplatReader {

std::string joined(std::initializer_list<std::string_view> parts) {
    std::string text;
    for (const std::string_view part : parts) {
        text.append(part);
    }
    return text;
}

std::string Finding::text() const {
    return file + ", byte " + std::to_string(offset) + ": expected " + expected + ", found " + found;
}

void Findings::error(std::string_view kind, std::string_view file, std::uint64_t offset, std::string expected,
                     std::string found) {
    add(errors_, kind, file, offset, std::move(expected), std::move(found));
}

void Findings::warning(std::string_view kind, std::string_view file, std::uint64_t offset,
                       std::string expected, std::string found) {
    add(warnings_, kind, file, offset, std::move(expected), std::move(found));
}

void Findings::add(List& list, std::string_view kind, std::string_view file, std::uint64_t offset,
                   std::string expected, std::string found) {
    ++list.total;
    const std::uint64_t ofKind = ++list.kinds[std::string(kind)];
    if (ofKind <= perKind_) {
        list.kept.push_back(
            {std::string(file), offset, std::move(expected), std::move(found), std::string(kind)});
    }
}

} // namespace Tavrin::SplatReader
