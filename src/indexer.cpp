#include "src/indexer.h"

#include "src/runlog.h"

#include <thread>
#include <utility>

namespace Tavrin::GaussionSplat {

Indexer::Indexer(std::vector<SplatHeader> inputHeaders, std::string output, std::int32_t, std::int32_t)
    : headers(std::move(inputHeaders)), threadCount(std::thread::hardware_concurrency()),
      outputFolder(std::move(output)) {}

void Indexer::run(std::shared_ptr<AttributeBounding> sharedBounding, std::shared_ptr<BlockList> blockList,
                  std::uint64_t vertexCount, std::string label, std::uint64_t count,
                  std::shared_ptr<Params> sharedParams) {
    logInfo(LogLines::indexStarts);
    bounding = std::move(sharedBounding);
    params = std::move(sharedParams);
    chunks = std::move(blockList);
    totalSplats = vertexCount;
    countLabel = std::move(label);
    splatCount = count;
    buildIndex();
    logInfo(LogLines::dataStarts);
    writeDataFiles();
    logInfo(LogLines::indexFileStarts);
    writeIndexFile();
    logInfo(LogLines::metaStarts);
    writeMeta();
    logInfo(LogLines::allDone);
}

} // namespace Tavrin::GaussionSplat
