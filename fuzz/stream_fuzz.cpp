// The streaming conversion of a small file must give the library's bytes with any windows, threads and
// memory, and must refuse a file that ends before its last record.
//
// An input is three bytes (threads, records of a window, memory) followed by an input of conversion_fuzz.

#include "fuzz/library.h"
#include "fuzz/process_end.h"
#include "fuzz/scene.h"
#include "fuzz/target.h"
#include "include/plyconvert.h"
#include "src/blocks.h"
#include "src/splatheader.h"
#include "stream/canonical_scene.h"
#include "stream/conversion.h"
#include "tests/support/dataset_writer.h"

#include <memory>
#include <optional>
#include <stdexcept>

namespace {

namespace fs = std::filesystem;
using namespace Tavrin::GaussionSplat;
using Tavrin::SplatSource::CanonicalPly;
using Tavrin::SplatStream::Measured;
using Tavrin::SplatStream::Settings;
using Tavrin::SplatStream::TooLittleMemory;

constexpr long long mostRecords = 400;
// Of a conversion, bytes. Scenes whose bounds are so far apart that the index takes more are not converted.
constexpr std::uint64_t mostMemory = std::uint64_t{32} << 20;

// The header's content; nothing if the library finds no scene.
struct Opened {
    std::optional<SplatHeader> header;
    Params params;
};

Opened readHeader(const fs::path& path) {
    Opened opened;
    if (!checkSplatHeader(path)) {
        return opened;
    }
    try {
        opened.header = readSplatHeader(path, opened.params);
    } catch (const std::logic_error&) { // numbers
    }
    return opened;
}

// Skips huge grids: walking over them takes long, which is no finding.
bool isGridSmall(const ChunkGrid& grid) {
    const std::int64_t columns = grid.cellCountX / 65536 + 1;
    const std::int64_t rows = grid.cellCountY / 65536 + 1;
    return columns * rows <= 64;
}

bool isRefused(const CanonicalPly& source, Settings settings, std::uint64_t memory) {
    settings.maxMemory = memory;
    try {
        measure(source, settings);
    } catch (const TooLittleMemory& error) {
        return error.least == memory + 1;
    }
    return false;
}

// Nothing when the grid is too large.
std::optional<Measured> convertAsStream(const fuzz::Job& job, const CanonicalPly& source,
                                        Settings& settings) {
    for (int attempt = 0;; ++attempt) {
        try {
            const Measured measured = measure(source, settings);
            if (!isGridSmall(measured.grid)) {
                return std::nullopt;
            }
            fs::remove_all(job.output);
            fs::create_directories(job.output);
            Tavrin::SplatStream::writeDataset(source, measured, job.input, job.output, settings);
            return measured;
        } catch (const TooLittleMemory& error) {
            fuzz::require(error.least > settings.maxMemory, "the least is more than there was");
            fuzz::require(attempt == 0, "what is said to do does");
            if (error.least > mostMemory) {
                return std::nullopt;
            }
            settings.maxMemory = error.least;
            fuzz::require(isRefused(source, settings, error.least - 1), "less does not");
        }
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    fuzz::Source source(data, size);
    Settings settings;
    settings.threads = 1 + static_cast<unsigned>(source.takeBelow(4));
    settings.windowRecords = 1 + source.takeBelow(32);
    const std::size_t memory = source.takeBelow(256);
    settings.maxMemory = memory == 0 ? mostMemory : memory * 1024;
    const fuzz::Scene scene = fuzz::sceneOf(source);
    if (!fuzz::statesAtMost(scene.file, mostRecords)) {
        return -1;
    }
    fuzz::Job job;
    job.countAs = fuzz::statedCounts[scene.countChoice % std::size(fuzz::statedCounts)];
    settings.countAs = static_cast<std::uint64_t>(job.countAs);
    DatasetWriter::writeFile(job.input, scene.file);
    const Opened opened = readHeader(job.input);
    if (!opened.header || opened.header->vertexCount < 1) {
        return 0;
    }
    const auto bytes =
        static_cast<std::uint64_t>(opened.header->vertexCount) *
        (opened.header->hasShcoef ? recordSizeWithCoefficients : recordSizeWithoutCoefficients);
    const bool isWhole =
        opened.header->fileSize - static_cast<std::uint64_t>(opened.header->headerEnd) >= bytes;
    std::unique_ptr<CanonicalPly> ply;
    try {
        ply = Tavrin::SplatStream::openCanonicalScene(job.input, *opened.header, opened.params);
    } catch (const Tavrin::SplatSource::SourceError&) {
        fuzz::require(!isWhole, "a whole file is taken");
        return 0;
    }
    fuzz::require(isWhole, "a file that is cut is refused");
    if (!convertAsStream(job, *ply, settings)) {
        return 0;
    }
    const std::string streamed = fuzz::filesOf(job.output);
    blockSplats = scene.blockSplats;
    chunkGrid = {}; // as in a fresh process
    const std::int32_t result =
        job.countAs > 0 ? fuzz::convertAs(job) : plyConvert(job.input.c_str(), job.output.c_str());
    fuzz::require(result == PLYCONVERT_DONE, "the library converts what the stream does");
    // convertAs does not write the two lines of the entry point.
    std::string library = fuzz::filesOf(job.output);
    if (job.countAs > 0) {
        const std::string log = "log.txt\n";
        library.insert(library.rfind(log) + log.size(),
                       "INFO(convert:74): input data file:" + job.input.string() +
                           "\nINFO(convert:75): out input file path:" + job.output.string() + '\n');
    }
    fuzz::requireEqual(streamed, library, "the dataset");
    return 0;
}
