#include "program/system/exit_status.h"

#include <new>
#include <system_error>

namespace Tavrin::SplatProgram {

Failure failureOf(const std::exception& error) {
    if (const auto* const failure = dynamic_cast<const Failure*>(&error)) {
        return *failure;
    }
    if (dynamic_cast<const std::bad_alloc*>(&error) != nullptr) {
        return {ExitStatus::doesNotFit, "out of memory: close other programs or use a machine with more"};
    }
    const auto* const refused = dynamic_cast<const std::system_error*>(&error);
    if (refused != nullptr && refused->code() == std::errc::resource_unavailable_try_again) {
        return {ExitStatus::doesNotFit,
                "the system cannot start a thread: give this process more memory (ulimit -v) "
                "or more threads (ulimit -u)"};
    }
    return {ExitStatus::conversionFailed, error.what()};
}

const char* nameOf(ExitStatus status) {
    switch (status) {
    case ExitStatus::done:
        return "done";
    case ExitStatus::usage:
        return "usage";
    case ExitStatus::inputRefused:
        return "inputRefused";
    case ExitStatus::outputRefused:
        return "outputRefused";
    case ExitStatus::conversionFailed:
        return "conversionFailed";
    case ExitStatus::splatsLeftOut:
        return "splatsLeftOut";
    case ExitStatus::verificationFailed:
        return "verificationFailed";
    case ExitStatus::doesNotFit:
        return "doesNotFit";
    case ExitStatus::notTold:
        return "notTold";
    case ExitStatus::interrupted:
        return "interrupted";
    }
    return "unknown";
}

} // namespace Tavrin::SplatProgram
