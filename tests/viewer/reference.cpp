// reference DATASET COUNT: prints COUNT splats of a dataset, evenly spread over it, with the values of the
// C++ reader, one JSON object a line. The page's reader is compared with these values.
#include "reader/dataset.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <span>
#include <vector>

namespace {

using namespace Tavrin::SplatReader;

template <typename T>
void printList(const char* name, std::span<const T> values) {
    std::printf(", \"%s\": [", name);
    const char* separator = "";
    for (const T value : values) {
        std::printf("%s%.17g", separator, static_cast<double>(value));
        separator = ", ";
    }
    std::printf("]");
}

void print(const LoadedSplat& loaded, std::uint64_t numberInCell, bool coefficients) {
    const Splat& splat = loaded.splat;
    std::printf("{\"key\": %u, \"number\": %llu, \"record\": %llu, \"opacity\": %.17g", loaded.cellKey,
                static_cast<unsigned long long>(numberInCell), static_cast<unsigned long long>(loaded.index),
                splat.opacity);
    printList<float>("position", splat.position);
    printList<double>("colour", splat.colour);
    printList<double>("scale", splat.scale);
    printList<double>("rotation", splat.rotation);
    printList<double>("normal", splat.normal);
    printList<double>("coefficients", std::span(splat.coefficients).first(coefficients ? 45 : 0));
    std::printf("}\n");
}

} // namespace

int main(int argc, char** argv) {
    if (argc != 3) {
        std::fprintf(stderr, "usage: reference DATASET COUNT\n");
        return 1;
    }
    try {
        const Dataset dataset = Dataset::open(argv[1]);
        const std::vector<LoadedSplat> splats = loadWhole(dataset);
        const std::size_t count = std::min<std::size_t>(std::strtoull(argv[2], nullptr, 10), splats.size());
        std::size_t cellBegin = 0;
        std::size_t printed = 0;
        for (std::size_t i = 0; i < splats.size() && printed < count; ++i) {
            if (splats[i].cellKey != splats[cellBegin].cellKey) {
                cellBegin = i;
            }
            if (i == printed * splats.size() / count) {
                print(splats[i], i - cellBegin, dataset.meta().hasCoefficients());
                ++printed;
            }
        }
    } catch (const std::exception& error) {
        std::fprintf(stderr, "reference: %s\n", error.what());
        return 1;
    }
    return 0;
}
