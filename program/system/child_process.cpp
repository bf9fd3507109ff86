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
        const std::size_t room = longestLine - std::min(longestLine, m_current.size());
        m_current += text.substr(0, std::min(end, room));
        if (end == text.size()) {
            return;
        }
        finish();
        text.remove_prefix(end + 1);
    }
}

void LineCollector::finish() {
    if (m_current.find_first_not_of(" \t\r") != std::string::npos && m_lines.size() < mostLines) {
        m_lines.push_back(m_current.ends_with('\r') ? m_current.substr(0, m_current.size() - 1) : m_current);
    }
    m_current.clear();
}

} // namespace Tavrin::SplatProgram
