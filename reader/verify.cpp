#include "reader/verify.h"

#include "reader/dataset.h"
#include "reader/files.h"
#include "reader/grid.h"
#include "reader/index_stream.h"
#include "reader/verify_records.h"

#include <algorithm>
#include <memory>

namespace Tavrin::SplatReader {
namespace {

std::string bytes(std::uint64_t count) {
    return std::to_string(count) + (count == 1 ? " byte" : " bytes");
}

std::uint64_t saturatingAdd(std::uint64_t a, std::uint64_t b) {
    return a > UINT64_MAX - b ? UINT64_MAX : a + b;
}

std::unique_ptr<DatasetFile> openFile(const std::filesystem::path& folder, std::string_view name,
                                      Findings& findings) {
    try {
        return std::make_unique<DatasetFile>(folder, name);
    } catch (const DatasetError& error) {
        const Finding& finding = error.finding();
        findings.error(finding.kind, finding.file, finding.offset, finding.expected, finding.found);
        return nullptr;
    }
}

class Verifier {
public:
    Verifier(const std::filesystem::path& folder, const VerifyOptions& options, VerifyReport& report)
        : folder_(folder), options_(options), report_(report), findings_(report.findings) {}

    void run() {
        std::error_code error;
        if (!std::filesystem::is_directory(folder_, error)) {
            findings_.error("file-missing", textOf(folder_), 0, "a dataset folder", "none");
            return;
        }
        readMeta();
        data_ = openFile(folder_, Format::dataFile, findings_);
        index_ = openFile(folder_, Format::indexFile, findings_);
        report_.dataBytes = data_ ? data_->size() : 0;
        report_.indexBytes = index_ ? index_->size() : 0;
        if (data_ && data_->size() % Format::recordSize != 0) {
            findings_.error("data-size", Format::dataFile, data_->size() - data_->size() % Format::recordSize,
                            "whole records of 32 bytes",
                            bytes(data_->size() % Format::recordSize) + " left over");
        }
        if (!report_.meta) {
            return;
        }
        const bool coefficientsFit = checkCoefficientFile();
        if (!data_ || !index_ || report_.meta->totalLevel < 1) {
            return;
        }
        const std::uint64_t errorsBefore = findings_.errorCount();
        checkIndex();
        checkSums();
        const bool indexSound = findings_.errorCount() == errorsBefore;
        if (options_.level == VerifyLevel::full && coefficientsFit &&
            data_->size() % Format::recordSize == 0) {
            data_.reset();
            index_.reset();
            verifyRecords(folder_, options_, indexSound, report_);
        }
    }

private:
    void readMeta() {
        std::string text;
        try {
            text = readMetaText(folder_);
        } catch (const DatasetError& error) {
            const Finding& finding = error.finding();
            findings_.error(finding.kind, finding.file, finding.offset, finding.expected, finding.found);
            return;
        }
        report_.metaBytes = text.size();
        report_.meta = parseMeta(text, findings_);
        if (report_.meta) {
            checkMeta(*report_.meta, text, findings_);
        }
    }

    // True when shcoef.bin exists exactly when it should, and has the length that data.bin implies.
    bool checkCoefficientFile() {
        const Meta& meta = *report_.meta;
        std::error_code error;
        if (!meta.hasCoefficients()) {
            const std::filesystem::path path = folder_ / Format::coefficientFile;
            if (std::filesystem::exists(path, error)) {
                report_.coefficientBytes = std::filesystem::file_size(path, error);
                findings_.error("coefficient-file", Format::coefficientFile, 0,
                                "no such file beside \"fileType\": \"" + meta.fileType.substr(0, 60) + "\"",
                                "one");
                return false;
            }
            return true;
        }
        const std::unique_ptr<DatasetFile> file = openFile(folder_, Format::coefficientFile, findings_);
        if (!file || !data_) {
            return false;
        }
        report_.coefficientBytes = file->size();
        const std::uint64_t size = meta.packed() ? Format::packedCoefficientSize : Format::rawCoefficientSize;
        const std::uint64_t records = data_->size() / Format::recordSize;
        if (file->size() % size != 0 || file->size() / size != records) {
            findings_.error("coefficient-size", Format::coefficientFile,
                            std::min(file->size(), records * size),
                            bytes(records * size) + ", " + std::to_string(size) + " for each of " +
                                std::to_string(records) + " records of data.bin",
                            bytes(file->size()));
            return false;
        }
        return true;
    }

    void checkIndex() {
        const Meta& meta = *report_.meta;
        const std::uint64_t entrySize =
            Format::indexKeySize +
            std::uint64_t{Format::indexLevelSize} * static_cast<std::uint64_t>(meta.totalLevel);
        std::uint64_t entries = index_->size() / entrySize;
        report_.cells = entries;
        if (index_->size() % entrySize != 0) {
            findings_.error("index-size", Format::indexFile, entries * entrySize,
                            "whole entries of " + bytes(entrySize),
                            bytes(index_->size() % entrySize) + " left over");
        }
        grid_ = gridOf(meta);
        if (grid_.oneCell && entries != 1) {
            findings_.error("index-size", Format::indexFile, std::min(index_->size(), entrySize),
                            "one entry of " + bytes(entrySize) +
                                ", as the scene has at most 1,000,000 splats",
                            std::to_string(entries) + " entries");
        }
        if (!grid_.oneCell && !grid_.countable()) {
            findings_.warning("index-grid", Format::metaFile, 0, "a bounding box that gives a grid of cells",
                              "none; the keys cannot be checked");
        }
        if (!grid_.oneCell && grid_.ambiguous()) {
            findings_.warning("index-grid", Format::metaFile, 0, "at most 65536 cells on each axis",
                              std::to_string(grid_.countX) + " x " + std::to_string(grid_.countY) +
                                  "; keys stand for several cells and are not checked");
        }
        const std::uint64_t records = data_->size() / Format::recordSize;
        if (!grid_.oneCell && !grid_.ambiguous() && entries > records) {
            findings_.error("index-size", Format::indexFile, records * entrySize,
                            "at most one entry for each of " + std::to_string(records) +
                                " records of data.bin",
                            std::to_string(entries) + " entries");
            entries = records;
        }
        IndexStream stream(*index_, static_cast<std::uint32_t>(meta.totalLevel), entries);
        IndexStream::Range range{};
        try {
            while (stream.next(range)) {
                if (range.level == 0) {
                    checkKey(range);
                }
                checkRange(range);
            }
        } catch (const DatasetError& error) { // the file became shorter meanwhile, or cannot be read
            const Finding& finding = error.finding();
            findings_.error(finding.kind, finding.file, finding.offset, finding.expected, finding.found);
        }
    }

    void checkKey(const IndexStream::Range& range) {
        if (grid_.oneCell) {
            if (range.entry == 0 && range.key != 0) {
                findings_.error("index-key", Format::indexFile, range.keyAt, "the key 0 of a one-cell scene",
                                std::to_string(range.key));
            }
            return;
        }
        if (!grid_.countable() || grid_.ambiguous()) {
            return;
        }
        const std::uint32_t column = keyColumn(range.key);
        const std::uint32_t row = keyRow(range.key);
        const std::string found = cellText(column, row);
        if (column >= grid_.countX || row >= grid_.countY) {
            findings_.error("index-key", Format::indexFile, range.keyAt,
                            "a cell inside the grid of " + std::to_string(grid_.countX) + " x " +
                                std::to_string(grid_.countY),
                            found);
        }
        // Column first, then row gives keys in file order, so a repeated key shows as one out of order.
        const std::uint64_t place = (std::uint64_t{column} << 16) | row;
        if (range.entry > 0 && place <= lastPlace_) {
            findings_.error("index-order", Format::indexFile, range.keyAt,
                            "a cell after " +
                                cellText(static_cast<std::uint32_t>(lastPlace_ >> 16),
                                         static_cast<std::uint32_t>(lastPlace_ & 0xFFFFu)) +
                                " (X outer, Y inner, each key once)",
                            found);
        }
        lastPlace_ = place;
        if (range.count == 0) {
            findings_.error("index-count", Format::indexFile, range.rangeAt,
                            "at least 1 splat of level 0 in " + found + " (empty cells have no entry)", "0");
        }
    }

    static std::string cellText(std::uint32_t column, std::uint32_t row) {
        return "cell (" + std::to_string(column) + ", " + std::to_string(row) + ")";
    }

    void checkRange(const IndexStream::Range& range) {
        const std::uint64_t length = std::uint64_t{range.count} * Format::recordSize;
        // The size field keeps the low 32 bits.
        const auto stated = static_cast<std::uint32_t>(length);
        if (range.size != stated) {
            findings_.error("index-bytes", Format::indexFile, range.rangeAt + 12,
                            std::to_string(stated) + " (32 x " + std::to_string(range.count) + " splats)",
                            std::to_string(range.size));
        }
        if (range.count > 0 && range.offset != running_) {
            findings_.error("index-offset", Format::indexFile, range.rangeAt + 4,
                            "the offset " + std::to_string(running_) + " (no gap, no overlap)",
                            std::to_string(range.offset));
        } else if (range.count == 0 && range.offset != 0 &&
                   !(grid_.ambiguous() && range.offset == running_)) {
            findings_.error("index-offset", Format::indexFile, range.rangeAt + 4,
                            "the offset 0 of an empty level", std::to_string(range.offset));
        }
        if (range.count > 0 && (range.offset > data_->size() || length > data_->size() - range.offset)) {
            findings_.error("index-range", Format::indexFile, range.rangeAt,
                            "splats inside the " + bytes(data_->size()) + " of data.bin",
                            std::to_string(range.count) + " from byte " + std::to_string(range.offset));
        }
        running_ = saturatingAdd(running_, length);
        report_.splatsHeld = saturatingAdd(report_.splatsHeld, range.count);
    }

    void checkSums() {
        const Meta& meta = *report_.meta;
        if (running_ != data_->size()) {
            findings_.error("data-size", Format::dataFile, std::min(running_, data_->size()),
                            bytes(running_) + ", 32 for each of " + std::to_string(report_.splatsHeld) +
                                " splats in the index",
                            bytes(data_->size()));
        }
        if (report_.splatsHeld > meta.totalSplats) {
            findings_.error("index-sum", Format::indexFile, 0,
                            "at most " + std::to_string(meta.totalSplats) +
                                " splats, as \"totalSplats\" says",
                            std::to_string(report_.splatsHeld));
            return;
        }
        report_.splatsLeftOut = meta.totalSplats - report_.splatsHeld;
        if (grid_.oneCell && report_.splatsLeftOut > 0 && meta.totalLevel == 1) {
            findings_.error("index-sum", Format::indexFile, 0,
                            "all " + std::to_string(meta.totalSplats) + " splats in the one cell",
                            std::to_string(report_.splatsHeld));
        }
    }

    const std::filesystem::path& folder_;
    const VerifyOptions& options_;
    VerifyReport& report_;
    Findings& findings_;
    std::unique_ptr<DatasetFile> data_;
    std::unique_ptr<DatasetFile> index_;
    Grid grid_;
    std::uint64_t lastPlace_ = 0;
    std::uint64_t running_ = 0;
};

} // namespace

VerifyReport verifyDataset(const std::filesystem::path& folder, const VerifyOptions& options) {
    VerifyReport report;
    report.findings = Findings(options.findingsPerKind);
    Verifier(folder, options, report).run();
    return report;
}

} // namespace Tavrin::SplatReader
