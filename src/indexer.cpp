#include "src/indexer.h"

#include "src/indexer_files.h"
#include "src/runlog.h"

#include <thread>
#include <utility>

namespace Tavrin::GaussionSplat {

Indexer::Indexer(std::vector<SplatHeader> inputHeaders, std::string output, std::int32_t, std::int32_t)
    : headers(std::move(inputHeaders)), threadCount(std::thread::hardware_concurrency()),
      outputFolder(std::move(output)) {}

void Indexer::run(std::shared_ptr<AttributeBounding> sharedBounding, std::shared_ptr<ChunkList> chunkList,
                  std::uint64_t vertexCount, std::string label, std::uint64_t count,
                  std::shared_ptr<Params> sharedParams) {
    logInfo("Start Index ,need a little time ... ", indexerSource, 29);
    bounding = std::move(sharedBounding);
    params = std::move(sharedParams);
    chunks = std::move(chunkList);
    totalSplats = vertexCount;
    countLabel = std::move(label);
    splatCount = count;
    buildIndex();
    logInfo("Index finished ,Start create Data... ", indexerSource, 38);
    writeDataFiles();
    logInfo("Index finished ,Start create Index... ", indexerSource, 40);
    writeIndexFile();
    logInfo("Index finished ,Start create meta data ", indexerSource, 42);
    writeMeta();
    logInfo("All tasks finished .", indexerSource, 45);
}

} // namespace Tavrin::GaussionSplat
