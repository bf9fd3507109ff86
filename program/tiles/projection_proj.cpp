// The projection in builds with PROJ.
#include "program/tiles/projection.h"

#include "program/system/exit_status.h"

#include <fmt/format.h>

#include <cmath>

#include <proj.h>

namespace Tavrin::SplatProgram {
namespace {

struct EndContext {
    void operator()(PJ_CONTEXT* context) const { proj_context_destroy(context); }
};
struct EndObject {
    void operator()(PJ* object) const { proj_destroy(object); }
};
using Context = std::unique_ptr<PJ_CONTEXT, EndContext>;
using Object = std::unique_ptr<PJ, EndObject>;

// A context that prints nothing and fetches no grids from the network, so that a footprint depends on the
// input alone.
Context quietContext() {
    Context context(proj_context_create());
    proj_log_level(context.get(), PJ_LOG_NONE);
    proj_context_set_enable_network(context.get(), 0);
    return context;
}

// The horizontal part of a compound coordinate system. A footprint has no heights.
Object groundPart(PJ_CONTEXT* context, Object system) {
    if (proj_get_type(system.get()) == PJ_TYPE_COMPOUND_CRS) {
        system.reset(proj_crs_get_sub_crs(context, system.get(), 0));
    }
    return system;
}

bool hasGround(const PJ* system) {
    switch (proj_get_type(system)) {
    case PJ_TYPE_PROJECTED_CRS:
    case PJ_TYPE_GEOGRAPHIC_2D_CRS:
    case PJ_TYPE_GEOGRAPHIC_3D_CRS:
    case PJ_TYPE_BOUND_CRS:
        return true;
    default:
        return false;
    }
}

} // namespace

struct Projection::Handle {
    Context context; // outlives the transformation
    Object transformation;
};

void requireProjections() {
    const Context context = quietContext();
    if (proj_context_get_database_path(context.get()) == nullptr) {
        throw Failure(ExitStatus::inputRefused,
                      "PROJ's database proj.db is missing: install PROJ's data (Debian: proj-data), or set "
                      "PROJ_LIB to its folder");
    }
}

std::optional<Projection> Projection::ofCode(std::int32_t code, std::string& whyNot) {
    auto handle = std::make_shared<Handle>();
    handle->context = quietContext();
    PJ_CONTEXT* const context = handle->context.get();
    Object system(proj_create_from_database(context, "EPSG", std::to_string(code).c_str(), PJ_CATEGORY_CRS, 0,
                                            nullptr));
    if (!system) {
        whyNot = fmt::format("PROJ does not know EPSG {}", code);
        return std::nullopt;
    }
    system = groundPart(context, std::move(system));
    if (!system || !hasGround(system.get())) {
        whyNot = fmt::format("the coordinates of EPSG {} are not those of a map", code);
        return std::nullopt;
    }
    const Object degrees(proj_create(context, "OGC:CRS84"));
    const Object asStated(
        proj_create_crs_to_crs_from_pj(context, system.get(), degrees.get(), nullptr, nullptr));
    // Puts east, or longitude, first, whatever order the code states.
    handle->transformation.reset(asStated ? proj_normalize_for_visualization(context, asStated.get())
                                          : nullptr);
    if (!handle->transformation) {
        whyNot = fmt::format("PROJ has no way from EPSG {} to longitude and latitude", code);
        return std::nullopt;
    }
    return Projection(std::move(handle));
}

std::optional<LonLat> Projection::at(double x, double y) const {
    PJ* const transformation = handle_->transformation.get();
    proj_errno_reset(transformation);
    const PJ_COORD point = proj_trans(transformation, PJ_FWD, proj_coord(x, y, 0.0, HUGE_VAL));
    if (!std::isfinite(point.lp.lam) || !std::isfinite(point.lp.phi)) {
        return std::nullopt;
    }
    return LonLat{point.lp.lam, point.lp.phi};
}

} // namespace Tavrin::SplatProgram
