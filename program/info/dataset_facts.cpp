#include "program/info/dataset_facts.h"

#include "program/system/interrupt.h"
#include "program/system/platform.h"

#include <algorithm>
#include <cmath>

namespace Tavrin::SplatProgram {
namespace {

using SplatReader::Dequantiser;
namespace Format = SplatReader::Format;

constexpr std::array<const char*, 20> seriesNames = {
    "x",          "y",          "z",          "normal x",   "normal y",     "normal z",   "red",
    "green",      "blue",       "opacity",    "scale x",    "scale y",      "scale z",    "rotation w",
    "rotation x", "rotation y", "rotation z", "shcoef red", "shcoef green", "shcoef blue"};

class ValueReader {
public:
    explicit ValueReader(const SplatReader::Dataset& dataset) : dataset_(dataset) {
        const std::size_t used = dataset.coefficientSize() > 0 ? seriesNames.size() : seriesNames.size() - 3;
        for (std::size_t i = 0; i < used; ++i) {
            series_.emplace_back(seriesNames[i]);
        }
    }

    template <typename Take>
    void read(const SplatReader::RecordCursor::View& view, Take take) {
        SplatReader::Splat splat = dataset_.dequantiser().splat(SplatReader::loadRecord(view.data));
        std::size_t next = 0;
        const auto put = [&](double value) { take(series_[next++], value); };
        for (const float value : splat.position) {
            put(value);
        }
        for (const double value : splat.normal) {
            put(value);
        }
        for (const double value : splat.colour) {
            put(value);
        }
        put(splat.opacity);
        for (const double value : splat.scale) {
            put(value);
        }
        for (const double value : splat.rotation) {
            put(value);
        }
        if (view.coefficients != nullptr) {
            dataset_.dequantiser().coefficients(view.coefficients, splat);
            for (std::size_t i = 0; i < splat.coefficients.size(); ++i) {
                take(series_[next + i / SplatReader::Format::coefficientsPerChannel], splat.coefficients[i]);
            }
        }
    }

    std::vector<Distribution> finish() { return finished(series_); }

private:
    const SplatReader::Dataset& dataset_;
    std::vector<Series> series_;
};

constexpr auto sampleValue = [](Series& series, double value) { series.sample(value); };
constexpr auto widenSeries = [](Series& series, double value) { series.widen(value); };

void readValues(DatasetFacts& facts, bool scan, const ScanProgress& progress) {
    constexpr std::size_t runWindow = 4096; // bytes; a run is short
    const SplatReader::Dataset& dataset = facts.dataset;
    const std::uint64_t records = dataset.recordCount();
    const SamplePlan plan(records);
    ValueReader values(dataset);
    SplatReader::RecordCursor::View view{};
    std::uint64_t next = 0; // record of `all`
    SplatReader::RecordCursor all = dataset.records(0, scan ? records : 0);
    for (std::uint64_t run = 0; run < plan.runs; ++run) {
        throwIfInterrupted();
        const std::uint64_t start = plan.start(run);
        progress(static_cast<double>(start) / static_cast<double>(records));
        if (!scan) {
            const std::size_t window = plan.runs == 1 ? SplatReader::windowSize : runWindow;
            SplatReader::RecordCursor cursor = dataset.records(start, plan.length, window);
            while (cursor.next(view)) {
                values.read(view, sampleValue);
            }
            continue;
        }
        while (next < start + plan.length && all.next(view)) {
            ++next;
            if (view.index < start) {
                values.read(view, widenSeries);
            } else {
                values.read(view, sampleValue);
            }
        }
    }
    facts.scanned = scan || plan.everything();
    facts.sampled = plan.samples();
    facts.attributes = values.finish();
}

QuantiserFacts quantiserFacts(const char* name, const SplatReader::Range& range, std::vector<double> step) {
    QuantiserFacts facts{name, {}, {}, std::move(step)};
    facts.min.assign(range.min.begin(), range.min.begin() + static_cast<std::ptrdiff_t>(range.components));
    facts.max.assign(range.max.begin(), range.max.begin() + static_cast<std::ptrdiff_t>(range.components));
    return facts;
}

std::vector<QuantiserFacts> quantisersOf(const SplatReader::Dataset& dataset) {
    const SplatReader::Meta& meta = dataset.meta();
    const Dequantiser& back = dataset.dequantiser();
    std::vector<QuantiserFacts> list;
    const double byteStep = Dequantiser::colourStep();
    list.push_back(quantiserFacts("colour", meta.colour(), {byteStep, byteStep, byteStep}));
    list.push_back(quantiserFacts("opacity", meta.opacity(), {Dequantiser::opacityStep()}));
    list.push_back(quantiserFacts("scale", meta.scaleRange(),
                                  {back.scaleStep(0), back.scaleStep(1), back.scaleStep(2)}));
    list.push_back(quantiserFacts("normal", meta.normal(),
                                  {back.normalStep(0), back.normalStep(1), back.normalStep(2)}));
    // Largest value of the three components that are stored.
    constexpr double farthest = 0.5 / Format::rotationGain;
    list.push_back({"rotation", {-farthest}, {farthest}, {Dequantiser::rotationStep()}});
    if (meta.hasCoefficients()) {
        const bool packed = meta.packed();
        list.push_back(
            quantiserFacts("coefficients", meta.coefficients(),
                           {packed ? back.coefficientStep(0) : 0.0, packed ? back.coefficientStep(1) : 0.0,
                            packed ? back.coefficientStep(2) : 0.0}));
    }
    return list;
}

void measureCells(DatasetFacts& facts) {
    std::vector<std::uint32_t> counts;
    for (std::size_t cell = 0; cell < facts.dataset.cellCount(); ++cell) {
        counts.push_back(facts.dataset.range(cell, 0).count);
    }
    if (counts.empty()) {
        return;
    }
    std::ranges::sort(counts);
    facts.smallestCell = counts.front();
    facts.medianCell = counts[counts.size() / 2];
    facts.largestCell = counts.back();
}

double halfStepOf(const SplatReader::Meta& meta) {
    float reach = 0.0f;
    for (std::size_t axis = 0; axis < 3; ++axis) {
        reach = std::max({reach, static_cast<float>(std::abs(meta.boundingMin[axis])),
                          static_cast<float>(std::abs(meta.boundingMax[axis]))});
    }
    return std::isfinite(reach) ? (double{std::nextafter(reach, INFINITY)} - double{reach}) / 2 : 0.0;
}

} // namespace

DatasetFacts readDatasetFacts(const std::string& name, bool scan, const ScanProgress& progress) {
    const std::filesystem::path folder = pathFromText(name);
    DatasetFacts facts{name, SplatReader::Dataset::open(folder)};
    facts.metaBytes = SplatReader::DatasetFile(folder, Format::metaFile).size();
    facts.indexBytes = SplatReader::DatasetFile(folder, Format::indexFile).size();
    facts.dataBytes = SplatReader::DatasetFile(folder, Format::dataFile).size();
    if (facts.dataset.meta().hasCoefficients()) {
        facts.coefficientBytes = SplatReader::DatasetFile(folder, Format::coefficientFile).size();
    }
    measureCells(facts);
    facts.positionHalfStep = halfStepOf(facts.dataset.meta());
    facts.quantisers = quantisersOf(facts.dataset);
    readValues(facts, scan, progress);
    return facts;
}

} // namespace Tavrin::SplatProgram
