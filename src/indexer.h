// The indexer: turns the decoded blocks into the files of the dataset, on the calling thread alone. This
// header declares all that a caller of the indexer names: the records and levels, the steps, and the texts of
// the meta document.
#pragma once

#include "src/cells.h"
#include "src/chunker.h"
#include "src/indexer_meta.h"
#include "src/indexer_records.h"
#include "src/large_pages.h"
#include "src/records.h"
#include "src/splatheader.h"

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace Tavrin::GaussionSplat {

struct Indexer {
    std::vector<SplatHeader> headers;
    std::uint32_t compressed = 1; // 1: packed coefficients, "COMPRESS"; 0: raw floats, "DEFAULT"
    std::uint32_t threadCount;    // recorded only
    std::shared_ptr<Params> params;
    std::shared_ptr<AttributeBounding> bounding;
    std::shared_ptr<BlockList> chunks;
    std::string outputFolder;
    std::int32_t totalLevel = 1; // levels written for each cell
    std::string countLabel;
    std::shared_ptr<LevelMap> levels = std::make_shared<LevelMap>(initialBuckets);
    LargeArray<std::byte> indexBuffer; // the content of index.bin, from writeDataFiles to writeIndexFile
    std::uint32_t indexEntrySize = 0;  // bytes of one cell's entry: totalLevel * 16 + 4
    std::uint64_t indexBufferSize = 0; // bytes
    std::uint64_t totalSplats = 0;     // vertex count of the input, reported in the meta document
    std::uint64_t splatCount = 0;      // the same, compared with singleCellSplats

    // The two integers are not used.
    Indexer(std::vector<SplatHeader> inputHeaders, std::string output, std::int32_t = 0, std::int32_t = 0);

    // Run every step from the block list to the finished folder, with an INFO line before each. When a file
    // cannot be opened or level 0 has no splats, it writes an ERROR line and ends the process with status -1.
    void run(std::shared_ptr<AttributeBounding> sharedBounding, std::shared_ptr<BlockList> blockList,
             std::uint64_t vertexCount, std::string label, std::uint64_t count,
             std::shared_ptr<Params> sharedParams);

    // Regroup every splat of the block list by level and cell into quantised records. Each block is freed
    // once it is regrouped. A level that already exists is added to. Does nothing when the list is empty;
    // bounding may then be null. Throws std::bad_alloc.
    void buildIndex();

    // Write data.bin, and shcoef.bin when the input has coefficients, cell by cell. Assemble indexBuffer, and
    // empty every cell written. Two empty lines go to standard output for each cell and level. Write errors
    // are not checked.
    void writeDataFiles();

    // Write indexBuffer to index.bin and free it.
    void writeIndexFile();

    // Write the meta document.
    void writeMeta();
};

} // namespace Tavrin::GaussionSplat
