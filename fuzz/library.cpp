#include "fuzz/library.h"

#include "include/plyconvert.h"
#include "src/indexer.h"
#include "src/runlog.h"

namespace fuzz {

using namespace Tavrin::GaussionSplat;

std::int32_t convertAs(const Job& job) {
    if (!checkSplatHeader(job.input)) {
        return PLYCONVERT_NOT_A_SPLAT_FILE;
    }
    const auto params = std::make_shared<Params>();
    SplatHeader header(job.input, params, 1);
    chooseGrid(job.countAs, header.bboxMin, header.bboxMax);
    const auto bounding = std::make_shared<AttributeBounding>();
    bounding->hasShcoef = header.hasShcoef;
    header.recordSize = header.hasShcoef ? recordSizeWithCoefficients : recordSizeWithoutCoefficients;
    const auto chunks = std::make_shared<BlockList>();
    std::filesystem::remove_all(job.output);
    std::filesystem::create_directories(job.output);
    openRunLog(job.output / "log.txt");
    Chunker chunker{.bounding = {}, .name = {}, .headers = {header}, .flag = 1, .threadCount = 2};
    chunker.doChunking(bounding, chunks, job.output);
    const auto count = static_cast<std::uint64_t>(job.countAs);
    Indexer indexer({header}, job.output);
    indexer.run(bounding, chunks, count, '[' + std::to_string(count) + ']', count, params);
    closeRunLog();
    return PLYCONVERT_DONE;
}

std::string filesOf(const std::filesystem::path& folder) {
    if (!std::filesystem::exists(folder)) {
        return "no folder";
    }
    std::string all;
    for (const char* const name :
         {"data.bin", "shcoef.bin", "index.bin", "converted_from_ply.ytr", "log.txt"}) {
        if (std::filesystem::exists(folder / name)) {
            std::string bytes = readFile(folder / name);
            const std::size_t guid = bytes.find("\t\"guid\": \"");
            if (guid != bytes.npos && bytes.front() == '{') {
                bytes.replace(guid + 10, 32, 32, '?');
            }
            all += std::string(name) + '\n' + bytes;
        }
    }
    return all;
}

} // namespace fuzz
