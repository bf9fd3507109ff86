#include "tests/support/plyvariant.h"

#include "tests/support/properties.h"

#include <algorithm>
#include <charconv>
#include <cstring>
#include <optional>

namespace support {

namespace {

// Places of the canonical record, in floats.
constexpr std::size_t normalAt = 3;
constexpr std::size_t colourAt = 6;
constexpr std::size_t restAt = 9;

struct Column {
    std::string name;
    std::string type;
    std::optional<std::size_t> place; // of the canonical record
};

std::vector<Column> columnsOf(const PlyVariant& variant) {
    const std::size_t opacityAt = variant.degree > 0 ? 54 : 9;
    std::vector<Column> columns;
    const auto add = [&](const std::string& name, std::size_t place) {
        columns.push_back({name, variant.type, place});
    };
    for (std::size_t i = 0; i < 3; ++i) {
        add(std::string(1, "xyz"[i]), i);
    }
    for (std::size_t i = 0; variant.hasNormals && i < 3; ++i) {
        add(std::string("n") + "xyz"[i], normalAt + i);
    }
    for (std::size_t i = 0; i < 3; ++i) {
        add("f_dc_" + std::to_string(i), colourAt + i);
    }
    const auto perChannel = static_cast<std::size_t>((variant.degree + 1) * (variant.degree + 1) - 1);
    for (std::size_t i = 0; i < 3 * perChannel; ++i) {
        columns.push_back({"f_rest_" + std::to_string(i), variant.type, std::nullopt});
        if (i % perChannel < 15) {
            columns.back().place = restAt + i / perChannel * 15 + i % perChannel;
        }
    }
    add("opacity", opacityAt);
    for (std::size_t i = 0; i < 3; ++i) {
        add("scale_" + std::to_string(i), opacityAt + 1 + i);
    }
    for (std::size_t i = 0; i < 4; ++i) {
        add("rot_" + std::to_string(i), opacityAt + 4 + i);
    }
    if (variant.order == PlyOrder::alphabetical) {
        std::ranges::sort(columns, {}, &Column::name);
    } else if (variant.order == PlyOrder::reversed) {
        std::ranges::reverse(columns);
    } else if (variant.order == PlyOrder::extraBetween) {
        columns.insert(columns.begin() + 2, {"label", "uchar", std::nullopt});
        columns.insert(columns.begin() + 9, {"time", "double", std::nullopt});
        columns.push_back({"filter_3D", "float", std::nullopt});
    }
    if (variant.hasListInside) {
        columns.insert(columns.begin() + 4, {"neighbours", "list uchar short", std::nullopt});
    }
    return columns;
}

class Body {
public:
    explicit Body(PlyForm form) : form_(form) {}

    template <typename Number>
    void put(Number value) {
        if (form_ == PlyForm::ascii) {
            char text[64];
            const auto end = std::to_chars(text, text + sizeof text, value).ptr;
            bytes.append(text, end);
            bytes += ++words_ % 7 == 0 ? "\r\n" : words_ % 3 == 0 ? "  " : " ";
            return;
        }
        char raw[sizeof value];
        std::memcpy(raw, &value, sizeof value);
        if (form_ == PlyForm::bigEndian) {
            std::reverse(raw, raw + sizeof value);
        }
        bytes.append(raw, sizeof value);
    }

    void putAs(const std::string& type, double value) {
        if (type == "uchar") {
            put(static_cast<std::uint8_t>(value));
        } else if (type == "char") {
            put(static_cast<std::int8_t>(value));
        } else if (type == "short") {
            put(static_cast<std::int16_t>(value));
        } else if (type == "ushort") {
            put(static_cast<std::uint16_t>(value));
        } else if (type == "int32") {
            put(static_cast<std::int32_t>(value));
        } else if (type == "float") {
            put(static_cast<float>(value));
        } else {
            put(value);
        }
    }

    std::string bytes;

private:
    PlyForm form_;
    std::size_t words_ = 0;
};

} // namespace

std::string variantFile(const PlyVariant& variant, const std::vector<float>& records) {
    const std::size_t floats = floatsOf(variant.degree > 0);
    const std::size_t splats = records.size() / floats;
    const std::vector<Column> columns = columnsOf(variant);
    const std::string end = variant.lineEnd;
    std::string header = "ply" + end + "comment made here" + end + "format " +
                         (variant.form == PlyForm::ascii       ? "ascii"
                          : variant.form == PlyForm::bigEndian ? "binary_big_endian"
                                                               : "binary_little_endian") +
                         " 1.0" + end;
    Body body(variant.form);
    if (variant.hasListBefore) {
        header += "element face 5" + end + "property list int uchar vertex_indices" + end +
                  "property short id" + end + "element nothing 4000000000" + end;
        for (int face = 0; face < 5; ++face) {
            body.put(std::int32_t{face});
            for (int i = 0; i < face; ++i) {
                body.put(std::uint8_t{13});
            }
            body.put(std::int16_t{-7});
        }
    }
    header += "element vertex " + std::to_string(splats) + end + "obj_info of the vertices" + end;
    for (const Column& column : columns) {
        header += "property " + column.type + " " + column.name + end;
    }
    header += "end_header" + end;
    for (std::size_t splat = 0; splat < splats; ++splat) {
        for (const Column& column : columns) {
            if (column.type.starts_with("list")) {
                body.put(static_cast<std::uint8_t>(splat % 3));
                for (std::size_t i = 0; i < splat % 3; ++i) {
                    body.put(std::int16_t{10});
                }
            } else {
                body.putAs(column.type, column.place ? records[splat * floats + *column.place] : 77.0);
            }
        }
    }
    return header + body.bytes;
}

} // namespace support
