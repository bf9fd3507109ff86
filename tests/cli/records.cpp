// records: writes splat records for tests, or the property lines of their header, to standard output.
//
//   records FLOATS COUNT [WIDTH DEPTH] [INDEX:X,Y,Z]...
//   records FLOATS properties
//
// FLOATS is 62 or 17. The splats are evenly spread over [1, 1 + WIDTH) x [1, 1 + DEPTH) x [1, 3), by default
// 10 x 10 x 2, except those given with their index. The same arguments give the same bytes.
#include "tests/support/properties.h"

#include <array>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace {

using Position = std::array<float, 3>;

// Fractional parts of multiples of irrational numbers are evenly spread for any count.
float spread(std::uint64_t index, double step) {
    const double value = static_cast<double>(index) * step;
    return static_cast<float>(value - std::floor(value));
}

void fillRecord(std::uint64_t index, const Position& position, std::vector<float>& record) {
    std::memcpy(record.data(), position.data(), sizeof position);
    const std::size_t opacityAt = record.size() - 8;
    for (std::size_t i = 6; i < opacityAt; ++i) {
        record[i] = spread(index + 97 * i, 0.7548776662466927) - 0.5f;
    }
    record[opacityAt] = 6.0f * spread(index, 0.5698402909980532) - 2.0f;
    for (std::size_t axis = 0; axis < 3; ++axis) {
        record[opacityAt + 1 + axis] = -6.0f + 3.0f * spread(index + axis, 0.8191725133961645);
    }
    for (std::size_t i = 0; i < 4; ++i) {
        record[opacityAt + 4 + i] = 0.1f + spread(index + 13 * i, 0.6710436067037893);
    }
}

struct Options {
    std::size_t floats = 0;
    std::uint64_t count = 0;
    float width = 10.0f;
    float depth = 10.0f;
    std::map<std::uint64_t, Position> named;
};

Options read(const std::vector<std::string>& words) {
    Options options;
    options.floats = std::stoul(words.at(0));
    options.count = std::stoull(words.at(1));
    std::vector<float> sizes;
    for (std::size_t i = 2; i < words.size(); ++i) {
        const std::size_t colon = words[i].find(':');
        if (colon == std::string::npos) {
            sizes.push_back(std::stof(words[i]));
            continue;
        }
        Position& position = options.named[std::stoull(words[i])];
        const char* at = words[i].c_str() + colon;
        for (float& coordinate : position) {
            char* end = nullptr;
            coordinate = std::strtof(at + 1, &end);
            at = end;
        }
    }
    if (sizes.size() == 2) {
        options.width = sizes[0];
        options.depth = sizes[1];
    }
    return options;
}

} // namespace

int main(int argc, char** argv) {
    if (argc == 3 && std::string_view(argv[2]) == "properties") {
        for (const std::string& name : support::propertyNames(std::stoul(argv[1]) == support::floatsWith)) {
            std::printf("property float %s\n", name.c_str());
        }
        return 0;
    }
    const Options options = read({argv + 1, argv + argc});
    std::vector<float> record(options.floats);
    for (std::uint64_t i = 0; i < options.count; ++i) {
        Position position = {1.0f + options.width * spread(i, 0.6180339887498949),
                             1.0f + options.depth * spread(i, 0.4142135623730951),
                             1.0f + 2.0f * spread(i, 0.7320508075688772)};
        if (const auto named = options.named.find(i); named != options.named.end()) {
            position = named->second;
        }
        fillRecord(i, position, record);
        if (std::fwrite(record.data(), sizeof(float), record.size(), stdout) != record.size()) {
            return 1;
        }
    }
    return std::fflush(stdout) == 0 ? 0 : 1;
}
