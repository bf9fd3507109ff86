#include "program/system/child_process_posix.h"

#include <unistd.h>

namespace Tavrin::SplatProgram {
namespace {

// Closes all descriptors from `first` to `last`.
void closeRange(unsigned first, unsigned last) {
#if defined(__linux__)
    if (::close_range(first, last, 0) == 0) {
        return;
    }
#endif
    const long most = ::sysconf(_SC_OPEN_MAX);
    for (unsigned handle = first; handle <= last && handle < static_cast<unsigned long>(most); ++handle) {
        ::close(static_cast<int>(handle));
    }
}

} // namespace

void closeAllBut(const std::vector<int>& handles) {
    unsigned next = 0;
    for (const int handle : handles) {
        if (static_cast<unsigned>(handle) > next) {
            closeRange(next, static_cast<unsigned>(handle) - 1);
        }
        next = static_cast<unsigned>(handle) + 1;
    }
    closeRange(next, ~0u);
}

} // namespace Tavrin::SplatProgram
