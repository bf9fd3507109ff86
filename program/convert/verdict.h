#pragma once

#include "program/system/exit_status.h"

#include <string>
#include <vector>

namespace Tavrin::SplatProgram {

// What the checks before a conversion have to say, and what becomes of it.
class Verdict {
public:
    // `unchecked`: what refuses the input is only a warning. `silent`: warnings are kept but not printed.
    Verdict(bool unchecked, bool silent) : m_unchecked(unchecked), m_silent(silent) {}

    // Throws a Failure with the line, or warns when the run is unchecked.
    void refuse(ExitStatus status, const std::string& line);

    void warn(const std::string& line);

    bool unchecked() const { return m_unchecked; }
    const std::vector<std::string>& warnings() const { return m_warnings; }

private:
    bool m_unchecked;
    bool m_silent;
    std::vector<std::string> m_warnings;
};

} // namespace Tavrin::SplatProgram
