#include "src/chunker_decode.h"
#include "src/indexer.h"
#include "src/indexer_quantise.h"

#include <limits>
#include <utility>

namespace Tavrin::GaussionSplat {

namespace {

using CellCounts = IndexMap<std::uint32_t, std::uint64_t>; // splats by cell key

// The cells of one level while it is being built.
struct LevelBuild {
    CellCounts counts;
    std::shared_ptr<LODData> lod;
};
using LevelBuilds = IndexMap<std::uint32_t, LevelBuild>;

struct CellRule {
    bool single;
    ChunkGrid grid;

    std::uint32_t keyOf(const float* splat) const {
        return single ? 0 : cellKey(splat[positionAt], splat[positionAt + 1], grid);
    }
};

void countCells(const ChunkData& chunk, const CellRule& rule, std::size_t recordFloats, CellCounts& counts) {
    if (rule.single) {
        if (chunk.splatCount > 0) {
            counts[0] += chunk.splatCount;
        }
        return;
    }
    for (std::uint64_t i = 0; i < chunk.splatCount; ++i) {
        ++counts[rule.keyOf(chunk.data + i * recordFloats)];
    }
}

// Make a level's cells, each with room for exactly the splats it will hold. All share one large block.
void reserveCells(LevelBuild& level) {
    std::uint64_t total = 0;
    for (const auto& [key, count] : level.counts) {
        total += count;
    }
    if (total > std::numeric_limits<std::size_t>::max() / sizeof(SplatsData)) {
        throw AllocationError();
    }
    const auto arena = std::make_shared<RecordArena>(total * sizeof(SplatsData));
    for (const auto& [key, count] : level.counts) {
        auto cell = std::make_shared<SplatCell>(RecordAllocator<SplatsData>(arena));
        cell->reserve(count);
        level.lod->cells->emplace(key, std::move(cell));
    }
}

void appendSplats(const ChunkData& chunk, const CellRule& rule, const QuantiseSettings& settings,
                  LODData& lod) {
    const std::size_t recordFloats = recordLayout(settings.hasShcoef).floats;
    for (std::uint64_t i = 0; i < chunk.splatCount; ++i) {
        const float* const splat = chunk.data + i * recordFloats;
        SplatCell& cell = *lod.cells->find(rule.keyOf(splat))->second;
        quantiseSplat(splat, settings, cell.emplace_back());
    }
    lod.splatCount += chunk.splatCount;
}

} // namespace

// The cells of every level are counted first, so that no vector grows by copying; within a cell the records
// then follow the order of the chunk list and of each chunk.
void Indexer::buildIndex() {
    const QuantiseSettings settings = quantiseSettings(*bounding, compressed != 0);
    const CellRule rule{.single = splatCount <= singleCellSplats, .grid = chunkGrid};
    const std::size_t recordFloats = recordLayout(settings.hasShcoef).floats;
    LevelBuilds builds;
    for (const std::shared_ptr<ChunkData>& chunk : *chunks) {
        if (chunk) {
            countCells(*chunk, rule, recordFloats, builds[chunk->level].counts);
        }
    }
    for (auto& [number, build] : builds) {
        build.lod = std::make_shared<LODData>();
        reserveCells(build);
        levels->emplace(number, build.lod);
    }
    for (std::shared_ptr<ChunkData>& chunk : *chunks) {
        if (chunk && chunk->data != nullptr) {
            appendSplats(*chunk, rule, settings, *builds[chunk->level].lod);
            freeLarge(chunk->data);
            chunk.reset();
        }
    }
}

} // namespace Tavrin::GaussionSplat
