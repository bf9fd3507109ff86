// The warnings of a run. They are printed as they come and kept for reports.
#pragma once

#include <string>
#include <vector>

namespace Tavrin::SplatProgram {

class Warnings {
public:
    // `silent`: warnings are kept but not printed.
    explicit Warnings(bool silent) : silent_(silent) {}

    void add(const std::string& line);

    const std::vector<std::string>& lines() const { return lines_; }

private:
    bool silent_;
    std::vector<std::string> lines_;
};

} // namespace Tavrin::SplatProgram
