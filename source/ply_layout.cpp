#include "source/ply_layout.h"

#include "source/record_properties.h"
#include "source/text.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <map>
#include <set>

namespace Tavrin::SplatSource {
namespace {

using GaussionSplat::recordLayout;

constexpr std::string_view restPrefix = "f_rest_";
constexpr std::array<const char*, 3> colourBytes = {"red", "green", "blue"};

// The number N of a property f_rest_N, written without leading zeros; nothing for another name.
std::optional<std::uint64_t> restNumber(std::string_view name) {
    if (!name.starts_with(restPrefix)) {
        return std::nullopt;
    }
    name.remove_prefix(restPrefix.size());
    std::uint64_t number = 0;
    const auto [stop, error] = std::from_chars(name.data(), name.data() + name.size(), number);
    const bool isPlain = error == std::errc() && stop == name.data() + name.size() &&
                         (name.size() == 1 || name.front() != '0');
    return isPlain ? std::optional(number) : std::nullopt;
}

// The names of a canonical record of this degree, in order. `perChannel` coefficients of each channel are in
// the file; places without one are empty.
std::vector<std::string> recordNames(int degree, std::uint64_t perChannel) {
    using namespace GaussionSplat;
    std::vector<std::string> names = recordProperties(degree > 0);
    for (std::size_t channel = 0; degree > 0 && channel < 3; ++channel) {
        for (std::uint64_t i = 0; i < coefficientsPerChannel; ++i) {
            names[coefficientsAt + channel * coefficientsPerChannel + i] =
                i < perChannel ? fmt::format("f_rest_{}", channel * perChannel + i) : "";
        }
    }
    return names;
}

class LayoutReader {
public:
    LayoutReader(const PlyHeader& header, const std::string& name) : header_(header), name_(name) {}

    SplatLayout read() {
        vertex_ = header_.find("vertex");
        if (vertex_ == nullptr) {
            fail(header_.lines.size(), "not a splat file: the header has no element vertex");
        }
        placeColumns();
        requireSplats();
        const std::uint64_t coefficients = countCoefficients();
        layout_.degree = degreeOf(coefficients);
        const std::vector<std::string> names = recordNames(layout_.degree, coefficients / 3);
        fill(names);
        remark(names);
        const bool isOrdered = vertex_->properties.size() == names.size() &&
                               std::ranges::equal(vertex_->properties, names, {}, &PlyProperty::name);
        const auto isFloat = [](const PlyProperty& property) {
            return !property.isList() && property.type == Scalar::float32;
        };
        layout_.isCanonical = isOrdered && std::ranges::all_of(vertex_->properties, isFloat);
        return std::move(layout_);
    }

private:
    [[noreturn]] void fail(std::size_t line, const std::string& what) const {
        throw SourceError(fmt::format("{}:{}: {}", name_, line, what));
    }

    bool has(const std::string& name) const { return columns_.contains(name); }

    void placeColumns() {
        for (const PlyProperty& property : vertex_->properties) {
            if (property.isList()) {
                layout_.hasLists = true;
                continue;
            }
            columns_[property.name] = {layout_.recordBytes, property.type};
            layout_.recordBytes += widthOf(property.type);
        }
    }

    // Throws if a property is missing, and names it. A file without any splat property is called what it
    // looks like.
    void requireSplats() const {
        std::vector<std::string> missing;
        for (const char* const name :
             {"x", "y", "z", "opacity", "scale_0", "scale_1", "rot_0", "rot_1", "rot_2", "rot_3"}) {
            if (!has(name)) {
                missing.emplace_back(name);
            }
        }
        if (!has("opacity") && !has("scale_0") && !has("rot_0")) {
            const bool hasFaces = header_.find("face") != nullptr;
            fail(vertex_->line,
                 fmt::format("{}, not splats: no opacity, no scale, no rotation: name the trained splats",
                             vertex_->properties.empty() ? "vertices without properties"
                             : hasFaces                  ? "a mesh"
                                                         : "a point cloud"));
        }
        if (missing.empty() && !hasColour()) {
            missing = {"f_dc_0", "f_dc_1", "f_dc_2"};
        }
        if (!missing.empty()) {
            for (const std::string& name : missing) {
                refuseList(name);
            }
            const bool isOne = missing.size() == 1;
            fail(vertex_->line,
                 fmt::format("not a splat file: the vertices have no {} {}: export the splats with {}",
                             isOne ? "property" : "properties", fmt::join(missing, ", "),
                             isOne ? "it" : "them"));
        }
    }

    // Throws if the property exists, but as a list.
    void refuseList(const std::string& name) const {
        const PlyProperty* const property = vertex_->find(name);
        if (property != nullptr) {
            fail(property->line, fmt::format("property {} is a list: expected a single number", name));
        }
    }

    bool hasColour() const {
        if (has("f_dc_0") && has("f_dc_1") && has("f_dc_2")) {
            return true;
        }
        return std::ranges::all_of(colourBytes, [&](const char* name) {
            const auto column = columns_.find(name);
            return column != columns_.end() && column->second.type == Scalar::uint8;
        });
    }

    // The number of coefficients, which must be numbered from 0 on without a gap.
    std::uint64_t countCoefficients() const {
        std::uint64_t count = 0;
        std::uint64_t largest = 0;
        for (const PlyProperty& property : vertex_->properties) {
            if (!property.name.starts_with(restPrefix) && property.name != "f_rest") {
                continue;
            }
            refuseList(property.isList() ? property.name : std::string());
            const std::optional<std::uint64_t> number = restNumber(property.name);
            if (!number) {
                fail(property.line,
                     fmt::format("property {} is not a coefficient: expected f_rest_0, f_rest_1 "
                                 "and so on",
                                 inQuotes(property.name)));
            }
            ++count;
            largest = std::max(largest, *number);
        }
        if (count > 0 && largest + 1 != count) {
            fail(vertex_->line, fmt::format("{} f_rest properties are numbered up to {}: expected 0 to {} "
                                            "without a gap",
                                            count, largest, count - 1));
        }
        return count;
    }

    // A degree has 3 * ((degree + 1)^2 - 1) coefficients. Those of degree 4 are dropped.
    int degreeOf(std::uint64_t coefficients) {
        for (std::uint64_t degree = 0; degree <= 4; ++degree) {
            if (coefficients == 3 * ((degree + 1) * (degree + 1) - 1)) {
                if (degree == 4) {
                    layout_.remarks.emplace_back(
                        "coefficients of degree 4 are dropped: a dataset holds degrees 1 to 3");
                }
                return static_cast<int>(std::min<std::uint64_t>(degree, 3));
            }
        }
        fail(vertex_->line,
             fmt::format("{} f_rest properties fit no degree: expected 0, 9, 24, 45 or 72", coefficients));
    }

    void fill(const std::vector<std::string>& names) {
        layout_.columns.resize(names.size());
        layout_.constants.resize(names.size(), 0.0f);
        for (std::size_t i = 0; i < names.size(); ++i) {
            const auto column = columns_.find(names[i]);
            if (column != columns_.end()) {
                layout_.columns[i] = column->second;
            }
        }
        for (std::size_t i = 0; i < 3; ++i) {
            const Scalar type = layout_.columns[GaussionSplat::positionAt + i]->type;
            layout_.isWide =
                layout_.isWide || type == Scalar::float64 || type == Scalar::int32 || type == Scalar::uint32;
        }
        layout_.hasColourBytes = !(has("f_dc_0") && has("f_dc_1") && has("f_dc_2"));
        for (std::size_t i = 0; layout_.hasColourBytes && i < colourBytes.size(); ++i) {
            layout_.columns[GaussionSplat::colourAt + i] = columns_.at(colourBytes[i]);
        }
        if (!has("scale_2")) {
            refuseList("scale_2");
            layout_.constants[recordLayout(layout_.degree > 0).scale + 2] = flatScale;
            layout_.remarks.emplace_back("flat splats without scale_2: their third axis gets a millionth of "
                                         "the scene's unit");
        }
    }

    void remark(const std::vector<std::string>& names) {
        if (layout_.hasColourBytes) {
            layout_.remarks.emplace_back("the vertices have no f_dc: their colours come from red, green and "
                                         "blue");
        }
        const std::set<std::string> taken(names.begin(), names.end());
        if (has("filter_3D") && !taken.contains("filter_3D")) {
            layout_.remarks.emplace_back(
                "the property filter_3D of an anti-aliased training is ignored: fuse "
                "it into scale and opacity before the export to keep its effect");
        }
    }

    const PlyHeader& header_;
    const std::string& name_;
    const PlyElement* vertex_ = nullptr;
    std::map<std::string, PlyColumn> columns_;
    SplatLayout layout_;
};

} // namespace

std::vector<std::string> canonicalNames(bool hasCoefficients) {
    return recordNames(hasCoefficients ? 3 : 0, GaussionSplat::coefficientsPerChannel);
}

bool isCompressedPly(const PlyHeader& header) {
    const PlyElement* const vertex = header.find("vertex");
    return vertex != nullptr && vertex->find("packed_position") != nullptr;
}

SplatLayout splatLayoutOf(const PlyHeader& header, const std::string& name) {
    return LayoutReader(header, name).read();
}

} // namespace Tavrin::SplatSource
