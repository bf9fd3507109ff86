// The projection in builds without PROJ: refuses.
#include "program/tiles/projection.h"

#include "program/system/exit_status.h"

namespace Tavrin::SplatProgram {

struct Projection::Handle {};

void requireProjections() {
    throw Failure(ExitStatus::usage,
                  "catalogue is not in this build, which has no PROJ: run it on Linux, on the same datasets");
}

std::optional<Projection> Projection::ofCode(std::int32_t /*code*/, std::string& whyNot) {
    whyNot = "this build has no PROJ";
    return std::nullopt;
}

std::optional<LonLat> Projection::at(double /*x*/, double /*y*/) const {
    return std::nullopt;
}

} // namespace Tavrin::SplatProgram
