#include "reader/verify_records.h"

#include "reader/dataset.h"
#include "reader/grid.h"
#include "reader/index_stream.h"

#include <algorithm>
#include <atomic>
#include <charconv>
#include <chrono>
#include <cmath>
#include <future>
#include <thread>
#include <vector>

namespace Tavrin::SplatReader {
namespace {

std::string floatText(float value) {
    char buffer[32];
    return std::string(buffer, std::to_chars(buffer, buffer + sizeof buffer, value).ptr);
}

std::string pointText(const std::array<float, 3>& point) {
    return joined({"(", floatText(point[0]), ", ", floatText(point[1]), ", ", floatText(point[2]), ")"});
}

// One component of an attribute, as messages name it.
std::string componentText(std::string_view name, std::size_t axis) {
    constexpr std::array<std::string_view, 3> channels = {"red", "green", "blue"};
    if (name == "opacity") {
        return "\"opacity\"";
    }
    const std::string text = joined({"\"", name, "\" "});
    return text + (name == "color" || name == "shcoef" ? std::string(channels[axis])
                                                       : std::string("on axis ") + "xyz"[axis]);
}

void widen(ValueSpan& span, const ValueSpan& more) {
    span.lowest = std::min(span.lowest, more.lowest);
    span.highest = std::max(span.highest, more.highest);
}

void add(ComponentUse& use, const ComponentUse& more) {
    widen(static_cast<ValueSpan&>(use), more);
    use.atZero += more.atZero;
    use.atMaximum += more.atMaximum;
}

void add(RecordUse& use, const RecordUse& more) {
    use.records += more.records;
    use.undefinedRotations += more.undefinedRotations;
    add(use.opacity, more.opacity);
    for (std::size_t axis = 0; axis < 3; ++axis) {
        add(use.colour[axis], more.colour[axis]);
        add(use.scale[axis], more.scale[axis]);
        add(use.normal[axis], more.normal[axis]);
        widen(use.coefficient[axis], more.coefficient[axis]);
    }
}

void note(ComponentUse& use, std::uint32_t quantised, std::uint32_t maximum) {
    use.lowest = std::min(use.lowest, quantised);
    use.highest = std::max(use.highest, quantised);
    use.atZero += quantised == 0 ? 1u : 0u;
    use.atMaximum += quantised == maximum ? 1u : 0u;
}

// The spans of packed coefficients, one for each word of the record, so that a loop over the words becomes
// vector code. The sixteenth word is padding and does not count. The values are signed because vectors
// compare signed numbers.
class CoefficientSpans {
public:
    CoefficientSpans() {
        for (Words& lowest : lowest_) {
            lowest.fill(INT32_MAX);
        }
    }

    void widenBy(const std::byte* record) {
        for (std::size_t k = 0; k < words; ++k) {
            const CoefficientWord word = unpackCoefficientWord(loadUnsigned<std::uint32_t>(record + 4 * k));
            for (std::size_t channel = 0; channel < 3; ++channel) {
                const auto value = static_cast<std::int32_t>(word.channel[channel]);
                lowest_[channel][k] = std::min(lowest_[channel][k], value);
                highest_[channel][k] = std::max(highest_[channel][k], value);
            }
        }
    }

    void widenSpans(std::array<ValueSpan, 3>& spans) const {
        for (std::size_t channel = 0; channel < 3; ++channel) {
            for (std::size_t k = 0; k < Format::coefficientsPerChannel; ++k) {
                widen(spans[channel], {static_cast<std::uint32_t>(lowest_[channel][k]),
                                       static_cast<std::uint32_t>(highest_[channel][k])});
            }
        }
    }

private:
    static constexpr std::size_t words = Format::packedCoefficientSize / 4;
    using Words = std::array<std::int32_t, words>;

    std::array<Words, 3> lowest_;
    std::array<Words, 3> highest_{};
};

class RecordVerifier {
public:
    RecordVerifier(const Meta& meta, std::uint32_t coefficientSize, Findings& findings)
        : meta_(meta), grid_(gridOf(meta)), coefficientSize_(coefficientSize), findings_(findings) {}

    void check(const RecordCursor::View& view, const IndexStream::Range* cell) {
        const Record record = loadRecord(view.data);
        at_ = view.index * Format::recordSize;
        checkPosition(record, cell);
        checkRotation(record);
        for (std::size_t axis = 0; axis < 3; ++axis) {
            note(use_.colour[axis], record.colour[axis], Format::byteMaximum);
            note(use_.scale[axis], record.scale[axis], Format::wordMaximum);
            note(use_.normal[axis], record.normal[axis], Format::wordMaximum);
        }
        note(use_.opacity, record.opacity, Format::byteMaximum);
        if (view.coefficients != nullptr) {
            coefficientAt_ = view.index * coefficientSize_;
            meta_.packed() ? checkPacked(view.coefficients) : checkRaw(view.coefficients);
        }
        ++use_.records;
    }

    RecordUse use() const {
        RecordUse use = use_;
        if (use.records > 0 && coefficientSize_ == Format::packedCoefficientSize) {
            coefficients_.widenSpans(use.coefficient);
        }
        return use;
    }

private:
    void checkPosition(const Record& record, const IndexStream::Range* cell) {
        for (const float value : record.position) {
            if (!std::isfinite(value)) {
                findings_.error("record-position", Format::dataFile, at_, "a finite position",
                                pointText(record.position));
                return;
            }
        }
        for (std::size_t axis = 0; axis < 3; ++axis) {
            const double value = record.position[axis];
            if (value < meta_.boundingMin[axis] || value > meta_.boundingMax[axis]) {
                findings_.warning("record-box", Format::dataFile, at_, "a position inside the bounding box",
                                  pointText(record.position));
                break;
            }
        }
        if (cell != nullptr && !grid_.oneCell) {
            const std::uint32_t key = grid_.keyAt(record.position[0], record.position[1]);
            if (key != cell->key) {
                findings_.error("record-cell", Format::dataFile, at_,
                                "a position in cell (" + std::to_string(keyColumn(cell->key)) + ", " +
                                    std::to_string(keyRow(cell->key)) + ")",
                                pointText(record.position) + ", which lies in cell (" +
                                    std::to_string(keyColumn(key)) + ", " + std::to_string(keyRow(key)) +
                                    ")");
            }
        }
    }

    void checkRotation(const Record& record) {
        if (record.rotation == 0) {
            ++use_.undefinedRotations;
            findings_.warning("record-rotation", Format::dataFile, at_ + Format::rotationOffset, "a rotation",
                              "the word 0, written for a source rotation that is not a number");
        } else if (!rotationPossible(record.rotation)) {
            findings_.error("record-rotation", Format::dataFile, at_ + Format::rotationOffset,
                            "a word that some unit quaternion packs to", std::to_string(record.rotation));
        }
    }

    void checkPacked(const std::byte* record) {
        coefficients_.widenBy(record);
        const auto padding = loadUnsigned<std::uint32_t>(record + Format::packedPaddingOffset);
        if (padding != 0) {
            findings_.error("record-padding", Format::coefficientFile,
                            coefficientAt_ + Format::packedPaddingOffset, "4 zero bytes",
                            "the word " + std::to_string(padding));
        }
    }

    void checkRaw(const std::byte* record) {
        for (std::size_t i = 0; i < 3 * Format::coefficientsPerChannel; ++i) {
            const float value = loadFloat(record + 4 * i);
            const double min = meta_.coefficients().min[i % 3];
            const double max = meta_.coefficients().max[i % 3];
            if (std::isnan(value)) {
                findings_.warning("record-coefficient", Format::coefficientFile, coefficientAt_ + 4 * i,
                                  "a coefficient", "no number");
            } else if (static_cast<double>(value) < min || static_cast<double>(value) > max) {
                findings_.error("record-coefficient", Format::coefficientFile, coefficientAt_ + 4 * i,
                                "a coefficient inside its range", floatText(value));
            }
        }
        for (std::size_t i = Format::rawPaddingOffset; i < Format::rawCoefficientSize; ++i) {
            if (record[i] != std::byte{0}) {
                findings_.warning("record-padding", Format::coefficientFile, coefficientAt_ + i,
                                  "12 zero bytes",
                                  "the byte " + std::to_string(std::to_integer<unsigned>(record[i])));
                break;
            }
        }
    }

    const Meta& meta_;
    Grid grid_;
    std::uint32_t coefficientSize_;
    Findings& findings_;
    RecordUse use_;
    CoefficientSpans coefficients_;
    std::uint64_t at_ = 0;
    std::uint64_t coefficientAt_ = 0;
};

// Checks what all records together must satisfy.
class UseVerifier {
public:
    UseVerifier(const Meta& meta, const RecordUse& use, Findings& findings)
        : meta_(meta), use_(use), findings_(findings) {}

    // The ranges come from the records, so some record must lie at each end, unless it was left out of the
    // dataset.
    void check(bool nothingLeftOut) {
        if (use_.records > 0 && nothingLeftOut) {
            for (std::size_t axis = 0; axis < 3; ++axis) {
                checkBytes("color", meta_.colour(), axis, use_.colour[axis]);
                checkEnds("scale", meta_.scaleRange(), axis, use_.scale[axis], Format::wordMaximum);
                checkEnds("normal", meta_.normal(), axis, use_.normal[axis], Format::wordMaximum);
            }
            checkBytes("opacity", meta_.opacity(), 0, use_.opacity);
            if (meta_.hasCoefficients() && meta_.packed()) {
                checkEnds("shcoef", meta_.coefficients(), 0, use_.coefficient[0], Format::redBlueMaximum);
                checkEnds("shcoef", meta_.coefficients(), 1, use_.coefficient[1], Format::greenMaximum);
                checkEnds("shcoef", meta_.coefficients(), 2, use_.coefficient[2], Format::redBlueMaximum);
            }
        }
        for (std::size_t axis = 0; axis < 3; ++axis) {
            checkCrowding("scale", axis, use_.scale[axis], meta_.scaleRange());
            checkCrowding("normal", axis, use_.normal[axis], meta_.normal());
        }
    }

private:
    // The largest value of the source must be stored as the largest step, the smallest as step 0.
    void checkEnds(const char* name, const Range& range, std::size_t axis, const ValueSpan& span,
                   std::uint32_t maximum) {
        if (!range.finite(axis)) {
            return;
        }
        const bool flat = range.min[axis] == range.max[axis];
        const std::uint32_t highest = flat ? 0 : maximum;
        if (span.lowest != 0 || span.highest != highest) {
            mismatch(name, axis, 0, highest, span);
        }
    }

    void checkBytes(const char* name, const Range& range, std::size_t axis, const ComponentUse& use) {
        // Another check reports a range that is not inside [0, 1].
        if (!range.finite(axis) || !(range.min[axis] >= 0.0 && range.min[axis] <= range.max[axis]) ||
            range.max[axis] > 1.0) {
            return;
        }
        const auto lowest = static_cast<std::uint32_t>(static_cast<float>(range.min[axis]) * 255.0f);
        const auto highest = static_cast<std::uint32_t>(static_cast<float>(range.max[axis]) * 255.0f);
        // A NaN of the source is stored as 0 and widens no range.
        if (use.highest != highest || (use.lowest != lowest && use.lowest != 0)) {
            mismatch(name, axis, lowest, highest, use);
        } else if (use.lowest != lowest) {
            findings_.warning("record-range", Format::dataFile, 0,
                              "no " + componentText(name, axis) + " below byte " + std::to_string(lowest) +
                                  ", the lower end of its range",
                              "byte 0, written for a source value that is not a number");
        }
    }

    void mismatch(const char* name, std::size_t axis, std::uint32_t lowest, std::uint32_t highest,
                  const ValueSpan& span) {
        findings_.error("record-range",
                        name == std::string("shcoef") ? Format::coefficientFile : Format::dataFile, 0,
                        componentText(name, axis) + " from step " + std::to_string(lowest) + " to " +
                            std::to_string(highest) + ", the ends of its range",
                        std::to_string(span.lowest) + " to " + std::to_string(span.highest));
    }

    // Warns when most values fall into one step, so that their differences are lost. One far outlier can
    // widen a range that much.
    void checkCrowding(const char* name, std::size_t axis, const ComponentUse& use, const Range& range) {
        const bool flat = range.min[axis] == range.max[axis];
        if (flat || !range.finite(axis) || use_.records < 4) {
            return;
        }
        const std::uint64_t most = std::max(use.atZero, use.atMaximum);
        if (most > use_.records / 2) {
            findings_.warning("record-saturated", Format::dataFile, 0,
                              componentText(name, axis) + " spread over the steps of its range",
                              std::to_string(most) + " of " + std::to_string(use_.records) +
                                  " records at step " + (most == use.atZero ? "0" : "65535"));
        }
    }

    const Meta& meta_;
    const RecordUse& use_;
    Findings& findings_;
};

// Finds the index range of each record of data.bin, from record `first` on.
class RangeWalker {
public:
    RangeWalker(DatasetFile& file, std::uint32_t levels, std::uint64_t entries, std::uint64_t first)
        : stream_(file, levels, entries) {
        while (first > 0 && stream_.next(range_)) {
            const auto passed = static_cast<std::uint32_t>(std::min<std::uint64_t>(first, range_.count));
            first -= passed;
            left_ = range_.count - passed;
        }
    }

    const IndexStream::Range* step() {
        while (left_ == 0) {
            if (!stream_.next(range_)) {
                return nullptr;
            }
            left_ = range_.count;
        }
        --left_;
        return &range_;
    }

private:
    IndexStream stream_;
    IndexStream::Range range_{};
    std::uint32_t left_ = 0;
};

// Data shared by the parts of one verification.
struct RecordsJob {
    const std::filesystem::path& folder;
    const VerifyOptions& options;
    const Meta& meta;
    std::uint64_t records;
    std::uint64_t cells; // entries of the index
    std::uint32_t coefficientSize;
    bool useIndex;
    std::atomic<std::uint64_t> done = 0; // records
    std::atomic<bool> stop = false;      // the parts' results are no longer needed

    // Called by the calling thread alone. An exception of the progress function ends the other parts, too.
    void tellProgress() {
        if (!options.progress) {
            return;
        }
        try {
            options.progress(std::min(done.load(), records), records);
        } catch (...) {
            stop = true;
            throw;
        }
    }
};

// The result of one part of the records.
struct PartReport {
    Findings findings;
    RecordUse use;
    bool isRead = false; // to its end
};

// Records [first, first + count). Only the part of the calling thread has `tellsProgress`.
PartReport verifyPart(RecordsJob& job, std::uint64_t first, std::uint64_t count, bool tellsProgress) {
    constexpr std::uint64_t progressEvery = 65536;
    PartReport part{Findings(job.options.findingsPerKind), {}, false};
    try {
        DatasetFile index(job.folder, Format::indexFile);
        RangeWalker walker(index, static_cast<std::uint32_t>(job.meta.totalLevel), job.cells,
                           job.useIndex ? first : 0);
        RecordVerifier verifier(job.meta, job.coefficientSize, part.findings);
        RecordCursor cursor(job.folder, first, count, job.coefficientSize);
        RecordCursor::View view{};
        while (cursor.next(view)) {
            verifier.check(view, job.useIndex ? walker.step() : nullptr);
            if ((view.index - first) % progressEvery == progressEvery - 1) {
                job.done += progressEvery;
                if (tellsProgress) {
                    job.tellProgress();
                }
                if (job.stop) {
                    return part;
                }
            }
        }
        part.use = verifier.use();
        part.isRead = true;
    } catch (const DatasetError& error) { // a file shrank meanwhile, or cannot be read
        const Finding& finding = error.finding();
        part.findings.error(finding.kind, finding.file, finding.offset, finding.expected, finding.found);
    }
    return part;
}

constexpr std::uint64_t fewest = 65536; // records that are worth a thread
constexpr std::uint64_t most = 16;      // parts: each has windows of its own

// The records of a part; the last part may have fewer.
std::uint64_t partSize(std::uint64_t records, unsigned threads) {
    const std::uint64_t parts = std::clamp<std::uint64_t>(threads, 1, most);
    return std::max((records + parts - 1) / parts, fewest);
}

} // namespace

std::uint64_t verifyMemory(std::uint64_t records, std::uint64_t cells, bool hasCoefficients,
                           unsigned threads) {
    const std::uint64_t size = partSize(records, threads);
    const auto windowOf = [](std::uint64_t bytes) { return std::min<std::uint64_t>(bytes, windowSize); };
    constexpr std::uint64_t entrySize = Format::indexKeySize + Format::indexLevelSize;
    return (records + size - 1) / size *
           (windowOf(size * Format::recordSize) +
            (hasCoefficients ? windowOf(size * Format::packedCoefficientSize) : 0) +
            windowOf(cells * entrySize));
}

void verifyRecords(const std::filesystem::path& folder, const VerifyOptions& options, bool useIndex,
                   VerifyReport& report) {
    const Meta& meta = *report.meta;
    const std::uint32_t coefficientSize = !meta.hasCoefficients() ? 0
                                          : meta.packed()         ? Format::packedCoefficientSize
                                                                  : Format::rawCoefficientSize;
    RecordsJob job{folder,       options,         meta,    report.dataBytes / Format::recordSize,
                   report.cells, coefficientSize, useIndex};
    const unsigned threads = options.threads > 0 ? options.threads : std::thread::hardware_concurrency();
    const std::uint64_t size = partSize(job.records, threads);
    std::vector<std::future<PartReport>> others;
    for (std::uint64_t first = size; first < job.records; first += size) {
        const std::uint64_t count = std::min(size, job.records - first);
        // If no thread is available, the part is read when its result is asked for.
        others.push_back(std::async(std::launch::async | std::launch::deferred,
                                    [&job, first, count] { return verifyPart(job, first, count, false); }));
    }
    // Merged in the order of the records, so the findings are the same on every machine, up to the end of a
    // short file.
    PartReport part = verifyPart(job, 0, std::min(size, job.records), true);
    RecordUse use = part.use;
    report.findings.append(part.findings);
    for (std::size_t i = 0; i < others.size() && part.isRead; ++i) {
        constexpr std::chrono::milliseconds patience(50);
        while (others[i].wait_for(patience) == std::future_status::timeout) {
            job.tellProgress();
        }
        part = others[i].get();
        add(use, part.use);
        report.findings.append(part.findings);
    }
    if (part.isRead) {
        UseVerifier(meta, use, report.findings).check(report.splatsLeftOut == 0 && useIndex);
        report.use = use;
    }
}

} // namespace Tavrin::SplatReader
