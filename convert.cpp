// The exported entry point: the order of the pipeline.

#include "plyconvert.h"
#include "src/chunker.h"
#include "src/indexer.h"
#include "src/large_pages.h"
#include "src/platform.h"
#include "src/records.h"
#include "src/runlog.h"
#include "src/splatheader.h"

#include <filesystem>
#include <memory>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

namespace Tavrin::GaussionSplat {

namespace {

// Frees the decoded blocks that an exception leaves in the list.
struct ReleaseBlocks {
    BlockList& chunks;
    std::uint32_t recordSize;
    ~ReleaseBlocks() { releaseBlocks(chunks, recordSize); }
};

bool exists(const std::string& path) {
    const std::filesystem::path native = nativePath(path);
    std::error_code error;
    const std::filesystem::file_status status = std::filesystem::status(native, error);
    if (status.type() == std::filesystem::file_type::none) {
        throw std::filesystem::filesystem_error("exists", native, error);
    }
    return status.type() != std::filesystem::file_type::not_found;
}

// Removes output with everything under it, and creates it anew with all missing parents.
void recreateFolder(const std::string& output) {
    const std::filesystem::path native = nativePath(output);
    std::error_code error;
    if (exists(output)) {
        std::filesystem::remove_all(native, error);
        if (error) {
            throw std::filesystem::filesystem_error("remove_all", native, error);
        }
    }
    std::filesystem::create_directories(native, error);
    if (error) {
        throw std::filesystem::filesystem_error("create_directories", native, error);
    }
}

std::int32_t convert(const std::string& input, const std::string& output) {
    if (!exists(input)) {
        return PLYCONVERT_NO_INPUT;
    }
    if (!checkSplatHeader(input)) {
        return PLYCONVERT_NOT_A_SPLAT_FILE;
    }
    const auto params = std::make_shared<Params>();
    SplatHeader header(input, params, 1);
    const auto vertexCount = static_cast<std::uint64_t>(header.vertexCount);
    const std::string countLabel = '[' + std::to_string(vertexCount) + ']';
    const auto bounding = std::make_shared<AttributeBounding>();
    bounding->hasShcoef = header.hasShcoef;
    if (header.hasShcoef) {
        header.recordSize = recordSizeWithCoefficients;
    }
    const std::vector<SplatHeader> headers{header};
    const auto chunks = std::make_shared<BlockList>();
    const ReleaseBlocks release{*chunks, header.recordSize};

    // The header is read before anything is deleted: an input that is refused leaves the old folder
    // untouched.
    recreateFolder(output);
    openRunLog(output + "/log.txt");
    logInfo(LogLines::inputPath, input);
    logInfo(LogLines::outputPath, output);

    Chunker chunker{.bounding = {},
                    .name = {},
                    .headers = headers,
                    .flag = 1,
                    .threadCount = std::thread::hardware_concurrency()};
    chunker.doChunking(bounding, chunks, output);

    Indexer indexer(headers, output);
    indexer.run(bounding, chunks, vertexCount, countLabel, vertexCount, params);
    closeRunLog();
    return PLYCONVERT_DONE;
}

} // namespace

} // namespace Tavrin::GaussionSplat

std::int32_t plyConvert(const char* inputPath, const char* outputFolder) {
    using namespace Tavrin::GaussionSplat;
    const DefaultFloatEnvironment environment;
    const StandardStreams streams;
    try {
        return convert(inputPath, outputFolder);
    } catch (const AllocationError&) {
        throw;
    } catch (const std::bad_alloc&) {
        throw AllocationError(); // the same error with the library's own text
    }
}
