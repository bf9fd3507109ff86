#include "program/convert/plan_remarks.h"

#include "program/scene/open_scene.h"
#include "program/terminal/figures.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <utility>

namespace Tavrin::SplatProgram {
namespace {

constexpr std::array<const char*, 3> axes = {"x", "y", "z"};
constexpr double centimetre = 0.01; // in scene units, taken as metres
constexpr std::int64_t mostColumns = 65535;
constexpr std::uint64_t fullestCell = 44'739'242; // the most splats of 96 bytes whose total fits 32 bits

// A bound in the input's own coordinates. Nine digits give every single-precision value exactly. A moved
// value was computed in double precision and needs all digits of it.
std::string boundText(double value, double move) {
    return move == 0.0 ? fmt::format("{:.9g}", value) : fmt::format("{}", value - move);
}

// The bounds to recommend for a scene: the measured box. |minx| and |maxx| are raised where the converter
// would take them as not stated.
std::string boundsAdvice(const Plan& plan) {
    constexpr double leastMin = 0.01; // |minx| above 0.001 counts
    constexpr double leastMax = 0.2;  // |maxx| above 0.1 counts
    const Box& box = plan.extent;
    const double minx = std::abs(box.min[0]) < leastMin ? -leastMin : box.min[0];
    const double maxx = std::abs(box.max[0]) < leastMax ? leastMax : box.max[0];
    std::string advice;
    const std::array<double, 3> mins = {minx, box.min[1], box.min[2]};
    const std::array<double, 3> maxs = {maxx, box.max[1], box.max[2]};
    for (std::size_t axis = 0; axis < axes.size(); ++axis) {
        advice += fmt::format(", \"comment min{} {}\"", axes[axis], boundText(mins[axis], plan.move[axis]));
    }
    for (std::size_t axis = 0; axis < axes.size(); ++axis) {
        advice += fmt::format(", \"comment max{} {}\"", axes[axis], boundText(maxs[axis], plan.move[axis]));
    }
    return advice.substr(2);
}

void remarkBounds(const Plan& plan, Warnings& warnings) {
    const SplatStream::Measured& measured = plan.measured;
    const bool isGridUsable = plan.grid.oneCell || plan.grid.countable();
    const std::uint64_t leftOut = isGridUsable ? measured.leftOut : 0;
    const std::string loss = leftOut > 0 ? fmt::format(" and {} left out of the dataset",
                                                       countText(leftOut, "splat is", "splats are"))
                                         : "";
    if (measured.isBoxStated && measured.outside > 0) {
        warnings.add(fmt::format("{}: {} outside the bounds that the comments state{}: state {}", plan.input,
                                 countText(measured.outside, "splat lies", "splats lie"), loss,
                                 boundsAdvice(plan)));
    } else if (leftOut > 0) {
        warnings.add(fmt::format("{}: the box has no usable grid{}: state bounds that hold the scene",
                                 plan.input, loss));
    }
}

void remarkPrecision(const Plan& plan, Warnings& warnings) {
    const Point& steps = plan.positionStep;
    const auto worst = static_cast<std::size_t>(std::ranges::max_element(steps) - steps.begin());
    if (steps[worst] > centimetre) {
        warnings.add(fmt::format(
            "{}: {} reaches {:.9g}, where single precision steps by {:.3g}: export positions in "
            "double, or subtract an offset from them and state it",
            plan.input, axes[worst],
            std::max(std::abs(plan.extent.min[worst]), std::abs(plan.extent.max[worst])), steps[worst]));
    }
}

void remarkGrid(const Plan& plan, Warnings& warnings) {
    if (!plan.grid.oneCell && !plan.grid.countable()) {
        warnings.add(
            fmt::format("{}: the box is too wide for a grid: remove splats that lie far off, or state bounds "
                        "in comment lines",
                        plan.input));
    }
    const std::array<std::pair<char, std::int64_t>, 2> counts = {
        {{'X', plan.grid.countX}, {'Y', plan.grid.countY}}};
    for (const auto& [axis, count] : counts) {
        if (count > mostColumns) {
            warnings.add(fmt::format(
                "{}: {} cells on the {} axis, but keys tell only {} apart, so cells run into each "
                "other: remove splats that lie far off, or state bounds in comment lines",
                plan.input, countText(static_cast<std::uint64_t>(count)), axis, countText(mostColumns)));
        }
    }
    if (plan.largestCell > fullestCell) {
        warnings.add(fmt::format("{}: one cell holds {} splats, but 32 bits count the bytes of only {}: "
                                 "check that your viewer opens it, or thin the scene out",
                                 plan.input, countText(plan.largestCell), countText(fullestCell)));
    }
}

} // namespace

Point positionSteps(const Box& box) {
    Point steps = {};
    for (std::size_t axis = 0; axis < steps.size(); ++axis) {
        const auto largest = static_cast<float>(std::max(std::abs(box.min[axis]), std::abs(box.max[axis])));
        steps[axis] =
            std::isfinite(largest) ? double{std::nextafter(largest, INFINITY)} - double{largest} : 0.0;
    }
    return steps;
}

void remarkPlan(const Plan& plan, Warnings& warnings) {
    if (const std::string dropped = droppedText(plan.ledger); !dropped.empty()) {
        warnings.add(fmt::format("{}: {}", plan.input, dropped));
    }
    remarkBounds(plan, warnings);
    remarkPrecision(plan, warnings);
    remarkGrid(plan, warnings);
}

} // namespace Tavrin::SplatProgram
