#include "src/indexer.h"

#include "src/chunker_decode.h"
#include "src/indexer_cells.h"
#include "src/indexer_quantise.h"
#include "src/kernels.h"

#include <algorithm>
#include <limits>
#include <utility>

namespace Tavrin::GaussionSplat {

void RecordArena::moveSpare(std::uint64_t page) {
    if (moveLargePage(spare.back(), block.get() + page * largePage)) {
        spare.pop_back();
        given = std::min(given, spare.size());
    }
}

std::uint64_t bytesOnLargePages(const std::vector<CellCount>& cells, std::uint64_t spareMemory,
                                std::uint64_t given) {
    std::uint64_t bytes = 0;
    std::uint64_t ahead = 0;
    for (const CellCount& cell : cells) {
        const std::uint64_t cellBytes = cell.splats * sizeof(SplatsData);
        const std::uint64_t bytesWithIt = bytes + cellBytes;
        ahead += std::min(cellBytes, largePage);
        const double fresh =
            1.0 - static_cast<double>(std::min(given, bytesWithIt)) / static_cast<double>(bytesWithIt);
        if (static_cast<double>(ahead) * fresh > static_cast<double>(spareMemory)) {
            return bytes;
        }
        bytes = bytesWithIt;
    }
    return bytes;
}

void CellTable::reserve(LODData& level, std::uint64_t spareMemory) {
    std::uint64_t total = 0;
    for (const CellCount& cell : counter.counts()) {
        total += cell.splats;
    }
    if (total > std::numeric_limits<std::size_t>::max() / sizeof(SplatsData)) {
        throw AllocationError();
    }
    const std::uint64_t bytes = total * sizeof(SplatsData);
    std::uint64_t given = 0;
    for (const LargeArray<std::byte>& room : rooms) {
        given += room.get_deleter().bytes;
    }
    // An ordinary page of its own, and what is known of it, count for every cell.
    const std::uint64_t ofCells = counter.counts().size() * (4096 + 300);
    const std::uint64_t largeBytes =
        bytesOnLargePages(counter.counts(), spareMemory - std::min(spareMemory, ofCells), given);
    try {
        arena = std::make_shared<RecordArena>(bytes, largeBytes);
    } catch (const std::bad_alloc&) {
        // Addresses are short. The memory that was given saves time alone, and has some to give back.
        rooms.clear();
        arena = std::make_shared<RecordArena>(bytes, largeBytes);
    }
    for (const LargeArray<std::byte>& room : rooms) {
        for (std::uint64_t at = 0; at < room.get_deleter().bytes; at += largePage) {
            arena->spare.push_back(room.get() + at);
        }
    }
    arena->given = arena->spare.size();
    for (const CellCount& cell : counter.counts()) {
        auto records = std::make_shared<SplatCell>(RecordAllocator<SplatsData>(arena));
        records->resize(cell.splats); // sets nothing: the allocator leaves records as they are
        filling.push_back({.next = records->data(), .settledEnd = records->data()});
        level.cells->emplace(cell.key, std::move(records));
    }
}

void CellTable::close() {
    arena->spare.erase(arena->spare.begin(),
                       arena->spare.begin() + static_cast<std::ptrdiff_t>(arena->given));
    arena->given = 0;
    rooms.clear();
}

namespace {

// Which cell a splat belongs to: the one cell with key 0, or the grid's.
struct CellRule {
    bool single;
    ChunkGrid grid;

    // Whether the chunk's cells are those of this rule.
    bool knows(const ChunkData& chunk) const { return !single && chunk.cells && chunk.cells->grid == grid; }

    // The keys of all its splats, or null where they have to be found.
    const std::uint32_t* keysOf(const ChunkData& chunk) const {
        return knows(chunk) ? chunk.cells->keys.get() : nullptr;
    }

    std::uint32_t keyOf(const float* splat) const {
        return single ? 0 : cellKey(splat[positionAt], splat[positionAt + 1], grid);
    }
};

struct LevelBuild {
    CellTable table;
    std::shared_ptr<LODData> lod = std::make_shared<LODData>();
};
using LevelBuilds = IndexMap<std::uint32_t, LevelBuild>;

void countSplats(const ChunkData& chunk, const CellRule& rule, std::size_t recordFloats, LevelBuild& build) {
    build.lod->splatCount += chunk.splatCount;
    CellCounter& counter = build.table.counter;
    if (rule.single) {
        if (chunk.splatCount > 0) {
            counter.add(0, chunk.splatCount);
        }
    } else if (rule.knows(chunk)) {
        for (const CellCount& cell : chunk.cells->counter.counts()) {
            counter.add(cell.key, cell.splats);
        }
    } else {
        for (std::uint64_t i = 0; i < chunk.splatCount; ++i) {
            counter.add(rule.keyOf(chunk.data + i * recordFloats), 1);
        }
    }
}

// Splats whose places are found, and whose cache lines are asked for, ahead of the work on them: records lie
// too far apart, and places too scattered, for the processor to foresee either. One splat's lines at a time,
// in between the work on others: a processor waits while more lines are on their way than it can keep track
// of.
constexpr std::size_t splatsAhead = 32;

void prefetchSplat(const float* splat, std::size_t recordFloats) {
    constexpr std::size_t lineFloats = cacheLine / sizeof(float);
    for (std::size_t at = 0; at < recordFloats; at += lineFloats) {
        prefetch(splat + at);
    }
}

// Quantise the splats of a chunk into their places.
void placeSplats(const ChunkData& chunk, const CellRule& rule, std::size_t recordFloats,
                 const FastQuantiser& quantiser, CellTable& table) {
    SplatsData* places[splatsAhead];
    const bool hasShcoef = recordFloats == recordLayout(true).floats;
    // The large pages of the block in which no splat is left to place go to the cells.
    const std::uint64_t recordBytes = recordFloats * sizeof(float);
    const std::uint64_t size = chunk.splatCount;
    auto* const bytes = reinterpret_cast<std::byte*>(chunk.data);
    std::uint64_t offered = 0;
    const std::uint32_t* const keys = rule.keysOf(chunk);
    const auto findPlace = [&](std::uint64_t i) {
        const float* const splat = chunk.data + i * recordFloats;
        SplatsData* const place = table.place(keys != nullptr ? keys[i] : rule.keyOf(splat));
        places[i % splatsAhead] = place;
        prefetch(place->position);
        if (hasShcoef) {
            prefetch(place->packed + 15); // the last line that a packed record reaches
        }
        prefetchSplat(splat, recordFloats);
    };
    for (std::uint64_t i = 0; i < std::min<std::uint64_t>(size, splatsAhead); ++i) {
        findPlace(i);
    }
    for (std::uint64_t i = 0; i < size; ++i) {
        quantiser.quantise(chunk.data + i * recordFloats, *places[i % splatsAhead]);
        if (i + splatsAhead < size) {
            findPlace(i + splatsAhead);
        }
        if (offered + largePage <= (i + 1) * recordBytes) {
            table.offer(bytes + offered);
            offered += largePage;
        }
    }
}

} // namespace

static_assert(indexedSplatBytes == sizeof(SplatsData));

// The cells of every level are counted first, so that no vector grows by copying; within a cell the records
// then follow the order of the chunk list and of each chunk.
void Indexer::buildIndex() {
    const QuantiseSettings settings = quantiseSettings(*bounding, compressed != 0);
    const FastQuantiser quantiser(settings);
    const CellRule rule{.single = splatCount <= singleCellSplats, .grid = chunkGrid};
    const std::size_t recordFloats = recordLayout(settings.hasShcoef).floats;
    LevelBuilds builds;
    std::uint64_t largestBlock = 0;
    for (const std::shared_ptr<ChunkData>& chunk : *chunks) {
        if (chunk) {
            largestBlock = std::max(largestBlock, chunk->splatCount * recordFloats * sizeof(float));
            countSplats(*chunk, rule, recordFloats, builds[chunk->level]);
            builds[chunk->level].table.give(std::move(chunk->room));
        }
    }
    // A block of input may be there beside the records, and a little that the process leaves of its share.
    constexpr std::uint64_t little = std::uint64_t{16} << 20;
    for (auto& [number, build] : builds) {
        build.table.reserve(*build.lod, (largestBlock + little) / builds.size());
        levels->emplace(number, build.lod);
    }
    for (std::shared_ptr<ChunkData>& chunk : *chunks) {
        if (chunk && chunk->data != nullptr) {
            CellTable& table = builds[chunk->level].table;
            placeSplats(*chunk, rule, recordFloats, quantiser, table);
            table.withdrawOffers();
            freeLarge(chunk->data, chunk->splatCount * recordFloats * sizeof(float));
            chunk.reset();
        }
    }
    for (auto& [number, build] : builds) {
        build.table.close();
    }
}

} // namespace Tavrin::GaussionSplat
