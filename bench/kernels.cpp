// kernels: measures the inner loops of the converter one by one, over splats of the generated town, in splats
// (items) and bytes a second. --benchmark_filter=... chooses some.
#include "scenes/scenes.h"
#include "src/blocks.h"
#include "src/chunker_decode.h"
#include "src/chunker_elementary.h"
#include "src/indexer.h"
#include "src/indexer_quantise.h"
#include "src/splatheader.h"
#include "src/splatheader_scan.h"

#include <benchmark/benchmark.h>

#include <chrono>
#include <cstring>
#include <filesystem>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

namespace {

using namespace Tavrin::GaussionSplat;
using Clock = std::chrono::steady_clock;

constexpr std::uint64_t manySplats = 262'144; // 65 MB with coefficients: beyond the caches

const std::vector<float>& townRecords(bool coefficients) {
    static const auto make = [](bool with) {
        scenes::SceneOptions options;
        options.splats = manySplats;
        options.coefficients = with;
        return scenes::sceneRecords(options);
    };
    static const std::vector<float> withCoefficients = make(true);
    static const std::vector<float> withoutCoefficients = make(false);
    return coefficients ? withCoefficients : withoutCoefficients;
}

// The town as the chunker leaves it, and its ranges.
struct Decoded {
    std::vector<float> records;
    AttributeBounding bounding;
};

const Decoded& decodedTown(bool coefficients) {
    static const auto make = [](bool with) {
        Decoded decoded{.records = townRecords(with), .bounding = {}};
        BlockRanges ranges;
        decodeRecords(decoded.records.data(), manySplats, with, ranges);
        decoded.bounding.hasShcoef = with;
        widen(decoded.bounding, ranges, with);
        return decoded;
    };
    static const Decoded withCoefficients = make(true);
    static const Decoded withoutCoefficients = make(false);
    return coefficients ? withCoefficients : withoutCoefficients;
}

void count(benchmark::State& state, std::uint64_t splats, std::uint64_t bytesEach) {
    state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations() * splats));
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * splats * bytesEach));
}

template <typename Work>
void timeAlone(benchmark::State& state, Work work) {
    const Clock::time_point begin = Clock::now();
    work();
    state.SetIterationTime(std::chrono::duration<double>(Clock::now() - begin).count());
}

// One window in the second-level cache, as a worker of the chunker finds it after reading.
void decodeWindow(benchmark::State& state) {
    const bool coefficients = state.range(0) != 0;
    const std::vector<float>& town = townRecords(coefficients);
    const std::size_t floats = recordLayout(coefficients).floats;
    std::vector<float> window(windowRecords * floats);
    std::size_t at = 0;
    BlockRanges ranges;
    for (auto _ : state) {
        std::memcpy(window.data(), town.data() + at, window.size() * sizeof(float));
        at = at + 2 * window.size() <= town.size() ? at + window.size() : 0;
        timeAlone(state, [&] { decodeRecords(window.data(), windowRecords, coefficients, ranges); });
        benchmark::ClobberMemory();
    }
    count(state, windowRecords, floats * sizeof(float));
}
BENCHMARK(decodeWindow)->ArgName("coefficients")->Arg(1)->Arg(0)->UseManualTime();

// The plain form of the same work.
void decodeOneByOne(benchmark::State& state) {
    const bool coefficients = state.range(0) != 0;
    const std::vector<float>& town = townRecords(coefficients);
    const std::size_t floats = recordLayout(coefficients).floats;
    std::vector<float> window(windowRecords * floats);
    BlockRanges ranges;
    for (auto _ : state) {
        std::memcpy(window.data(), town.data(), window.size() * sizeof(float));
        timeAlone(state, [&] {
            for (std::size_t k = 0; k < windowRecords; ++k) {
                decodeRecord(window.data() + k * floats, coefficients, ranges);
            }
        });
        benchmark::ClobberMemory();
    }
    count(state, windowRecords, floats * sizeof(float));
}
BENCHMARK(decodeOneByOne)->ArgName("coefficients")->Arg(1)->Arg(0)->UseManualTime();

void widenRange(benchmark::State& state) {
    const std::vector<float>& town = townRecords(true);
    for (auto _ : state) {
        ValueRange range;
        for (std::size_t k = 0; k < windowRecords * layoutWithCoefficients.floats; ++k) {
            range.widen(town[k]);
        }
        benchmark::DoNotOptimize(range);
    }
    count(state, windowRecords * layoutWithCoefficients.floats, sizeof(float));
}
BENCHMARK(widenRange);

void exponentials(benchmark::State& state) {
    std::vector<float> values(4096);
    std::vector<float> results(values.size());
    for (std::size_t k = 0; k < values.size(); ++k) {
        values[k] = -12.0f + 16.0f * static_cast<float>(k) / static_cast<float>(values.size());
    }
    for (auto _ : state) {
        for (std::size_t k = 0; k < values.size(); ++k) {
            results[k] = exponential(values[k]);
        }
        benchmark::ClobberMemory();
    }
    count(state, values.size(), sizeof(float));
}
BENCHMARK(exponentials);

// Quantises a window of decoded splats into records that stay in the cache.
template <typename Quantise>
void quantiseWindow(benchmark::State& state, const Decoded& town, std::size_t floats, Quantise quantise) {
    std::vector<SplatsData> records(windowRecords);
    std::size_t first = 0;
    for (auto _ : state) {
        for (std::size_t k = 0; k < windowRecords; ++k) {
            quantise(town.records.data() + (first + k) * floats, records[k]);
        }
        first = first + 2 * windowRecords <= manySplats ? first + windowRecords : 0;
        benchmark::ClobberMemory();
    }
    count(state, windowRecords, floats * sizeof(float));
}

void quantise(benchmark::State& state) {
    const bool coefficients = state.range(0) != 0;
    const Decoded& town = decodedTown(coefficients);
    const FastQuantiser quantiser(quantiseSettings(town.bounding, true));
    quantiseWindow(state, town, recordLayout(coefficients).floats,
                   [&](const float* splat, SplatsData& record) { quantiser.quantise(splat, record); });
}
BENCHMARK(quantise)->ArgName("coefficients")->Arg(1)->Arg(0);

// The plain form of the same work.
void quantiseOneByOne(benchmark::State& state) {
    const bool coefficients = state.range(0) != 0;
    const Decoded& town = decodedTown(coefficients);
    const QuantiseSettings settings = quantiseSettings(town.bounding, true);
    quantiseWindow(state, town, recordLayout(coefficients).floats,
                   [&](const float* splat, SplatsData& record) { quantiseSplat(splat, settings, record); });
}
BENCHMARK(quantiseOneByOne)->ArgName("coefficients")->Arg(1)->Arg(0);

void keys(benchmark::State& state) {
    const std::vector<float>& town = townRecords(true);
    const ChunkGrid grid{.cellSizeX = 15.0f,
                         .cellSizeY = 15.0f,
                         .originX = -125.0f,
                         .originY = -100.0f,
                         .cellCountX = 17,
                         .cellCountY = 14};
    std::vector<std::uint32_t> found(manySplats);
    for (auto _ : state) {
        cellKeys(town.data(), layoutWithCoefficients.floats, manySplats, grid, found.data());
        benchmark::ClobberMemory();
    }
    count(state, manySplats, layoutWithCoefficients.floats * sizeof(float));
}
BENCHMARK(keys);

// A folder in memory where the system has one, so that no disk is measured.
class Folder {
public:
    Folder() {
        const std::filesystem::path shared = "/dev/shm";
        const std::filesystem::path parent =
            std::filesystem::is_directory(shared) ? shared : std::filesystem::temp_directory_path();
        path = (parent / ("plyconvert-kernels-" + std::to_string(Clock::now().time_since_epoch().count())))
                   .string();
        std::filesystem::create_directories(path);
    }
    ~Folder() {
        std::error_code ignored;
        std::filesystem::remove_all(path, ignored);
    }
    Folder(const Folder&) = delete;
    Folder& operator=(const Folder&) = delete;

    std::string path;
};

// An indexer that holds the town as one block, ready for buildIndex; cells metres wide, 0 for a single cell.
std::unique_ptr<Indexer> indexerOfTown(const Decoded& town, int cells, const std::string& output) {
    auto block = std::make_shared<ChunkData>();
    block->splatCount = static_cast<std::uint32_t>(manySplats);
    LargeArray<float> records = makeLargeArray<float>(town.records.size());
    std::memcpy(records.get(), town.records.data(), town.records.size() * sizeof(float));
    block->data = records.release();
    auto indexer = std::make_unique<Indexer>(std::vector<SplatHeader>(1), output);
    indexer->bounding = std::make_shared<AttributeBounding>(town.bounding);
    indexer->chunks = std::make_shared<BlockList>(BlockList{block});
    indexer->splatCount =
        cells == 0 ? singleCellSplats : singleCellSplats + 1; // decides whether there is a grid
    const float size = static_cast<float>(cells);
    chunkGrid = {.cellSizeX = size,
                 .cellSizeY = size,
                 .originX = -125.0f,
                 .originY = -100.0f,
                 .cellCountX = cells == 0 ? 0 : 250 / cells + 1,
                 .cellCountY = cells == 0 ? 0 : 200 / cells + 1};
    return indexer;
}

void group(benchmark::State& state) {
    const Decoded& town = decodedTown(state.range(0) != 0);
    for (auto _ : state) {
        const auto indexer = indexerOfTown(town, static_cast<int>(state.range(1)), "");
        timeAlone(state, [&] { indexer->buildIndex(); });
    }
    count(state, manySplats, sizeof(SplatsData));
}
BENCHMARK(group)
    ->ArgNames({"coefficients", "cell"})
    ->Args({1, 0})
    ->Args({1, 30})
    ->Args({1, 15})
    ->Args({0, 30})
    ->UseManualTime();

// The gather of every cell's records and its two writes, to files in memory.
void gather(benchmark::State& state) {
    const bool coefficients = state.range(0) != 0;
    const Decoded& town = decodedTown(coefficients);
    const Folder folder;
    std::streambuf* const before = std::cout.rdbuf(nullptr); // the writer's empty lines
    for (auto _ : state) {
        const auto indexer = indexerOfTown(town, static_cast<int>(state.range(1)), folder.path);
        indexer->buildIndex();
        timeAlone(state, [&] { indexer->writeDataFiles(); });
    }
    std::cout.clear();
    std::cout.rdbuf(before);
    count(state, manySplats, dataRecordSize + (coefficients ? packedCoefficientsSize : 0));
}
BENCHMARK(gather)
    ->ArgNames({"coefficients", "cell"})
    ->Args({1, 0})
    ->Args({1, 15})
    ->Args({0, 15})
    ->UseManualTime();

scenes::SceneOptions fileOptions(bool statedBounds) {
    scenes::SceneOptions options;
    options.splats = manySplats;
    options.statedBounds = statedBounds;
    return options;
}

// Opens, reads and closes the header of a scene that states its bounds.
void readHeader(benchmark::State& state) {
    const Folder folder;
    const std::string path = folder.path + "/scene.ply";
    scenes::writeScene(path, fileOptions(true));
    for (auto _ : state) {
        SplatHeader header(path, std::make_shared<Params>(), 1);
        benchmark::DoNotOptimize(header.headerEnd);
    }
    state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations()));
}
BENCHMARK(readHeader);

// The bounding-box scan of one block by one worker, with its reads.
void scan(benchmark::State& state) {
    const Folder folder;
    const std::string path = folder.path + "/scene.ply";
    scenes::writeScene(path, fileOptions(false));
    const SplatHeader::Task task{.path = path,
                                 .stride = scanStride,
                                 .count = manySplats,
                                 .first = 0,
                                 .offset = std::filesystem::file_size(path) - manySplats * scanStride,
                                 .length = manySplats * scanStride};
    for (auto _ : state) {
        ScanPass pass;
        scanBlock(task, pass);
        benchmark::DoNotOptimize(pass.max);
    }
    count(state, manySplats, scanStride);
}
BENCHMARK(scan);

} // namespace
