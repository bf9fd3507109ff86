#include "src/indexer_files.h"

#include "src/indexer.h"
#include "src/kernels.h"
#include "src/platform.h"
#include "src/runlog.h"

#include <algorithm>
#include <bit>
#include <cstring>
#include <fstream>
#include <iostream>
#include <tuple>

namespace Tavrin::GaussionSplat {

static_assert(std::endian::native == std::endian::little,
              "records are copied to the files as they lie in memory");

namespace {

// A column and row of the grid walk that gives the key of an occupied cell.
struct WalkStep {
    std::uint32_t column;
    std::uint32_t row;
    std::uint32_t key;
};

// Call visit(column, row) for every column and row below the counts that form this key. The key's low half is
// the column's low half. Each bit of its high half comes from the column's high half, the row's low half, or
// both. The row's high half is shifted out.
template <typename Visit>
void forEachStep(std::uint32_t key, std::uint32_t columns, std::uint32_t rows, Visit visit) {
    const std::uint32_t low = key & 0xFFFF;
    const std::uint32_t high = key >> 16;
    for (std::uint32_t part = 0;;
         part = (part - high) & high) { // every subset of the bits of high, ascending
        const std::uint64_t column = low | static_cast<std::uint64_t>(part) << 16;
        if (column >= columns) {
            return;
        }
        for (std::uint32_t shared = 0;;
             shared = (shared - part) & part) { // bits that column and row both carry
            for (std::uint64_t row = (high & ~part) | shared; row < rows; row += 0x10000) {
                visit(static_cast<std::uint32_t>(column), static_cast<std::uint32_t>(row));
            }
            if (shared == part) {
                break;
            }
        }
        if (part == high) {
            return;
        }
    }
}

// How many of the numbers below `end`, at most 65,536, have the bits of `set`, none outside `set | free`, and
// any of `free`. No bit is in both.
std::uint64_t countBelow(std::uint32_t end, std::uint32_t set, std::uint32_t free) {
    if (end > 0xFFFF) {
        return std::uint64_t{1} << std::popcount(free);
    }
    std::uint64_t count = 0;
    for (std::uint32_t bit = 0x8000; bit > 0; bit >>= 1) {
        // So far the number is the same as `end`. Where it gets a 0 for a 1, what follows is free.
        if ((end & bit) != 0 && (set & bit) == 0) {
            count += std::uint64_t{1} << std::popcount(free & (bit - 1));
        }
        const bool canFollow = (end & bit) != 0 ? ((set | free) & bit) != 0 : (set & bit) == 0;
        if (!canFollow) {
            break;
        }
    }
    return count;
}

[[noreturn]] void failIndexer(const char* message, std::int32_t line) {
    logError(message, indexerSource, line);
    endProcess(-1);
}

std::ofstream openOutput(const std::string& path, std::int32_t errorLine) {
    std::ofstream file(nativePath(path), std::ios::out | std::ios::binary | std::ios::trunc);
    if (!file) {
        failIndexer("cannot open data bin file,write file fail", errorLine);
    }
    return file;
}

template <typename Value>
void store(std::byte* place, Value value) {
    std::memcpy(place, &value, sizeof value);
}

} // namespace

std::vector<std::uint32_t> walkGrid(const ChunkGrid& grid, const LODData& level) {
    std::vector<std::uint32_t> occupied;
    occupied.reserve(level.cells->size());
    for (const auto& entry : *level.cells) {
        occupied.push_back(entry.first);
    }
    return walkGrid(grid, occupied);
}

std::vector<std::uint32_t> walkGrid(const ChunkGrid& grid, const std::vector<std::uint32_t>& occupied) {
    // A sparse scene with far-off bounds has up to 2^62 empty cells. So this loops over the occupied cells
    // and sorts them by column and row into the order of the walk.
    const auto columns = static_cast<std::uint32_t>(std::max(grid.cellCountX, 0));
    const auto rows = static_cast<std::uint32_t>(std::max(grid.cellCountY, 0));
    std::vector<WalkStep> steps;
    steps.reserve(occupied.size());
    for (const std::uint32_t key : occupied) {
        forEachStep(key, columns, rows, [&](std::uint32_t column, std::uint32_t row) {
            steps.push_back({column, row, key});
        });
    }
    std::sort(steps.begin(), steps.end(), [](const WalkStep& a, const WalkStep& b) {
        return std::tie(a.column, a.row) < std::tie(b.column, b.row);
    });
    std::vector<std::uint32_t> keys(steps.size());
    std::transform(steps.begin(), steps.end(), keys.begin(), [](const WalkStep& step) { return step.key; });
    return keys;
}

std::uint64_t countSteps(const ChunkGrid& grid, std::uint32_t key) {
    const auto columns = static_cast<std::uint32_t>(std::max(grid.cellCountX, 0));
    const auto rows = static_cast<std::uint32_t>(std::max(grid.cellCountY, 0));
    const std::uint32_t low = key & 0xFFFF;
    const std::uint32_t high = key >> 16;
    std::uint64_t count = 0;
    for (std::uint32_t part = 0;; part = (part - high) & high) { // as forEachStep
        if ((low | static_cast<std::uint64_t>(part) << 16) >= columns) {
            return count;
        }
        count += (rows >> 16) * (std::uint64_t{1} << std::popcount(part));
        count += countBelow(rows & 0xFFFF, high & ~part, part);
        if (part == high) {
            return count;
        }
    }
}

namespace {

// The runtime's write takes a 32-bit count on Windows, so each call gets less than that.
void writeBytes(std::ofstream& file, const std::byte* bytes, std::uint64_t size) {
    constexpr std::uint64_t most = std::uint64_t{1} << 30;
    while (size > 0) {
        const std::uint64_t count = std::min(size, most);
        file.write(reinterpret_cast<const char*>(bytes), static_cast<std::streamsize>(count));
        bytes += count;
        size -= count;
    }
}

// Records gathered for one write, across the ends of cells. The buffers, 96 bytes a record, stay in the
// second-level cache until they are written. Every write begins at a multiple of its size, so the system
// caches it in fewer and larger pieces. The files get the same bytes as from one write a cell.
constexpr std::size_t gatheredRecords = 4096;
constexpr std::size_t gatheredAhead = 32; // prefetch distance, in records

// Writes the cells of the list one after the other.
struct DataWriter {
    Indexer& indexer;
    bool hasCoefficients;
    std::ofstream dataFile;
    std::ofstream coefficientFile;
    std::size_t coefficientRecordSize;
    std::uint64_t offset = 0; // where the next splat stands in data.bin, bytes
    std::size_t gathered = 0; // records in the buffers
    std::vector<std::byte> dataBuffer = std::vector<std::byte>(gatheredRecords * dataRecordSize);
    std::vector<std::byte> coefficientBuffer =
        std::vector<std::byte>(hasCoefficients ? gatheredRecords * coefficientRecordSize : 0);

    SplatCell* findCell(std::int32_t level, std::uint32_t key) const {
        const auto lod = indexer.levels->find(static_cast<std::uint32_t>(level));
        if (lod == indexer.levels->end()) {
            return nullptr;
        }
        const auto cell = lod->second->cells->find(key);
        return cell == lod->second->cells->end() ? nullptr : cell->second.get();
    }

    // Fill in the index entry of a cell.
    void indexCell(std::uint32_t key, std::byte* entry) {
        store(entry, key);
        for (std::int32_t level = 0; level < indexer.totalLevel; ++level) {
            std::byte* const place = entry + 4 + std::ptrdiff_t{16} * level;
            const SplatCell* const cell = findCell(level, key);
            const std::uint64_t count = cell != nullptr ? cell->size() : 0;
            store(place, static_cast<std::uint32_t>(count));
            store(place + 4, cell != nullptr ? offset : std::uint64_t{0});
            store(place + 12, static_cast<std::uint32_t>(count * dataRecordSize));
            offset += count * dataRecordSize;
            std::cout << std::endl << std::endl;
        }
    }

    // Gather count adjacent records. The buffers must have room for them.
    void gatherRecords(const SplatsData* records, std::size_t count) {
        std::byte* data = dataBuffer.data() + gathered * dataRecordSize;
        std::byte* coefficients =
            coefficientBuffer.data() + (hasCoefficients ? gathered * coefficientRecordSize : 0);
        const bool packs = indexer.compressed != 0;
        for (std::size_t i = 0; i < count; ++i) {
            const SplatsData& record = records[i];
            if (i + gatheredAhead < count) {
                prefetch(records[i + gatheredAhead].position);
                prefetch(records[i + gatheredAhead].packed + 7);
            }
            std::memcpy(data, &record, dataRecordSize);
            data += dataRecordSize;
            if (hasCoefficients && packs) { // copies of a size known here need no call
                std::memcpy(coefficients, record.packed, packedCoefficientsSize);
                coefficients += packedCoefficientsSize;
            } else if (hasCoefficients) {
                std::memcpy(coefficients, record.raw, rawCoefficientsSize);
                coefficients += rawCoefficientsSize;
            }
        }
        gathered += count;
    }

    void writeGathered() {
        writeBytes(dataFile, dataBuffer.data(), gathered * dataRecordSize);
        if (hasCoefficients) {
            writeBytes(coefficientFile, coefficientBuffer.data(), gathered * coefficientRecordSize);
        }
        gathered = 0;
    }

    // Write a cell's splats, level by level, and empty the cell. The index states the cell's bytes in 32
    // bits. All records are written even where they do not fit.
    void writeCell(std::uint32_t key) {
        for (std::int32_t level = 0; level < indexer.totalLevel; ++level) {
            SplatCell* const cell = findCell(level, key);
            if (cell == nullptr) {
                continue;
            }
            for (std::size_t done = 0; done < cell->size();) {
                const std::size_t count = std::min(cell->size() - done, gatheredRecords - gathered);
                gatherRecords(cell->data() + done, count);
                done += count;
                if (gathered == gatheredRecords) {
                    writeGathered();
                }
            }
            cell->clear();
        }
    }

    // Call after the last cell.
    void finish() {
        writeGathered();
        dataFile.flush();
        coefficientFile.flush();
    }
};

} // namespace

void Indexer::writeDataFiles() {
    const bool hasCoefficients = bounding->hasShcoef;
    DataWriter writer{.indexer = *this,
                      .hasCoefficients = hasCoefficients,
                      .dataFile = openOutput(outputFolder + "/data.bin", 533),
                      .coefficientFile = {},
                      .coefficientRecordSize =
                          compressed != 0 ? packedCoefficientsSize : rawCoefficientsSize};
    if (hasCoefficients) {
        writer.coefficientFile = openOutput(outputFolder + "/shcoef.bin", 541);
    }
    const auto level0 = levels->find(0);
    if (level0 == levels->end()) {
        failIndexer("cannot GET lod0 data", hasCoefficients ? 548 : 708);
    }
    const std::vector<std::uint32_t> keys =
        splatCount > singleCellSplats ? walkGrid(chunkGrid, *level0->second) : std::vector<std::uint32_t>{0};
    indexEntrySize = static_cast<std::uint32_t>(totalLevel) << 4 | 4;
    indexBufferSize = std::uint64_t{indexEntrySize} * keys.size();
    indexBuffer = makeLargeArray<std::byte>(indexBufferSize);
    std::byte* entry = indexBuffer.get();
    for (const std::uint32_t key : keys) {
        writer.indexCell(key, entry);
        writer.writeCell(key);
        entry += indexEntrySize;
    }
    writer.finish();
    logInfo(LogLines::dataCreated(hasCoefficients));
    writer.dataFile.close();
    writer.coefficientFile.close();
    logInfo(LogLines::dataClosed(hasCoefficients));
}

void Indexer::writeIndexFile() {
    std::ofstream file = openOutput(outputFolder + "/index.bin", 850);
    writeBytes(file, indexBuffer.get(), indexBufferSize);
    file.flush();
    indexBuffer.reset();
}

} // namespace Tavrin::GaussionSplat
