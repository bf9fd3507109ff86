#include "program/system/child_process.h"

#include <algorithm>

namespace Tavrin::SplatProgram {
namespace {

constexpr std::size_t longestLine = 4096;
constexpr std::size_t mostLines = 64;

} // namespace

void LineCollector::take(std::string_view text) {
    while (!text.empty()) {
        const std::size_t end = std::min(text.find('\n'), text.size());
        const std::size_t room = longestLine - std::min(longestLine, current_.size());
        current_ += text.substr(0, std::min(end, room));
        if (end == text.size()) {
            return;
        }
        finish();
        text.remove_prefix(end + 1);
    }
}

void LineCollector::finish() {
    if (current_.find_first_not_of(" \t\r") != std::string::npos && lines_.size() < mostLines) {
        lines_.push_back(current_.ends_with('\r') ? current_.substr(0, current_.size() - 1) : current_);
    }
    current_.clear();
}

} // namespace Tavrin::SplatProgram
