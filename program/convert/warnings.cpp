#include "program/convert/warnings.h"

#include "program/terminal/console.h"

namespace Tavrin::SplatProgram {

void Warnings::add(const std::string& line) {
    lines_.push_back(line);
    if (!silent_) {
        reportWarning(line);
    }
}

} // namespace Tavrin::SplatProgram
