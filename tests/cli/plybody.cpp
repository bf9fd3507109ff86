// plybody: writes the body for a PLY header to standard output.
//
//   plybody HEADER [AT_X,AT_Y,AT_Z]
//
// HEADER is a file that begins with a whole PLY header of any layout. The values make valid splats, also
// packed ones. Positions are evenly spread over 10 x 10 x 2 units from the corner AT, by default (1, 1, 1). A
// value depends only on the name of the property and the number of the record, so headers with the same
// properties in another order, type or format get the same splats.
#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

namespace {

struct Property {
    std::string type;
    std::string countType; // of a list; otherwise empty
    std::string name;
};

struct Element {
    std::uint64_t count = 0;
    std::vector<Property> properties;
};

struct Header {
    std::string format;
    std::vector<Element> elements;
};

Header readHeader(const char* path) {
    Header header;
    std::ifstream file(path, std::ios::binary);
    std::string line;
    while (std::getline(file, line)) {
        std::istringstream words(line);
        std::string first;
        std::string second;
        words >> first >> second;
        if (first == "end_header") {
            return header;
        }
        if (first == "format") {
            header.format = second;
        } else if (first == "element") {
            header.elements.emplace_back();
            words >> header.elements.back().count;
        } else if (first == "property") {
            Property property;
            if (second == "list") {
                words >> property.countType >> second;
            }
            property.type = second;
            words >> property.name;
            header.elements.back().properties.push_back(property);
        }
    }
    std::fprintf(stderr, "plybody: %s holds no whole PLY header\n", path);
    std::exit(1);
}

// Fractional parts of multiples of irrational numbers are evenly spread for any count.
double spread(std::uint64_t index, double step) {
    const double value = static_cast<double>(index) * step;
    return value - std::floor(value);
}

std::uint64_t hashOf(const std::string& name, std::uint64_t index) {
    std::uint64_t hash = 1469598103934665603u;
    for (const char c : name) {
        hash = (hash ^ static_cast<unsigned char>(c)) * 1099511628211u;
    }
    hash = (hash ^ index) * 0x9E3779B97F4A7C15u;
    return hash ^ hash >> 29;
}

// Other properties get a small integer, which every type can hold.
double valueOf(const std::string& name, std::uint64_t index, const std::array<double, 3>& at) {
    constexpr std::array<double, 3> steps = {0.6180339887498949, 0.4142135623730951, 0.7320508075688772};
    constexpr std::array<double, 3> sizes = {10.0, 10.0, 2.0};
    const std::uint64_t hash = hashOf(name, index);
    const double even = static_cast<double>(hash >> 40 & 0xFFFF) / 65536.0;
    for (std::size_t axis = 0; axis < 3; ++axis) {
        if (name == std::string(1, "xyz"[axis])) {
            return at[axis] + sizes[axis] * spread(index, steps[axis]);
        }
    }
    if (name.starts_with("packed_")) {
        return static_cast<double>(hash >> 32);
    }
    if (name.starts_with("min_") || name.starts_with("max_")) { // of a chunk
        const double most = name.starts_with("max_") ? 1.0 : 0.0;
        return name.find("scale") != std::string::npos ? -6.0 + 3.0 * most : most * 10.0;
    }
    if (name == "nx" || name == "ny" || name == "nz") {
        return 0.0;
    }
    if (name == "opacity") {
        return 6.0 * even - 2.0;
    }
    if (name.starts_with("scale_")) {
        return -6.0 + 3.0 * even;
    }
    if (name.starts_with("rot_")) {
        return 0.1 + even;
    }
    if (name.starts_with("f_")) {
        return even - 0.5;
    }
    return static_cast<double>(hash >> 40 & 0x7F);
}

class Writer {
public:
    explicit Writer(const std::string& format)
        : isText_(format == "ascii"), isSwapped_(format == "binary_big_endian") {}

    void put(const std::string& type, double value) {
        if (type == "char" || type == "int8") {
            write(static_cast<std::int8_t>(value));
        } else if (type == "uchar" || type == "uint8") {
            // Includes coefficients of a packed file.
            write(static_cast<std::uint8_t>(value < 1.0 ? 255.0 * (value - std::floor(value)) : value));
        } else if (type == "short" || type == "int16") {
            write(static_cast<std::int16_t>(value));
        } else if (type == "ushort" || type == "uint16") {
            write(static_cast<std::uint16_t>(value));
        } else if (type == "int" || type == "int32") {
            write(static_cast<std::int32_t>(value));
        } else if (type == "uint" || type == "uint32") {
            write(static_cast<std::uint32_t>(value));
        } else if (type == "float" || type == "float32") {
            write(static_cast<float>(value));
        } else {
            write(value);
        }
    }

    void endRow() {
        if (isText_) {
            std::fputc('\n', stdout);
        }
    }

private:
    template <typename Number>
    void write(Number value) {
        char bytes[64];
        std::size_t size = sizeof value;
        if (isText_) {
            char* const end = std::to_chars(bytes, bytes + sizeof bytes - 1, value).ptr;
            *end = ' ';
            size = static_cast<std::size_t>(end - bytes) + 1;
        } else {
            std::memcpy(bytes, &value, size);
            if (isSwapped_) {
                std::reverse(bytes, bytes + size);
            }
        }
        std::fwrite(bytes, 1, size, stdout);
    }

    bool isText_;
    bool isSwapped_;
};

} // namespace

int main(int argc, char** argv) {
    constexpr int listItems = 3;
    if (argc < 2) {
        return 1;
    }
    std::array<double, 3> at = {1.0, 1.0, 1.0};
    if (argc > 2) {
        char* end = argv[2];
        for (double& coordinate : at) {
            coordinate = std::strtod(end, &end);
            end += *end == ',' ? 1 : 0;
        }
    }
    const Header header = readHeader(argv[1]);
    Writer writer(header.format);
    for (const Element& element : header.elements) {
        for (std::uint64_t i = 0; i < element.count && !element.properties.empty(); ++i) {
            for (const Property& property : element.properties) {
                const int items = property.countType.empty() ? 1 : listItems;
                if (!property.countType.empty()) {
                    writer.put(property.countType, items);
                }
                for (int item = 0; item < items; ++item) {
                    writer.put(property.type, valueOf(property.name, i, at));
                }
            }
            writer.endRow();
        }
    }
    return std::fflush(stdout) == 0 && std::ferror(stdout) == 0 ? 0 : 1;
}
