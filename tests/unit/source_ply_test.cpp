// PLY files of every layout against the canonical records that they stand for.

#include "source/open.h"
#include "source/ply.h"
#include "tests/support/files.h"
#include "tests/support/plyfile.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <charconv>
#include <cstring>
#include <numeric>
#include <optional>
#include <string>
#include <vector>

namespace {

using namespace Tavrin;
using support::PlyFile;
using support::Scratch;

constexpr std::size_t splats = 2500; // several windows and places of an index

enum class Order { canonical, alphabetical, reversed, extraBetween };
enum class Form { ascii, littleEndian, bigEndian };

struct Variant {
    Form form = Form::littleEndian;
    Order order = Order::canonical;
    const char* type = "float"; // of all columns of the splats
    int degree = 3;
    bool hasNormals = true;
    bool hasListBefore = false; // an element with a list in front of the vertices
    bool hasListInside = false; // a list among the vertex properties
    const char* lineEnd = "\n";
};

// Values that every type and every way to write them holds: small whole numbers and quarters.
std::vector<float> recordsOf(int degree) {
    const GaussionSplat::RecordLayout& layout = GaussionSplat::recordLayout(degree > 0);
    const std::size_t taken =
        static_cast<std::size_t>((std::min(degree, 3) + 1) * (std::min(degree, 3) + 1) - 1);
    std::vector<float> records(splats * layout.floats);
    support::Random random(7);
    for (std::size_t i = 0; i < records.size(); ++i) {
        const std::size_t place = i % layout.floats;
        const bool isNormal = place >= GaussionSplat::normalAt && place < GaussionSplat::colourAt;
        const bool isRest = degree > 0 && place >= GaussionSplat::shcoefAt && place < layout.opacity;
        const bool isThere = !isRest || (place - GaussionSplat::shcoefAt) % 15 < taken;
        records[i] = isNormal || !isThere ? 0.0f : static_cast<float>(random.next() % 120) - 20.0f;
    }
    return records;
}

struct Column {
    std::string name;
    std::string type;
    std::optional<std::size_t> place; // of the canonical record
};

std::vector<Column> columnsOf(const Variant& variant) {
    const GaussionSplat::RecordLayout& layout = GaussionSplat::recordLayout(variant.degree > 0);
    std::vector<Column> columns;
    const auto add = [&](const std::string& name, std::size_t place) {
        columns.push_back({name, variant.type, place});
    };
    for (std::size_t i = 0; i < 3; ++i) {
        add(std::string(1, "xyz"[i]), i);
    }
    for (std::size_t i = 0; variant.hasNormals && i < 3; ++i) {
        add(std::string("n") + "xyz"[i], GaussionSplat::normalAt + i);
    }
    for (std::size_t i = 0; i < 3; ++i) {
        add("f_dc_" + std::to_string(i), GaussionSplat::colourAt + i);
    }
    const auto perChannel = static_cast<std::size_t>((variant.degree + 1) * (variant.degree + 1) - 1);
    for (std::size_t i = 0; i < 3 * perChannel; ++i) {
        columns.push_back({"f_rest_" + std::to_string(i), variant.type, std::nullopt});
        if (i % perChannel < 15) {
            columns.back().place = GaussionSplat::shcoefAt + i / perChannel * 15 + i % perChannel;
        }
    }
    add("opacity", layout.opacity);
    for (std::size_t i = 0; i < 3; ++i) {
        add("scale_" + std::to_string(i), layout.scale + i);
    }
    for (std::size_t i = 0; i < 4; ++i) {
        add("rot_" + std::to_string(i), layout.rotation + i);
    }
    if (variant.order == Order::alphabetical) {
        std::ranges::sort(columns, {}, &Column::name);
    } else if (variant.order == Order::reversed) {
        std::ranges::reverse(columns);
    } else if (variant.order == Order::extraBetween) {
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
    explicit Body(Form form) : form_(form) {}

    template <typename Number>
    void put(Number value) {
        if (form_ == Form::ascii) {
            char text[64];
            const auto end = std::to_chars(text, text + sizeof text, value).ptr;
            bytes.append(text, end);
            bytes += ++words_ % 7 == 0 ? "\r\n" : words_ % 3 == 0 ? "  " : " ";
            return;
        }
        char raw[sizeof value];
        std::memcpy(raw, &value, sizeof value);
        if (form_ == Form::bigEndian) {
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
    Form form_;
    std::size_t words_ = 0;
};

std::string fileOf(const Variant& variant, const std::vector<float>& records) {
    const std::size_t floats = GaussionSplat::recordLayout(variant.degree > 0).floats;
    const std::vector<Column> columns = columnsOf(variant);
    const std::string end = variant.lineEnd;
    std::string header = "ply" + end + "comment made here" + end + "format " +
                         (variant.form == Form::ascii       ? "ascii"
                          : variant.form == Form::bigEndian ? "binary_big_endian"
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

std::string nameOf(const Variant& variant) {
    return "form " + std::to_string(static_cast<int>(variant.form)) + ", order " +
           std::to_string(static_cast<int>(variant.order)) + ", type " + variant.type + ", degree " +
           std::to_string(variant.degree) + (variant.hasNormals ? "" : ", no normals") +
           (variant.hasListBefore ? ", list before" : "") + (variant.hasListInside ? ", list inside" : "");
}

void expectRecords(const Variant& variant) {
    SCOPED_TRACE(nameOf(variant));
    const Scratch scratch;
    const std::vector<float> records = recordsOf(variant.degree);
    support::writeFile(scratch / "scene.ply", fileOf(variant, records));
    SplatSource::OpenOptions options;
    options.threads = 2;
    const auto input = SplatSource::openSource(scratch / "scene.ply", options);
    ASSERT_EQ(input->count, splats);
    ASSERT_EQ(input->hasCoefficients, variant.degree > 0);
    std::vector<float> read(records.size());
    const std::size_t floats = GaussionSplat::recordLayout(variant.degree > 0).floats;
    input->read(0, splats, read.data());
    EXPECT_EQ(read, records);
    // From inside, as workers read.
    for (const std::size_t first : {1u, 1023u, 1024u, 1500u, 2499u}) {
        std::fill(read.begin(), read.end(), -1.0f);
        const std::size_t size = std::min<std::size_t>(700, splats - first);
        std::vector<double> positions(3 * size);
        input->readWide(first, size, read.data(), positions.data());
        EXPECT_TRUE(std::equal(read.begin(), read.begin() + static_cast<std::ptrdiff_t>(size * floats),
                               records.begin() + static_cast<std::ptrdiff_t>(first * floats)));
        EXPECT_EQ(positions[3 * size - 1], records[(first + size - 1) * floats + 2]);
    }
}

TEST(PlyInput, ReadsEveryLayoutTypeDegreeAndByteOrder) {
    for (const Form form : {Form::ascii, Form::littleEndian, Form::bigEndian}) {
        for (const Order order :
             {Order::canonical, Order::alphabetical, Order::reversed, Order::extraBetween}) {
            for (const char* const type : {"float", "double", "short", "int32", "char"}) {
                for (const int degree : {0, 1, 2, 3, 4}) {
                    expectRecords({.form = form, .order = order, .type = type, .degree = degree});
                }
            }
        }
    }
}

TEST(PlyInput, ReadsFilesWithoutNormalsWithListsAndOtherLineEnds) {
    for (const Form form : {Form::ascii, Form::littleEndian, Form::bigEndian}) {
        for (const int degree : {0, 3}) {
            expectRecords({.form = form, .degree = degree, .hasNormals = false});
            expectRecords({.form = form, .degree = degree, .hasListBefore = true});
            expectRecords({.form = form, .degree = degree, .hasListInside = true});
            expectRecords({.form = form, .degree = degree, .hasListBefore = true, .hasListInside = true});
            expectRecords({.form = form, .degree = degree, .lineEnd = "\r\n"});
            expectRecords({.form = form, .degree = degree, .lineEnd = "\r"});
        }
    }
}

// Bits of what is no number are kept, in place and moved.
TEST(PlyInput, KeepsTheBitsOfFloats) {
    const Scratch scratch;
    PlyFile file;
    file.coefficients = true;
    support::Random random(3);
    for (int i = 0; i < 300; ++i) {
        file.add(support::awkwardSplat(random));
    }
    file.write(scratch / "canonical.ply");
    const auto canonical = SplatSource::openSource(scratch / "canonical.ply", {});
    EXPECT_TRUE(canonical->isCanonical);
    std::vector<float> read(file.records.size());
    canonical->read(0, 300, read.data());
    EXPECT_EQ(std::memcmp(read.data(), file.records.data(), read.size() * sizeof(float)), 0);
    std::string bytes = file.bytes();
    const std::string line = "property float rot_3\n";
    const std::size_t at = bytes.find(line);
    bytes.replace(bytes.find("property float x\n"), 17, line)
        .replace(at + 4, line.size(), "property float x\n");
    support::writeFile(scratch / "swapped.ply", bytes);
    const auto swapped = SplatSource::openSource(scratch / "swapped.ply", {});
    std::vector<float> moved(file.records.size());
    swapped->read(0, 300, moved.data());
    for (std::size_t i = 0; i < 300; ++i) {
        std::swap(moved[i * 62], moved[i * 62 + 61]);
    }
    EXPECT_EQ(std::memcmp(moved.data(), file.records.data(), read.size() * sizeof(float)), 0);
}

// What a file that holds `text` after a header of these lines is refused with.
std::string refusalOf(const std::string& text) {
    const Scratch scratch;
    support::writeFile(scratch / "scene.ply", text);
    try {
        SplatSource::openSource(scratch / "scene.ply", {});
    } catch (const SplatSource::SourceError& error) {
        return std::string(error.what()).substr(support::textOf(scratch / "scene.ply").size());
    }
    return {};
}

TEST(PlyInput, SaysWhatAFileLooksLike) {
    EXPECT_NE(refusalOf("glTF\2\0\0\0").find("a glTF file"), std::string::npos);
    EXPECT_NE(refusalOf("PK\3\4....").find("a zip archive"), std::string::npos);
    EXPECT_NE(
        refusalOf("ply\nformat ascii 1.0\nelement vertex 1\nproperty float x\nproperty float y\nproperty "
                  "float z\nend_header\n1 2 3\n")
            .find("a point cloud, not splats: no opacity, no scale"),
        std::string::npos);
}

} // namespace
