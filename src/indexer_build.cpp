#include "src/chunker_decode.h"
#include "src/indexer.h"
#include "src/indexer_cells.h"
#include "src/indexer_quantise.h"

#include <algorithm>
#include <limits>
#include <utility>

namespace Tavrin::GaussionSplat {

void RecordArena::moveSpare(std::uint64_t page) {
    if (moveLargePage(spare.back(), block.get() + page * largePage)) {
        spare.pop_back();
    }
}

void CellTable::reserve(LODData& level) {
    std::uint64_t total = 0;
    for (const CellCount& cell : counter.counts()) {
        total += cell.splats;
    }
    if (total > std::numeric_limits<std::size_t>::max() / sizeof(SplatsData)) {
        throw AllocationError();
    }
    arena = std::make_shared<RecordArena>(total * sizeof(SplatsData));
    for (const CellCount& cell : counter.counts()) {
        auto records = std::make_shared<SplatCell>(RecordAllocator<SplatsData>(arena));
        records->resize(cell.splats); // sets nothing: the allocator leaves records as they are
        next.push_back(records->data());
        level.cells->emplace(cell.key, std::move(records));
    }
}

namespace {

// Which cell a splat belongs to: the one cell with key 0, or the grid's.
struct CellRule {
    bool single;
    ChunkGrid grid;

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
    } else if (chunk.cells && chunk.cells->grid == rule.grid) {
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
// too far apart, and places too scattered, for the processor to foresee either.
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
    // The large pages of the block in which no splat is left to place go to the cells. A block below their
    // size has none.
    const std::uint64_t recordBytes = recordFloats * sizeof(float);
    auto* const bytes = reinterpret_cast<std::byte*>(chunk.data);
    std::uint64_t offered = 0;
    for (std::uint64_t done = 0; done < chunk.splatCount;) {
        const std::uint64_t left = chunk.splatCount - done;
        const auto size = static_cast<std::size_t>(std::min<std::uint64_t>(left, splatsAhead));
        const float* const first = chunk.data + done * recordFloats;
        for (std::size_t i = 0; i < size; ++i) {
            places[i] = table.place(rule.keyOf(first + i * recordFloats));
            prefetch(places[i]->position);
            if (hasShcoef) {
                prefetch(places[i]->packed + 7); // the last line that a packed record reaches
            }
        }
        for (std::size_t i = 0; i < size; ++i) {
            const float* const splat = first + i * recordFloats;
            if (i + splatsAhead < left) {
                prefetchSplat(splat + splatsAhead * recordFloats, recordFloats);
            }
            quantiser.quantise(splat, *places[i]);
        }
        done += size;
        for (; chunk.splatCount * recordBytes >= largePage && offered + largePage <= done * recordBytes;
             offered += largePage) {
            table.offer(bytes + offered);
        }
    }
}

} // namespace

// The cells of every level are counted first, so that no vector grows by copying; within a cell the records
// then follow the order of the chunk list and of each chunk.
void Indexer::buildIndex() {
    const QuantiseSettings settings = quantiseSettings(*bounding, compressed != 0);
    const FastQuantiser quantiser(settings);
    const CellRule rule{.single = splatCount <= singleCellSplats, .grid = chunkGrid};
    const std::size_t recordFloats = recordLayout(settings.hasShcoef).floats;
    LevelBuilds builds;
    for (const std::shared_ptr<ChunkData>& chunk : *chunks) {
        if (chunk) {
            countSplats(*chunk, rule, recordFloats, builds[chunk->level]);
        }
    }
    for (auto& [number, build] : builds) {
        build.table.reserve(*build.lod);
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
}

} // namespace Tavrin::GaussionSplat
