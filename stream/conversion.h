// The conversion of a scene of any size: two passes over a source, bounded memory, and the bytes of the
// library.
//
// measure reads the scene once and finds all that the dataset's texts and sizes depend on. place reads it
// again and writes every record to its final offset. Neither keeps the splats.
#pragma once

#include "source/source.h"
#include "src/cells.h"
#include "src/records.h"

#include <cstdint>
#include <filesystem>
#include <functional>
#include <stdexcept>
#include <string>
#include <system_error>
#include <vector>

namespace Tavrin::SplatStream {

// The conversion does not fit the stated memory. It fits `least` bytes, but not one byte less.
struct TooLittleMemory : std::runtime_error {
    TooLittleMemory(const std::string& text, std::uint64_t bytes) : std::runtime_error(text), least(bytes) {}
    std::uint64_t least;
};

// A file of the dataset cannot be created, written or closed. what() is one line: the file and the system's
// error.
struct WriteError : std::runtime_error {
    WriteError(const std::string& text, const std::error_code& error)
        : std::runtime_error(text), code(error) {}
    std::error_code code; // of the system
};

// The caller's choices. Of these, only countAs changes the bytes of the dataset.
struct Settings {
    unsigned threads = 1; // workers, at least 1
    // Bytes that a pass may allocate. If that is too little, finding out how much suffices takes up to 16
    // MiB.
    std::uint64_t maxMemory = UINT64_MAX;
    // Records that a worker reads at a time; 0: each pass chooses. Only tests set it.
    std::uint64_t windowRecords = 0;
    // Splats to assume for grid and texts; 0: those of the scene. Only tests set it.
    std::uint64_t countAs = 0;
    // Called now and then, by one thread at a time, with the number of splats that the pass has done. It may
    // throw to end the pass; measure or place then throws that exception.
    std::function<void(std::uint64_t splats)> progress;
};

// One occupied cell that the dataset lists.
struct Cell {
    std::uint32_t key = 0;
    std::uint64_t splats = 0;
};

// What one pass over the scene finds.
struct Measured {
    std::uint64_t read = 0;          // records of the input
    std::uint64_t splats = 0;        // of these, the ones that were not dropped
    std::uint64_t countedSplats = 0; // the same, or Settings::countAs: decides the grid and the texts
    bool hasCoefficients = false;
    GaussionSplat::Params params;
    bool isBoxStated = false;       // by the header; otherwise it is measured
    GaussionSplat::Vector3 bboxMin; // of the dataset
    GaussionSplat::Vector3 bboxMax;
    GaussionSplat::ChunkGrid grid;
    GaussionSplat::AttributeBounding bounding; // of decoded values, as the library finds them
    GaussionSplat::Vector3 positionMin;        // of the finite coordinates, axis by axis
    GaussionSplat::Vector3 positionMax;
    std::uint64_t notFinite = 0;     // splats with a coordinate that is not finite
    std::uint64_t outside = 0;       // splats outside the stated box
    std::vector<Cell> cells;         // in the order of index.bin
    std::uint64_t leftOut = 0;       // splats in no listed cell
    std::uint64_t occupiedCells = 0; // different keys of splats, listed or not
    std::uint64_t repeatedCells = 0; // listed cells whose key is that of an earlier one
    std::uint64_t leastMemory = 0;   // bytes that both passes need at least
};

// Reads the source once on settings.threads workers, and again if memory is short. Throws what the source
// throws, std::bad_alloc, or TooLittleMemory when measure or place does not fit settings.maxMemory.
Measured measure(const SplatSource::Source& source, const Settings& settings);

// Peak bytes that measure allocates with these settings for a scene of `cells` occupied and `repeated`
// repeated cells; at most settings.maxMemory if a conversion fits that.
std::uint64_t measureMemory(const SplatSource::Source& source, std::uint64_t cells, std::uint64_t repeated,
                            const Settings& settings);

// Peak bytes that place allocates with these settings; at most settings.maxMemory. Throws TooLittleMemory if
// that is impossible.
std::uint64_t placeMemory(const Measured& measured, const Settings& settings);

// Writes data.bin, shcoef.bin and index.bin of a measured scene into `folder`. The folder exists and holds at
// most the log. Throws what the source throws, WriteError, TooLittleMemory, or std::bad_alloc. Unfinished
// files stay for the caller to remove.
void place(const SplatSource::Source& source, const Measured& measured, const std::filesystem::path& folder,
           const Settings& settings);

// Turns measure's result into a whole dataset, as plyConvert(inputName, folderName) leaves it: log.txt, the
// files of place, and the meta document, in the library's order and with its log lines. The log gives these
// names. Throws as place does.
void writeDataset(const SplatSource::Source& source, const Measured& measured, const std::string& inputName,
                  const std::filesystem::path& folder, const Settings& settings);

} // namespace Tavrin::SplatStream
