#include "src/indexer.h"

#include "src/indexer_cells.h"
#include "src/indexer_quantise.h"
#include "src/kernels.h"

#include <algorithm>
#include <map>
#include <new>
#include <utility>

namespace Tavrin::GaussionSplat {

void CellTable::makeCells(LODData& level) {
    const std::vector<CellCount>& counts = counter.counts();
    while (cells_.size() < counts.size()) {
        const CellCount& count = counts[cells_.size()];
        std::shared_ptr<SplatCell>& cell = (*level.cells)[count.key];
        if (!cell) {
            cell = std::make_shared<SplatCell>();
        }
        const std::size_t before = cell->size();
        cell->reserve(before + count.splats); // resize alone may take more
        cell->resize(before + count.splats);
        SplatsData* const first = cell->data() + before;
        cells_.push_back({.next = first, .backedEnd = first, .end = first + count.splats});
    }
}

void CellTable::reserve(LODData& level, std::uint64_t spareMemory) {
    try {
        makeCells(level);
    } catch (const std::bad_alloc&) {
        // Address space is short. The rooms only save time, and freeing them gives some back.
        memory.freeRooms();
        makeCells(level);
    }
    memory.prepare(cells_, spareMemory);
}

namespace {

// The rule that says which cell a splat belongs to: cell 0, or a cell of the grid.
struct CellRule {
    bool single;
    ChunkGrid grid;

    // Whether the block's cells were found by this rule.
    bool knows(const ChunkData& block) const { return !single && block.cells && block.cells->grid == grid; }

    // The keys of all splats of the block, or null where they still have to be computed.
    const std::uint32_t* keysOf(const ChunkData& block) const {
        return knows(block) ? block.cells->keys.get() : nullptr;
    }

    std::uint32_t keyOf(const float* splat) const {
        return single ? 0 : cellKey(splat[positionAt], splat[positionAt + 1], grid);
    }
};

struct LevelBuild {
    CellTable table;
    std::uint64_t splatCount = 0;
};
using LevelBuilds = std::map<std::uint32_t, LevelBuild>;

void countSplats(const ChunkData& block, const CellRule& rule, std::size_t recordFloats, LevelBuild& build) {
    build.splatCount += block.splatCount;
    CellCounter& counter = build.table.counter;
    if (rule.single) {
        if (block.splatCount > 0) {
            counter.add(0, block.splatCount);
        }
    } else if (rule.knows(block)) {
        for (const CellCount& cell : block.cells->counter.counts()) {
            counter.add(cell.key, cell.splats);
        }
    } else {
        for (std::uint64_t i = 0; i < block.splatCount; ++i) {
            counter.add(rule.keyOf(block.data + i * recordFloats), 1);
        }
    }
}

// Prefetch distance, in splats. The processor predicts neither records of this size nor scattered places. One
// splat is prefetched after each that is quantised: with more at once, the processor's fill buffers run out.
constexpr std::size_t splatsAhead = 32;

void prefetchSplat(const float* splat, std::size_t recordFloats) {
    constexpr std::size_t lineFloats = cacheLine / sizeof(float);
    for (std::size_t at = 0; at < recordFloats; at += lineFloats) {
        prefetch(splat + at);
    }
}

// Quantise the splats of a block into their places.
void placeSplats(const ChunkData& block, const CellRule& rule, std::size_t recordFloats,
                 const FastQuantiser& quantiser, CellTable& table) {
    SplatsData* places[splatsAhead];
    const bool hasCoefficients = recordFloats == recordLayout(true).floats;
    // The block donates each huge page as soon as all splats in it are placed.
    const std::uint64_t recordBytes = recordFloats * sizeof(float);
    const std::uint64_t size = block.splatCount;
    auto* const bytes = reinterpret_cast<std::byte*>(block.data);
    std::uint64_t donated = 0;
    const std::uint32_t* const keys = rule.keysOf(block);
    const auto findPlace = [&](std::uint64_t i) {
        const float* const splat = block.data + i * recordFloats;
        SplatsData* const place = table.place(keys != nullptr ? keys[i] : rule.keyOf(splat));
        places[i % splatsAhead] = place;
        prefetch(place->position);
        if (hasCoefficients) {
            prefetch(place->packed + 15); // the last line that a packed record reaches
        }
        prefetchSplat(splat, recordFloats);
    };
    for (std::uint64_t i = 0; i < std::min<std::uint64_t>(size, splatsAhead); ++i) {
        findPlace(i);
    }
    for (std::uint64_t i = 0; i < size; ++i) {
        quantiser.quantise(block.data + i * recordFloats, *places[i % splatsAhead]);
        if (i + splatsAhead < size) {
            findPlace(i + splatsAhead);
        }
        if (donated + largePage <= (i + 1) * recordBytes) {
            table.memory.donate(bytes + donated);
            donated += largePage;
        }
    }
}

} // namespace

static_assert(indexedSplatBytes == sizeof(SplatsData));

// The cells of every level are counted first, so that no vector grows by copying. The records of a cell
// follow the order of the block list, and in each block that of its splats.
void Indexer::buildIndex() {
    if (chunks->empty()) {
        return;
    }
    const QuantiseSettings settings = quantiseSettings(*bounding, compressed != 0);
    const FastQuantiser quantiser(settings);
    const CellRule rule{.single = splatCount <= singleCellSplats, .grid = chunkGrid};
    const std::size_t recordFloats = recordLayout(settings.hasCoefficients).floats;
    LevelBuilds builds;
    std::uint64_t largestBlock = 0;
    for (const std::shared_ptr<ChunkData>& block : *chunks) {
        if (block) {
            largestBlock = std::max(largestBlock, block->splatCount * recordFloats * sizeof(float));
            countSplats(*block, rule, recordFloats, builds[block->level]);
            builds[block->level].table.memory.give(std::move(block->room));
        }
    }
    // Besides the records, the formula allows one block of input and 64 MiB. All other needs of the process
    // take less than 48 MiB of these.
    constexpr std::uint64_t unused = std::uint64_t{16} << 20;
    for (auto& [number, build] : builds) {
        std::shared_ptr<LODData>& level = (*levels)[number];
        if (!level) {
            level = std::make_shared<LODData>();
        }
        build.table.reserve(*level, (largestBlock + unused) / builds.size());
        level->splatCount += static_cast<std::uint32_t>(build.splatCount);
    }
    for (std::shared_ptr<ChunkData>& block : *chunks) {
        if (block && block->data != nullptr) {
            CellTable& table = builds[block->level].table;
            placeSplats(*block, rule, recordFloats, quantiser, table);
            table.memory.withdrawDonations();
            freeLarge(block->data, block->splatCount * recordFloats * sizeof(float));
            block.reset();
        }
    }
}

} // namespace Tavrin::GaussionSplat
