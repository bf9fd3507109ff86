#include "program/scene/splat_layout.h"

#include <fmt/format.h>

#include <algorithm>
#include <set>
#include <string_view>

namespace Tavrin::SplatProgram {
namespace {

constexpr std::size_t coefficientCount = 45; // three colours times 15 of degree 1 to 3

std::vector<std::string> recordProperties(bool hasCoefficients) {
    std::vector<std::string> names = {"x", "y", "z", "nx", "ny", "nz", "f_dc_0", "f_dc_1", "f_dc_2"};
    for (std::size_t i = 0; hasCoefficients && i < coefficientCount; ++i) {
        names.push_back(fmt::format("f_rest_{}", i));
    }
    for (const char* name :
         {"opacity", "scale_0", "scale_1", "scale_2", "rot_0", "rot_1", "rot_2", "rot_3"}) {
        names.emplace_back(name);
    }
    return names;
}

class LayoutCheck {
public:
    explicit LayoutCheck(const PlyElement& vertex) : vertex_(vertex) {
        for (const PlyProperty& property : vertex.properties) {
            names_.insert(property.name);
            coefficients_ += property.name.starts_with("f_rest_") ? 1 : 0;
        }
    }

    bool hasCoefficients() const { return coefficients_ > 0; }

    std::optional<LayoutProblem> firstProblem() const {
        if (const std::string missing = missingSplatProperty(); !missing.empty()) {
            return LayoutProblem{
                vertex_.line,
                fmt::format("not a splat file: the vertices have no property {}; convert the trained "
                            "splats, not points, a mesh or a packed file",
                            missing)};
        }
        const std::vector<std::string> expected = recordProperties(hasCoefficients());
        const std::vector<PlyProperty>& found = vertex_.properties;
        for (std::size_t i = 0; i < std::min(expected.size(), found.size()); ++i) {
            if (auto problem = compare(i, found[i], expected[i])) {
                return problem;
            }
        }
        if (found.size() < expected.size()) {
            return LayoutProblem{found.back().line,
                                 fmt::format("the last property is {}, but {} must follow{}",
                                             found.back().name, expected[found.size()], layoutAdvice())};
        }
        if (found.size() > expected.size()) {
            const PlyProperty& extra = found[expected.size()];
            return LayoutProblem{extra.line,
                                 fmt::format("property {} follows rot_3, the last of a splat record: "
                                             "export without it",
                                             extra.name)};
        }
        return std::nullopt;
    }

private:
    std::string missingSplatProperty() const {
        for (const char* name : {"f_dc_0", "opacity", "scale_0", "rot_0"}) {
            if (!names_.contains(name)) {
                return name;
            }
        }
        return {};
    }

    std::optional<LayoutProblem> compare(std::size_t index, const PlyProperty& found,
                                         const std::string& expected) const {
        if (!found.countType.empty()) {
            return LayoutProblem{
                found.line,
                fmt::format("property {} is a list: a splat record holds only floats", found.name)};
        }
        if (found.name != expected) {
            return LayoutProblem{found.line,
                                 fmt::format("property {} is {}, expected {}{}", index + 1, found.name,
                                             expected, nameAdvice(found.name, expected))};
        }
        if (found.type != "float" && found.type != "float32") {
            return LayoutProblem{found.line,
                                 fmt::format("property {} has the type {}, expected float: export it in "
                                             "single precision",
                                             found.name, found.type)};
        }
        return std::nullopt;
    }

    // What to do when `expected` stands elsewhere or nowhere.
    std::string nameAdvice(const std::string& found, const std::string& expected) const {
        if (expected == "nx" && !names_.contains("nx")) {
            return " (no normals: export them, as zeros when there are none)";
        }
        const bool isAboutCoefficients = found.starts_with("f_rest_") || expected.starts_with("f_rest_");
        if (names_.contains(expected) && !(isAboutCoefficients && !layoutAdvice().empty())) {
            return " (other order: export x y z, nx ny nz, f_dc, f_rest, opacity, scale, rot and nothing "
                   "between)";
        }
        return layoutAdvice();
    }

    // Property counts that tell a degree: 3 * ((degree + 1)^2 - 1) coefficients.
    std::string layoutAdvice() const {
        if (coefficients_ == 0 || coefficients_ == coefficientCount) {
            return "";
        }
        for (std::size_t degree = 1; degree <= 4; ++degree) {
            if (coefficients_ == 3 * ((degree + 1) * (degree + 1) - 1)) {
                return fmt::format(
                    " ({} f_rest properties, spherical harmonics of degree {}: export with degree 3, "
                    "or with degree 0 and none)",
                    coefficients_, degree);
            }
        }
        return fmt::format(" ({} f_rest properties: export 45, or none)", coefficients_);
    }

    const PlyElement& vertex_;
    std::set<std::string> names_;
    std::size_t coefficients_ = 0;
};

} // namespace

LayoutResult splatLayoutOf(const PlyHeader& header) {
    const auto isVertex = [](const PlyElement& element) { return element.name == "vertex"; };
    const auto vertex = std::ranges::find_if(header.elements, isVertex);
    if (vertex == header.elements.end()) {
        return {{}, LayoutProblem{header.lines.size(), "not a splat file: the header has no element vertex"}};
    }
    const LayoutCheck check(*vertex);
    // A packed file has elements besides the vertices, but what matters is that its vertices are no splats.
    if (auto problem = check.firstProblem()) {
        return {{}, std::move(problem)};
    }
    for (auto element = header.elements.begin(); element != header.elements.end(); ++element) {
        if (element != vertex) {
            return {{},
                    LayoutProblem{element->line,
                                  fmt::format("element {} stands {} the vertices: export the vertices alone",
                                              element->name, element < vertex ? "before" : "after")}};
        }
    }
    return {SplatLayout{check.hasCoefficients() ? 62u : 17u}, std::nullopt};
}

} // namespace Tavrin::SplatProgram
