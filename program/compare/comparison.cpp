#include "program/compare/comparison.h"

#include "program/compare/cell_readers.h"
#include "program/compare/comparer.h"
#include "program/system/interrupt.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <deque>
#include <future>
#include <memory>
#include <thread>

namespace Tavrin::SplatProgram {
namespace {

namespace Format = SplatReader::Format;

constexpr std::uint64_t windowRecords = 4096; // of the source, read at a time

// A window of source records with copies of their records in the dataset. A worker compares them while this
// thread reads on.
struct Batch {
    std::vector<float> source;
    std::uint64_t first = 0;             // number of the first one in the source
    std::vector<std::uint64_t> numbers;  // of those that the dataset has, in the source
    std::vector<std::uint64_t> places;   // of the records in the dataset
    std::vector<std::byte> stored;       // the records
    std::vector<std::byte> coefficients; // theirs, empty without
};

// Compares batches on one thread a processor, at most 16. Results are merged in the order of the source, so
// they are the same on every machine.
class BatchComparison {
public:
    BatchComparison(const SplatReader::Dataset& dataset, bool hasCoefficients,
                    SplatReader::Findings& findings)
        : dataset_(dataset), hasCoefficients_(hasCoefficients), findings_(findings),
          errors_(Comparer(dataset, hasCoefficients).errors()) {}

    // The batch to fill next. Reuses the memory of a batch that has been compared.
    std::unique_ptr<Batch> empty() {
        if (running_.size() == most_) {
            gather();
        }
        std::unique_ptr<Batch> batch = done_ ? std::move(done_) : std::make_unique<Batch>();
        batch->numbers.clear();
        batch->places.clear();
        batch->stored.clear();
        batch->coefficients.clear();
        return batch;
    }

    void add(Batch& batch, std::uint64_t number, const SplatReader::RecordCursor::View& stored) const {
        batch.numbers.push_back(number);
        batch.places.push_back(stored.index);
        batch.stored.insert(batch.stored.end(), stored.data, stored.data + Format::recordSize);
        if (stored.coefficients != nullptr) {
            batch.coefficients.insert(batch.coefficients.end(), stored.coefficients,
                                      stored.coefficients + dataset_.coefficientSize());
        }
    }

    void start(std::unique_ptr<Batch> batch) {
        auto compareBatch = [this, batch = std::move(batch)]() mutable {
            Comparer comparer(dataset_, hasCoefficients_);
            compare(*batch, comparer);
            return Compared{std::move(comparer), std::move(batch)};
        };
        // If the system starts no thread, the batch is compared when its result is merged.
        running_.push_back(std::async(std::launch::async | std::launch::deferred, std::move(compareBatch)));
    }

    std::vector<AttributeError> finish() {
        while (!running_.empty()) {
            gather();
        }
        return errors_;
    }

private:
    struct Compared {
        Comparer comparer;
        std::unique_ptr<Batch> batch;
    };

    void compare(const Batch& batch, Comparer& comparer) const {
        for (std::size_t i = 0; i < batch.numbers.size(); ++i) {
            const std::byte* coefficients = batch.coefficients.empty()
                                                ? nullptr
                                                : batch.coefficients.data() + i * dataset_.coefficientSize();
            const float* const record =
                batch.source.data() +
                (batch.numbers[i] - batch.first) * GaussionSplat::recordLayout(hasCoefficients_).floats;
            comparer.compare(reinterpret_cast<const std::byte*>(record), batch.numbers[i],
                             {batch.places[i], batch.stored.data() + i * Format::recordSize, coefficients});
        }
    }

    void gather() {
        Compared compared = running_.front().get();
        running_.pop_front();
        done_ = std::move(compared.batch);
        findings_.append(compared.comparer.findings());
        const std::vector<AttributeError> errors = compared.comparer.errors();
        for (std::size_t i = 0; i < errors.size(); ++i) {
            errors_[i].add(errors[i]);
        }
    }

    const SplatReader::Dataset& dataset_;
    bool hasCoefficients_;
    SplatReader::Findings& findings_;
    std::size_t most_ = std::clamp(std::thread::hardware_concurrency(), 1u, 16u); // batches being compared
    std::vector<AttributeError> errors_;
    std::unique_ptr<Batch> done_;
    // In the order of the source; declared last, because its destructor waits for workers that use the
    // members above.
    std::deque<std::future<Compared>> running_;
};

void requireCount(const SplatReader::Meta& meta, std::uint64_t splats, SplatReader::Findings& findings) {
    findings.error("against-count", Format::metaFile, 0,
                   fmt::format("\"totalSplats\" {}, the splats of the source", splats),
                   std::to_string(meta.totalSplats));
}

// False if the dataset cannot have been made of the source, so that comparing splats would be useless.
bool checkOrigin(const SplatReader::Dataset& dataset, const SplatSource::Source& source,
                 SplatReader::Findings& findings) {
    const SplatReader::Meta& meta = dataset.meta();
    // Splats may have been dropped.
    const bool sameCount = meta.totalSplats <= source.count;
    const bool sameForm = meta.hasCoefficients() == source.hasCoefficients;
    if (!sameCount) {
        requireCount(meta, source.count, findings);
    }
    if (!sameForm) {
        findings.error("against-form", Format::metaFile, 0,
                       source.hasCoefficients ? "\"Quality\", as the source has coefficients"
                                              : "\"Portable\", as the source has no coefficients",
                       fmt::format("\"{}\"", meta.fileType.substr(0, 60)));
    }
    return sameCount && sameForm;
}

void checkTotals(const SplatReader::Dataset& dataset, const Comparison& result, const CellReaders& cells,
                 SplatReader::Findings& findings) {
    for (std::size_t cell = 0; cell < dataset.cellCount(); ++cell) {
        if (cells.unread(cell) > 0) {
            findings.error(
                "against-count", Format::indexFile, 0,
                fmt::format("cell {} with as many splats as the source has there", dataset.cellKey(cell)),
                fmt::format("{} more", cells.unread(cell)));
        }
    }
    if (result.leftOut != dataset.leftOut()) {
        findings.error("against-count", Format::indexFile, 0,
                       fmt::format("{} splats of the source in no cell", dataset.leftOut()),
                       std::to_string(result.leftOut));
    }
}

} // namespace

void AttributeError::add(const AttributeError& more) {
    values += more.values;
    skipped += more.skipped;
    largest = std::max(largest, more.largest);
    squares += more.squares;
    largestSteps = std::max(largestSteps, more.largestSteps);
}

double AttributeError::rms() const {
    return values == 0 ? 0.0 : std::sqrt(squares / static_cast<double>(values));
}

Comparison compareWithSource(const SplatReader::Dataset& dataset, const SplatSource::Source& source,
                             SplatReader::Findings& findings, const ScanProgress& progress) {
    Comparison result;
    if (!checkOrigin(dataset, source, findings)) {
        return result;
    }
    SplatReader::Findings differences;
    BatchComparison comparison(dataset, source.hasCoefficients, differences);
    CellReaders cells(dataset);
    SplatReader::Findings missing; // reported after the findings of the batches
    const std::size_t floats = GaussionSplat::recordLayout(source.hasCoefficients).floats;
    for (std::uint64_t first = 0; first < source.count; first += windowRecords) {
        throwIfInterrupted();
        auto batch = comparison.empty();
        batch->first = result.splats;
        const std::uint64_t size = std::min(windowRecords, source.count - first);
        batch->source.resize(size * floats);
        const std::uint64_t count = source.read(first, size, batch->source.data());
        progress(static_cast<double>(first) / static_cast<double>(source.count));
        for (std::uint64_t i = 0; i < count; ++i) {
            const float* const record = batch->source.data() + i * floats;
            const std::uint64_t number = result.splats++;
            const std::uint32_t key = dataset.grid().keyAt(record[0], record[1]);
            const std::optional<std::size_t> cell = cells.find(key);
            if (!cell) {
                ++result.leftOut;
            } else if (const auto stored = cells.next(*cell)) {
                ++result.found;
                comparison.add(*batch, number, *stored);
            } else {
                missing.error("against-count", Format::indexFile, 0,
                              fmt::format("splat {} of the source in cell {}", number, key),
                              "no more splats there");
            }
        }
        comparison.start(std::move(batch));
    }
    result.attributes = comparison.finish();
    if (dataset.meta().totalSplats != result.splats) {
        // One extra splat shifts all that follow, so the first difference says as much as a thousand.
        requireCount(dataset.meta(), result.splats, findings);
        if (!differences.errors().empty()) {
            const SplatReader::Finding& first = differences.errors().front();
            findings.error(first.kind, first.file, first.offset, first.expected, first.found);
        }
        return result;
    }
    findings.append(differences);
    findings.append(missing);
    checkTotals(dataset, result, cells, findings);
    return result;
}

} // namespace Tavrin::SplatProgram
