#include "src/indexer_meta.h"
#include "src/indexer_records.h"
#include "src/runlog.h"
#include "stream/output_file.h"
#include "stream/place.h"

#include <algorithm>
#include <cstring>

namespace Tavrin::SplatStream {

using namespace GaussionSplat;

namespace {

constexpr std::uint32_t indexEntrySize = 20;

// Texts have the line ends of the system's text files.
std::string withSystemLineEnds(const std::string& text) {
#if defined(_WIN32)
    std::string result;
    for (const char letter : text) {
        result += letter == '\n' ? "\r\n" : std::string(1, letter);
    }
    return result;
#else
    return text;
#endif
}

// The run log; every write is checked.
class Log {
public:
    explicit Log(const std::filesystem::path& path) : file_(path) {}

    void add(const RunLogLine& line, const std::string& rest = {}) {
        const std::string text = withSystemLineEnds(infoLine(line, rest) + '\n');
        file_.write(size_, text.data(), text.size());
        size_ += text.size();
    }

    void close() { file_.close(); }

private:
    OutputFile file_;
    std::uint64_t size_ = 0;
};

template <typename Value>
std::byte* store(std::byte* place, Value value) {
    std::memcpy(place, &value, sizeof value);
    return place + sizeof value;
}

void writeMeta(const Measured& measured, const std::filesystem::path& folder) {
    const std::string text =
        withSystemLineEnds(metaText({.params = measured.params,
                                     .bounding = measured.bounding,
                                     .grid = measured.grid,
                                     .bboxMin = measured.bboxMin,
                                     .bboxMax = measured.bboxMax,
                                     .splats = measured.countedSplats,
                                     .totalLevel = 1,
                                     .indexEntrySize = indexEntrySize,
                                     .countLabel = '[' + std::to_string(measured.countedSplats) + ']',
                                     .compressed = true}));
    OutputFile file(folder / metaFileName);
    file.write(0, text.data(), text.size());
    file.close();
}

} // namespace

// An entry's counts and bytes are 32 bits wide: larger ones lose their high bits.
void writeIndex(const Measured& measured, const std::filesystem::path& folder) {
    constexpr std::size_t entriesAtOnce = 4096;
    OutputFile file(folder / "index.bin");
    std::vector<std::byte> entries(std::min(measured.cells.size(), entriesAtOnce) * indexEntrySize);
    std::uint64_t offset = 0; // in data.bin
    for (std::size_t first = 0; first < measured.cells.size(); first += entriesAtOnce) {
        const std::size_t count = std::min(measured.cells.size() - first, entriesAtOnce);
        std::byte* place = entries.data();
        for (std::size_t i = first; i < first + count; ++i) {
            const Cell& cell = measured.cells[i];
            place = store(place, cell.key);
            place = store(place, static_cast<std::uint32_t>(cell.splats));
            place = store(place, offset);
            place = store(place, static_cast<std::uint32_t>(cell.splats * dataRecordSize));
            offset += cell.splats * dataRecordSize;
        }
        file.write(first * indexEntrySize, entries.data(), count * indexEntrySize);
    }
    file.close();
}

void place(const SplatSource::Source& source, const Measured& measured, const std::filesystem::path& folder,
           const Settings& settings) {
    placeRecords(source, measured, folder, settings);
    writeIndex(measured, folder);
}

void writeDataset(const SplatSource::Source& source, const Measured& measured, const std::string& inputName,
                  const std::filesystem::path& folder, const Settings& settings) {
    Log log(folder / "log.txt");
    log.add(LogLines::inputPath, inputName);
    log.add(LogLines::outputPath, folder.string());
    log.add(LogLines::chunkingStarts);
    log.add(LogLines::chunkingEnds);
    log.add(LogLines::indexStarts);
    log.add(LogLines::dataStarts);
    placeRecords(source, measured, folder, settings);
    log.add(LogLines::dataCreated(measured.hasCoefficients));
    log.add(LogLines::dataClosed(measured.hasCoefficients));
    log.add(LogLines::indexFileStarts);
    writeIndex(measured, folder);
    log.add(LogLines::metaStarts);
    writeMeta(measured, folder);
    log.add(LogLines::allDone);
    log.close();
}

} // namespace Tavrin::SplatStream
