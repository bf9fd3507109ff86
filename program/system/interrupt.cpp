#include "program/system/interrupt.h"

#include "program/system/exit_status.h"

namespace Tavrin::SplatProgram {
namespace {

const char* left = "";

} // namespace

void catchInterrupts(const char* outcome) {
    left = outcome;
    noteInterrupts();
}

void throwIfInterrupted() {
    if (interrupted()) {
        throw Failure(ExitStatus::interrupted, std::string("interrupted: ") + left);
    }
}

} // namespace Tavrin::SplatProgram
