#include "reader/findings.h"

#include <algorithm>

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

void Findings::append(const Findings& more) {
    append(errors_, more.errors_);
    append(warnings_, more.warnings_);
}

void Findings::append(List& list, const List& more) const {
    list.total += more.total;
    std::map<std::string, std::uint64_t> kept; // findings already kept, by kind
    for (const auto& [kind, count] : list.kinds) {
        kept[kind] = std::min<std::uint64_t>(count, perKind_);
    }
    for (const Finding& finding : more.kept) {
        if (++kept[finding.kind] <= perKind_) {
            list.kept.push_back(finding);
        }
    }
    for (const auto& [kind, count] : more.kinds) {
        list.kinds[kind] += count;
    }
}

} // namespace Tavrin::SplatReader
