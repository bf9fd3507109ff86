// generations: compares the stored integers of two datasets, splat by splat in file order.
//
//   generations OLD NEW
//
// Prints for each attribute the share of values that changed and the largest change in quantiser steps. Ends
// with 1 when a position differs in a bit, when a value changed by more than one step, or when the counts
// differ.
#include "reader/dataset.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <map>
#include <string>

namespace {

using namespace Tavrin::SplatReader;

struct Moves {
    std::uint64_t values = 0;
    std::uint64_t moved = 0;
    std::uint32_t farthest = 0;
};

class Comparison {
public:
    void add(const char* attribute, std::uint32_t before, std::uint32_t after) {
        Moves& moves = moves_[attribute];
        const std::uint32_t distance = before > after ? before - after : after - before;
        ++moves.values;
        moves.moved += distance > 0 ? 1u : 0u;
        moves.farthest = std::max(moves.farthest, distance);
    }

    void addRotations(std::uint32_t before, std::uint32_t after) {
        const RotationWord old = unpackRotationWord(before);
        const RotationWord now = unpackRotationWord(after);
        if (old.largest != now.largest) {
            add("rotation", 0, Format::rotationMaximum); // the parts belong to other components
            return;
        }
        for (std::size_t i = 0; i < 3; ++i) {
            add("rotation", old.component[i], now.component[i]);
        }
    }

    void addCoefficients(const std::byte* before, const std::byte* after) {
        for (std::size_t k = 0; k < Format::coefficientsPerChannel; ++k) {
            const CoefficientWord old = unpackCoefficientWord(loadUnsigned<std::uint32_t>(before + 4 * k));
            const CoefficientWord now = unpackCoefficientWord(loadUnsigned<std::uint32_t>(after + 4 * k));
            for (std::size_t channel = 0; channel < 3; ++channel) {
                add("coefficients", old.channel[channel], now.channel[channel]);
            }
        }
    }

    bool print() const {
        bool close = true;
        for (const auto& [attribute, moves] : moves_) {
            const double share = 100.0 * static_cast<double>(moves.moved) / static_cast<double>(moves.values);
            std::printf("%-12s %10llu values, %8.4f %% moved, by %u at most\n", attribute.c_str(),
                        static_cast<unsigned long long>(moves.values), share, moves.farthest);
            close = close && moves.farthest <= 1;
        }
        return close;
    }

private:
    std::map<std::string, Moves> moves_;
};

bool compare(const Dataset& old, const Dataset& now) {
    if (old.recordCount() != now.recordCount() || old.coefficientSize() != now.coefficientSize()) {
        std::printf("%llu and %llu records\n", static_cast<unsigned long long>(old.recordCount()),
                    static_cast<unsigned long long>(now.recordCount()));
        return false;
    }
    Comparison comparison;
    RecordCursor olds = old.records(0, old.recordCount());
    RecordCursor nows = now.records(0, now.recordCount());
    RecordCursor::View a{};
    RecordCursor::View b{};
    while (olds.next(a) && nows.next(b)) {
        if (std::memcmp(a.data, b.data, 12) != 0) {
            std::printf("the position of record %llu differs\n", static_cast<unsigned long long>(a.index));
            return false;
        }
        const Record before = loadRecord(a.data);
        const Record after = loadRecord(b.data);
        for (std::size_t axis = 0; axis < 3; ++axis) {
            comparison.add("colour", before.colour[axis], after.colour[axis]);
            comparison.add("scale", before.scale[axis], after.scale[axis]);
            comparison.add("normal", before.normal[axis], after.normal[axis]);
        }
        comparison.add("opacity", before.opacity, after.opacity);
        comparison.addRotations(before.rotation, after.rotation);
        if (a.coefficients != nullptr) {
            comparison.addCoefficients(a.coefficients, b.coefficients);
        }
    }
    return comparison.print();
}

} // namespace

int main(int argc, char** argv) {
    try {
        return argc == 3 && compare(Dataset::open(argv[1]), Dataset::open(argv[2])) ? EXIT_SUCCESS
                                                                                    : EXIT_FAILURE;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "generations: %s\n", error.what());
        return EXIT_FAILURE;
    }
}
