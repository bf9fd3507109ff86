#include "program/system/interrupt.h"

#include "program/system/exit_status.h"

namespace Tavrin::SplatProgram {

void throwIfInterrupted() {
    if (interrupted()) {
        throw Failure(ExitStatus::interrupted,
                      "interrupted: nothing was published, what was written is removed");
    }
}

} // namespace Tavrin::SplatProgram
