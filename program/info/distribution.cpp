#include "program/info/distribution.h"

#include <algorithm>
#include <cmath>

namespace Tavrin::SplatProgram {

namespace {
constexpr std::uint64_t fewRecords = 262'144; // a sample of all of them reads at most 65 MB
constexpr std::uint64_t sampleRuns = 4096;
constexpr std::uint64_t runLength = 16;
constexpr double lowShare = 0.01;
constexpr double highShare = 0.99;
} // namespace

void Series::sample(double value) {
    widen(value);
    if (std::isfinite(value)) {
        samples_.push_back(static_cast<float>(value));
    }
}

void Series::widen(double value) {
    if (!std::isfinite(value)) {
        ++notFinite_;
        return;
    }
    smallest_ = widened_ ? std::min(smallest_, value) : value;
    largest_ = widened_ ? std::max(largest_, value) : value;
    widened_ = true;
    ++seen_;
}

Distribution Series::finish() {
    Distribution result;
    result.name = name_;
    result.values = seen_;
    result.notFinite = notFinite_;
    result.smallest = smallest_;
    result.largest = largest_;
    if (samples_.empty()) {
        return result;
    }
    std::ranges::sort(samples_);
    const auto at = [this](double share) {
        const double place = share * static_cast<double>(samples_.size() - 1);
        return static_cast<double>(samples_[static_cast<std::size_t>(std::llround(place))]);
    };
    result.low = at(lowShare);
    result.median = at(0.5);
    result.high = at(highShare);
    const double width = result.high - result.low;
    const auto parts = static_cast<double>(result.bars.size());
    for (const float value : samples_) {
        if (value < result.low || value > result.high) {
            continue;
        }
        const double part = width > 0.0 ? (value - result.low) / width * parts : 0.0;
        ++result.bars[std::min(static_cast<std::size_t>(part), result.bars.size() - 1)];
    }
    return result;
}

std::vector<Distribution> finished(std::vector<Series>& series) {
    std::vector<Distribution> distributions;
    distributions.reserve(series.size());
    for (Series& one : series) {
        distributions.push_back(one.finish());
    }
    return distributions;
}

SamplePlan::SamplePlan(std::uint64_t all) : records(all) {
    const bool few = all <= fewRecords;
    runs = few ? (all > 0 ? 1 : 0) : sampleRuns;
    length = few ? all : runLength;
}

std::uint64_t SamplePlan::start(std::uint64_t run) const {
    if (runs <= 1) {
        return 0;
    }
    const double share = static_cast<double>(run) / static_cast<double>(runs - 1);
    return std::min(records - length,
                    static_cast<std::uint64_t>(share * static_cast<double>(records - length)));
}

std::string barsText(const Distribution& distribution, std::size_t count, bool blockElements) {
    constexpr std::array<const char*, 9> blocks = {" ", "▁", "▂", "▃", "▄", "▅", "▆", "▇", "█"};
    constexpr std::array<const char*, 9> ascii = {" ", ".", ":", "-", "=", "+", "*", "#", "@"};
    std::vector<std::uint32_t> bars(count);
    for (std::size_t i = 0; i < distribution.bars.size(); ++i) {
        bars[i * count / distribution.bars.size()] += distribution.bars[i];
    }
    const std::uint32_t most = std::max(1u, *std::ranges::max_element(bars));
    std::string text;
    for (const std::uint32_t bar : bars) {
        // A bar with any value gets at least the lowest mark.
        const double height = std::ceil(8.0 * bar / most);
        text += (blockElements ? blocks : ascii)[static_cast<std::size_t>(height)];
    }
    return text;
}

} // namespace Tavrin::SplatProgram
