// chunkonce INPUT WORKERS: runs the chunker alone with a given number of workers, to measure what a worker
// adds.
#include "src/chunker.h"
#include "src/splatheader.h"

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <memory>

int main(int argc, char** argv) {
    using namespace Tavrin::GaussionSplat;
    if (argc != 3) {
        std::fputs("usage: chunkonce INPUT WORKERS\n", stderr);
        return 1;
    }
    try {
        SplatHeader header(argv[1], std::make_shared<Params>(), 1);
        const auto bounding = std::make_shared<AttributeBounding>();
        bounding->hasShcoef = header.hasShcoef;
        header.recordSize = header.hasShcoef ? recordSizeWithCoefficients : recordSizeWithoutCoefficients;
        const auto chunks = std::make_shared<BlockList>();
        Chunker chunker;
        chunker.headers = {header};
        chunker.threadCount = std::strtoull(argv[2], nullptr, 10);
        if (chunker.threadCount == 0) {
            std::fputs("chunkonce: one worker at least\n", stderr);
            return 1;
        }
        chunker.doChunking(bounding, chunks, "");
        releaseBlocks(*chunks, header.recordSize);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "chunkonce: %s\n", error.what());
        return 1;
    }
    return 0;
}
