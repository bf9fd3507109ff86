// The INFO lines of a conversion, in the order in which they are written. Texts and numbers are part of the
// contract.
#pragma once

#include <cstdint>

namespace Tavrin::GaussionSplat {

// A path may follow the message.
struct RunLogLine {
    const char* message;
    const char* sourcePath;
    std::int32_t line;
};

namespace LogLines {

inline constexpr RunLogLine inputPath{"input data file:", "convert", 74};
inline constexpr RunLogLine outputPath{"out input file path:", "convert", 75};
inline constexpr RunLogLine chunkingStarts{"Start chunking... ", "src/chunker", 37};
inline constexpr RunLogLine chunkingEnds{"chunking finished . ", "src/chunker", 342};
inline constexpr RunLogLine indexStarts{"Start Index ,need a little time ... ", "src/indexer", 29};
inline constexpr RunLogLine dataStarts{"Index finished ,Start create Data... ", "src/indexer", 38};

// The line number depends on whether the input has coefficients.
constexpr RunLogLine dataCreated(bool hasCoefficients) {
    return {"Data create finished , free file stream... ", "src/indexer", hasCoefficients ? 694 : 827};
}
constexpr RunLogLine dataClosed(bool hasCoefficients) {
    return {"Data create finished , free file stream success.", "src/indexer", hasCoefficients ? 701 : 832};
}

inline constexpr RunLogLine indexFileStarts{"Index finished ,Start create Index... ", "src/indexer", 40};
inline constexpr RunLogLine metaStarts{"Index finished ,Start create meta data ", "src/indexer", 42};
inline constexpr RunLogLine allDone{"All tasks finished .", "src/indexer", 45};

} // namespace LogLines

} // namespace Tavrin::GaussionSplat
