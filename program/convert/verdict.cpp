#include "program/convert/verdict.h"

#include "program/terminal/console.h"

namespace Tavrin::SplatProgram {

void Verdict::refuse(ExitStatus status, const std::string& line) {
    if (!m_unchecked) {
        throw Failure(status, line);
    }
    warn("unchecked: " + line);
}

void Verdict::warn(const std::string& line) {
    m_warnings.push_back(line);
    if (!m_silent) {
        reportWarning(line);
    }
}

} // namespace Tavrin::SplatProgram
