// The distribution of an attribute: percentiles, a histogram, and which records are sampled for them.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace Tavrin::SplatProgram {

struct Distribution {
    static constexpr std::size_t parts = 16;

    std::string name;
    std::uint64_t values = 0;    // finite ones
    std::uint64_t notFinite = 0; // infinite or not a number
    double smallest = 0.0;
    double low = 0.0; // 1 % of the values lie below
    double median = 0.0;
    double high = 0.0; // 1 % of the values lie above
    double largest = 0.0;
    std::array<std::uint32_t, parts> bars{}; // counts in equal parts from `low` to `high`
};

// Collects the values of one attribute.
class Series {
public:
    explicit Series(std::string name) : name_(std::move(name)) {}

    // Counts the value for everything. Keeps it in memory.
    void sample(double value);
    // Counts the value for the smallest and largest only.
    void widen(double value);

    Distribution finish();

private:
    std::string name_;
    std::vector<float> samples_;
    std::uint64_t notFinite_ = 0;
    bool widened_ = false;
    double smallest_ = 0.0;
    double largest_ = 0.0;
    std::uint64_t seen_ = 0;
};

// The distributions of several attributes, in their order. Each series is finished.
std::vector<Distribution> finished(std::vector<Series>& series);

// The records to sample: `runs` runs of `length` consecutive records, evenly spread over all `records`. A
// small file is one run with all records.
struct SamplePlan {
    std::uint64_t runs = 0;
    std::uint64_t length = 0;
    std::uint64_t records = 0;

    explicit SamplePlan(std::uint64_t all);
    std::uint64_t start(std::uint64_t run) const;
    std::uint64_t samples() const { return runs * length; }
    bool everything() const { return samples() == records; }
};

// The bars as `count` characters: block elements, or ASCII characters from light to dark. `count` must divide
// Distribution::parts.
std::string barsText(const Distribution& distribution, std::size_t count, bool blockElements);

} // namespace Tavrin::SplatProgram
