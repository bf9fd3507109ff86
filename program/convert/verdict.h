#pragma once

#include "program/system/exit_status.h"

#include <string>
#include <vector>

namespace Tavrin::SplatProgram {

// What the checks before a conversion have to say, and what becomes of it.
class Verdict {
public:
    // `unchecked`: what refuses the input is only a warning. `silent`: warnings are kept but not printed.
    Verdict(bool unchecked, bool silent) : unchecked_(unchecked), silent_(silent) {}

    // Throws a Failure with the line, or warns when the run is unchecked.
    void refuse(ExitStatus status, const std::string& line);

    void warn(const std::string& line);

    bool unchecked() const { return unchecked_; }
    const std::vector<std::string>& warnings() const { return warnings_; }

private:
    bool unchecked_;
    bool silent_;
    std::vector<std::string> warnings_;
};

} // namespace Tavrin::SplatProgram
