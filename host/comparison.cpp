#include "comparison.h"

#include "cell_readers.h"
#include "comparer.h"
#include "record_stream.h"

#include <algorithm>
#include <cmath>
#include <deque>
#include <fmt/format.h>
#include <future>
#include <thread>

namespace Tavrin::SplatProgram {
namespace {

namespace Format = SplatReader::Format;

// Records of the source and those of the dataset that came of them, copied so that a worker compares them
// while the files are read on.
class Batch {
public:
    static constexpr std::size_t splats = 8192;

    Batch(std::size_t sourceBytes, std::size_t coefficientBytes)
        : m_sourceBytes(sourceBytes), m_coefficientBytes(coefficientBytes) {
        m_source.reserve(splats * sourceBytes);
        m_stored.reserve(splats * Format::recordSize);
        m_coefficients.reserve(splats * coefficientBytes);
        m_numbers.reserve(splats);
        m_places.reserve(splats);
    }

    bool isFull() const { return m_numbers.size() == splats; }

    void add(const std::byte* source, std::uint64_t number, const SplatReader::RecordCursor::View& stored) {
        m_source.insert(m_source.end(), source, source + m_sourceBytes);
        m_stored.insert(m_stored.end(), stored.data, stored.data + Format::recordSize);
        if (stored.coefficients != nullptr) {
            m_coefficients.insert(m_coefficients.end(), stored.coefficients,
                                  stored.coefficients + m_coefficientBytes);
        }
        m_numbers.push_back(number);
        m_places.push_back(stored.index);
    }

    void compareWith(Comparer& comparer) const {
        for (std::size_t i = 0; i < m_numbers.size(); ++i) {
            const std::byte* coefficients =
                m_coefficients.empty() ? nullptr : m_coefficients.data() + i * m_coefficientBytes;
            comparer.compare(m_source.data() + i * m_sourceBytes, m_numbers[i],
                             {m_places[i], m_stored.data() + i * Format::recordSize, coefficients});
        }
    }

private:
    std::size_t m_sourceBytes;
    std::size_t m_coefficientBytes; // 0 without
    std::vector<std::byte> m_source;
    std::vector<std::byte> m_stored;
    std::vector<std::byte> m_coefficients;
    std::vector<std::uint64_t> m_numbers; // of the splats in the source
    std::vector<std::uint64_t> m_places;  // of the records in the dataset
};

// Compares batches on as many threads as there are processors. What they find is gathered in the order of the
// source, so that it is the same on every machine.
class BatchComparison {
public:
    BatchComparison(const SplatReader::Dataset& dataset, const SplatLayout& layout,
                    SplatReader::Findings& findings)
        : m_dataset(dataset), m_layout(layout), m_findings(findings), m_batch(newBatch()),
          m_errors(Comparer(dataset, layout).errors()) {}

    void add(const std::byte* source, std::uint64_t number, const SplatReader::RecordCursor::View& stored) {
        m_batch.add(source, number, stored);
        if (m_batch.isFull()) {
            start();
        }
    }

    std::vector<AttributeError> finish() {
        start();
        while (!m_running.empty()) {
            gather();
        }
        return m_errors;
    }

private:
    Batch newBatch() const { return {m_layout.recordBytes(), m_dataset.coefficientSize()}; }

    void start() {
        if (m_running.size() == m_most) {
            gather();
        }
        auto compareBatch = [this, batch = std::move(m_batch)] {
            Comparer comparer(m_dataset, m_layout);
            batch.compareWith(comparer);
            return comparer;
        };
        // Where no thread can be had the batch is compared when it is gathered.
        m_running.push_back(std::async(std::launch::async | std::launch::deferred, std::move(compareBatch)));
        m_batch = newBatch();
    }

    void gather() {
        const Comparer comparer = m_running.front().get();
        m_running.pop_front();
        m_findings.append(comparer.findings());
        const std::vector<AttributeError> errors = comparer.errors();
        for (std::size_t i = 0; i < errors.size(); ++i) {
            m_errors[i].add(errors[i]);
        }
    }

    const SplatReader::Dataset& m_dataset;
    SplatLayout m_layout;
    SplatReader::Findings& m_findings;
    std::size_t m_most = std::clamp(std::thread::hardware_concurrency(), 1U, 16U); // batches in memory
    Batch m_batch;
    std::vector<AttributeError> m_errors;
    std::deque<std::future<Comparer>>
        m_running; // in the order of the source; goes first, as it uses the rest
};

// False when the dataset cannot have been made of the source, so that comparing splats would say nothing.
bool checkOrigin(const SplatReader::Dataset& dataset, const SplatFile& source,
                 SplatReader::Findings& findings) {
    const SplatReader::Meta& meta = dataset.meta();
    const bool sameCount = meta.totalSplats == source.records;
    const bool sameForm = meta.hasCoefficients() == source.layout.hasCoefficients();
    if (!sameCount) {
        findings.error("against-count", Format::metaFile, 0,
                       fmt::format("\"totalSplats\" {}, the records of the source", source.records),
                       std::to_string(meta.totalSplats));
    }
    if (!sameForm) {
        findings.error("against-form", Format::metaFile, 0,
                       source.layout.hasCoefficients() ? "\"Quality\", as the source has coefficients"
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

Comparison compareWithSource(const SplatReader::Dataset& dataset, const SplatFile& source,
                             SplatReader::Findings& findings, const ScanProgress& progress) {
    constexpr std::uint64_t progressEvery = 65536;
    Comparison result;
    if (!checkOrigin(dataset, source, findings)) {
        return result;
    }
    BatchComparison comparison(dataset, source.layout, findings);
    CellReaders cells(dataset);
    RecordStream stream(source.path, source.bodyAt, source.layout.recordBytes(), source.records);
    while (const std::byte* record = stream.next()) {
        const std::uint64_t number = result.splats++;
        const std::uint32_t key =
            dataset.grid().keyAt(SplatReader::loadFloat(record), SplatReader::loadFloat(record + 4));
        const std::optional<std::size_t> cell = cells.find(key);
        if (!cell) {
            ++result.leftOut;
        } else if (const auto stored = cells.next(*cell)) {
            ++result.found;
            comparison.add(record, number, *stored);
        } else {
            findings.error("against-count", Format::indexFile, 0,
                           fmt::format("splat {} of the source in cell {}", number, key),
                           "no more splats there");
        }
        if (number % progressEvery == 0) {
            progress(static_cast<double>(number) / static_cast<double>(source.records));
        }
    }
    result.attributes = comparison.finish();
    checkTotals(dataset, result, cells, findings);
    return result;
}

} // namespace Tavrin::SplatProgram
