// Runs the dataset reader on folders with arbitrary bytes, or with sound files that have faults. It must
// report, or throw DatasetError, and do the same a second time.

#include "reader/dataset.h"

#include "fuzz/target.h"
#include "reader/metatext.h"
#include "reader/verify.h"
#include "tests/support/dataset_writer.h"

#include <algorithm>
#include <array>

namespace {

namespace fs = std::filesystem;
using namespace Tavrin::SplatReader;
using DatasetWriter::Bytes;
using DatasetWriter::Files;

Files rawForm() {
    DatasetWriter::MetaFields fields;
    fields.totalLevel = 3;
    fields.encoding = "DEFAULT";
    Files files = DatasetWriter::oneCellFiles(DatasetWriter::smallScene(), fields);
    files.index = DatasetWriter::indexEntry(0, {{2, 0}, {0, 0}, {3, 64}});
    files.coefficients.assign(std::size_t{5} * 192, '\1');
    return files;
}

Files withoutCoefficients() {
    DatasetWriter::MetaFields fields;
    fields.fileType = "Portable";
    return DatasetWriter::oneCellFiles(DatasetWriter::smallScene(), fields);
}

const std::array<Files, 5>& soundDatasets() {
    static const std::array<Files, 5> datasets = {DatasetWriter::oneCellFiles(DatasetWriter::smallScene()),
                                                  withoutCoefficients(), rawForm(),
                                                  DatasetWriter::gridScene(), Files{}};
    return datasets;
}

Bytes& chosenFile(Files& files, std::size_t choice) {
    Bytes* const all[] = {&files.meta, &files.index, &files.data, &files.coefficients};
    return *all[choice % std::size(all)];
}

// Makes one fault: sets, inserts or removes bytes, sets a word, or cuts off the end.
void damage(Files& files, fuzz::Source& source) {
    const std::size_t choice = source.takeBelow(256);
    Bytes& bytes = chosenFile(files, choice);
    const std::size_t at = bytes.empty() ? 0 : source.take<std::uint16_t>() % bytes.size();
    switch (choice >> 2 & 7) {
    case 0:
        bytes.insert(at, source.takeText(source.takeBelow(32)));
        break;
    case 1:
        bytes.erase(at, source.takeBelow(64));
        break;
    case 2:
        bytes.resize(at);
        break;
    case 3:
        bytes += source.takeText(source.takeBelow(256));
        break;
    case 4:
        files.hasCoefficients = !files.hasCoefficients;
        break;
    default: {
        const std::string with = source.takeText(1 + source.takeBelow(12));
        bytes.replace(at, std::min(with.size(), bytes.size() - at), with);
        break;
    }
    }
}

std::string textOf(const VerifyReport& report) {
    std::string text;
    for (const auto* const list : {&report.findings.errors(), &report.findings.warnings()}) {
        for (const Finding& finding : *list) {
            text += finding.kind + ": " + finding.text() + '\n';
        }
    }
    return text + std::to_string(report.cells) + ' ' + std::to_string(report.splatsHeld) + ' ' +
           std::to_string(report.splatsLeftOut);
}

VerifyReport verify(const fs::path& folder) {
    VerifyOptions options;
    options.level = VerifyLevel::full;
    return verifyDataset(folder, options);
}

// The reader's result as text; the error's text when the folder cannot be opened or a file is too short.
std::string load(const fs::path& folder) {
    try {
        const Dataset dataset = Dataset::open(folder);
        const std::vector<LoadedSplat> splats = loadWhole(dataset, 100'000);
        return std::to_string(splats.size());
    } catch (const DatasetError& error) {
        fuzz::require(*error.what() != '\0', "an error has a text");
        return std::string("error ") + error.what();
    }
}

// A document that is read, written and read again must be the same.
void checkMetaText(const std::string& text) {
    Findings findings;
    const std::optional<Meta> meta = parseMeta(text, findings);
    fuzz::require(meta.has_value() || findings.errorCount() > 0, "a document that is refused has an error");
    if (!meta || findings.errorCount() > 0) {
        return;
    }
    const std::string written = renderMeta(*meta, "\n");
    Findings again;
    const std::optional<Meta> reread = parseMeta(written, again);
    fuzz::require(reread.has_value() && again.errorCount() == 0, "a written document is read: " + written);
    fuzz::requireEqual(renderMeta(*reread, "\n"), written, "the document written again");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    fuzz::Source source(data, size);
    const std::size_t choice = source.takeBelow(soundDatasets().size() + 1);
    if (choice == soundDatasets().size()) {
        checkMetaText(source.remaining());
        return 0;
    }
    Files files = soundDatasets()[choice];
    while (!source.isEmpty()) {
        damage(files, source);
    }
    const fs::path folder = fuzz::scratch() / "dataset";
    fs::remove_all(folder);
    writeFiles(folder, files);
    checkMetaText(files.meta);
    const VerifyReport report = verify(folder);
    const std::string text = textOf(report);
    const std::string loaded = load(folder);
    fuzz::require(!report.sound() || !loaded.starts_with("error"),
                  "a sound dataset can be loaded: " + loaded);
    fuzz::requireEqual(textOf(verify(folder)), text, "the second report");
    fuzz::requireEqual(load(folder), loaded, "the second loading");
    return 0;
}
