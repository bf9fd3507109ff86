#include "program/convert/verdict.h"

#include "program/terminal/console.h"

namespace Tavrin::SplatProgram {

void Verdict::refuse(ExitStatus status, const std::string& line) {
    if (!unchecked_) {
        throw Failure(status, line);
    }
    warn("unchecked: " + line);
}

void Verdict::warn(const std::string& line) {
    warnings_.push_back(line);
    if (!silent_) {
        reportWarning(line);
    }
}

} // namespace Tavrin::SplatProgram
