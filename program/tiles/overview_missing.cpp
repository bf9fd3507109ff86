// In builds without the libraries that read pictures, no dataset has one.
#include "program/tiles/overview.h"

namespace Tavrin::SplatProgram {

std::optional<Overview> overviewBeside(const std::filesystem::path& /*folder*/, std::string& /*remark*/) {
    return std::nullopt;
}

} // namespace Tavrin::SplatProgram
