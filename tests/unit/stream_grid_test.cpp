// Small scenes on the grids of large ones: cells beyond the bounds, colliding keys, little memory.

#include "stream/distinct_keys.h"
#include "tests/unit/stream_support.h"

#include <algorithm>
#include <set>

namespace Tavrin::SplatStream {

namespace {

using support::PlyFile;

constexpr std::uint64_t many = 1'000'001;

struct StreamGridTest : testing::Test {
    support::Scratch scratch;
    std::filesystem::path input = scratch / "scene.ply";

    Measured compare(const PlyFile& file, Settings settings, std::uint64_t countAs = many) {
        file.write(input);
        convertByLibraryAs(scratch, input, countAs);
        settings.countAs = countAs;
        const auto source = openScene(input);
        const Measured measured = stream(*source, support::pathBytes(input), scratch / "streamed", settings);
        expectSameDatasets(scratch / "streamed", scratch / "library");
        return measured;
    }
};

std::vector<std::string> bounds(float x, float y) {
    return {"comment minx " + std::to_string(-x),
            "comment miny " + std::to_string(-y),
            "comment maxx " + std::to_string(x),
            "comment maxy " + std::to_string(y),
            "comment minz -9",
            "comment maxz 9"};
}

TEST_F(StreamGridTest, CellsOfEveryCountThatChoosesThem) {
    for (const bool coefficients : {false, true}) {
        for (const std::uint64_t countAs :
             {std::uint64_t{1'000'000}, many, std::uint64_t{8'000'001}, std::uint64_t{100'000'001}}) {
            for (const float extent : {60.0f, 700.0f}) {
                SCOPED_TRACE(testing::Message() << coefficients << ' ' << countAs << ' ' << extent);
                const PlyFile file = support::randomFile(130, 700, coefficients, extent, extent / 2);
                const Measured measured = compare(file, settingsOf(3, 50), countAs);
                EXPECT_EQ(measured.cells.size() == 1, countAs == 1'000'000);
            }
        }
    }
}

TEST_F(StreamGridTest, WindowsAndThreads) {
    PlyFile file = support::randomFile(131, 900, true, 500.0f, 400.0f);
    file.comments = bounds(180.0f, 200.0f);
    for (const std::uint64_t window : {1u, 2u, 7u, 100u, 1024u}) {
        for (const unsigned threads : {1u, 2u, 5u}) {
            SCOPED_TRACE(testing::Message() << window << ' ' << threads);
            const Measured measured = compare(file, settingsOf(threads, window));
            EXPECT_GT(measured.leftOut, 0u);
            EXPECT_GT(measured.outside, 0u);
        }
    }
}

// More than 65,536 columns: different cells share keys, and the walk finds some keys twice.
TEST_F(StreamGridTest, WideGrids) {
    for (const auto& [x, y] : {std::pair(8e6f, 100.0f), std::pair(100.0f, 8e6f), std::pair(5e6f, 5e6f)}) {
        SCOPED_TRACE(x);
        PlyFile file = support::randomFile(132, 60, false, x, y);
        const PlyFile near = support::randomFile(133, 200, false, std::min(x, 200.0f), std::min(y, 200.0f));
        file.records.insert(file.records.end(), near.records.begin(), near.records.end());
        compare(file, settingsOf(2, 16));
    }
}

TEST_F(StreamGridTest, AwkwardPositions) {
    for (std::uint64_t seed = 0; seed < 30; ++seed) {
        PlyFile file = support::randomFile(seed, 150, seed % 2 == 0, 300.0f, 300.0f);
        file.comments = bounds(100.0f, 100.0f);
        support::Random random(seed);
        std::uint64_t notFinite = 0;
        for (std::size_t i = 0; i < file.count(); i += 3) {
            float* const position = &file.records[i * file.recordFloats()];
            position[random.next() % 2] = support::awkwardFloat(random);
        }
        for (std::size_t i = 0; i < file.count(); ++i) {
            const float* const position = &file.records[i * file.recordFloats()];
            notFinite +=
                std::all_of(position, position + 3, [](float v) { return std::isfinite(v); }) ? 0 : 1;
        }
        SCOPED_TRACE(seed);
        EXPECT_EQ(compare(file, settingsOf(2, 20)).notFinite, notFinite);
    }
}

// A memory limit changes what is kept in memory and the size of pages, but no byte of the dataset.
TEST_F(StreamGridTest, EveryAmountOfMemoryThatDoes) {
    for (const bool coefficients : {false, true}) {
        for (const bool isStated : {false, true}) {
            PlyFile file = support::randomFile(134, 3000, coefficients, 300.0f, 300.0f);
            if (isStated) {
                file.comments = bounds(140.0f, 140.0f);
            }
            for (std::uint64_t memory = 20'000; memory < 3'000'000; memory += memory / 7) {
                SCOPED_TRACE(testing::Message() << memory << " bytes");
                Settings settings = settingsOf(3, 16);
                settings.maxMemory = memory;
                settings.countAs = many;
                file.write(input);
                const auto source = openScene(input);
                try {
                    const Measured measured = measure(*source, settings);
                    EXPECT_LE(
                        measureMemory(*source, measured.occupiedCells, measured.repeatedCells, settings),
                        memory);
                    EXPECT_LE(placeMemory(measured, settings), memory);
                } catch (const TooLittleMemory& error) {
                    EXPECT_GT(error.least, memory);
                    continue;
                }
                compare(file, settings);
            }
        }
    }
}

std::uint64_t leastOf(const SplatSource::Source& source, Settings settings, std::uint64_t memory) {
    settings.maxMemory = memory;
    try {
        measure(source, settings);
    } catch (const TooLittleMemory& error) {
        return error.least;
    }
    return 0;
}

// Scenes with few and many cells, in the index, in it more than once, and left out, counted during the pass
// and after it.
TEST_F(StreamGridTest, EveryRefusalNamesWhatDoesAndNoMore) {
    for (const float extent : {20.0f, 150.0f, 1200.0f}) {
        for (const float reach : {0.0f, 0.4f, 10'000.0f}) { // of stated bounds, in extents; 0 for none
            SCOPED_TRACE(testing::Message() << extent << ' ' << reach);
            PlyFile file = support::randomFile(136, 3000, true, extent, extent);
            if (reach > 0.0f) {
                file.comments = bounds(extent * reach, extent * reach);
            }
            file.write(input);
            convertByLibraryAs(scratch, input, many);
            const auto source = openScene(input);
            for (const unsigned threads : {1u, 2u, 7u}) {
                Settings settings = settingsOf(threads, 16);
                settings.countAs = many;
                const std::uint64_t least = measure(*source, settings).leastMemory;
                for (std::uint64_t memory = 1; memory < least; memory += memory / 3 + 1) {
                    ASSERT_EQ(leastOf(*source, settings, memory), least) << memory;
                }
                EXPECT_EQ(leastOf(*source, settings, least - 1), least);
                settings.maxMemory = least;
                stream(*source, support::pathBytes(input), scratch / "streamed", settings);
                expectSameDatasets(scratch / "streamed", scratch / "library");
            }
        }
    }
}

// Each key would be listed a million times.
TEST_F(StreamGridTest, BoundsThatAreTooFarApartAreRefused) {
    PlyFile file = support::randomFile(138, 3000, false, 300.0f, 300.0f);
    file.comments = bounds(1e9f, 1e9f);
    file.write(input);
    const auto source = openScene(input);
    Settings settings = settingsOf(2, 16);
    settings.countAs = many;
    const std::uint64_t least = leastOf(*source, settings, std::uint64_t{1} << 30);
    EXPECT_GT(least, std::uint64_t{1} << 30);
    EXPECT_EQ(leastOf(*source, settings, 1000), least);
}

TEST_F(StreamGridTest, KeysAreCountedInAsManyPassesAsTheMemoryAsksFor) {
    support::Random random(137);
    std::vector<std::uint32_t> keys(20'000);
    for (std::uint32_t& key : keys) {
        // Keys of a grid of 100 by 150 cells.
        key = static_cast<std::uint32_t>(random.next() % 100 | random.next() % 150 << 16);
    }
    keys.insert(keys.end(), {65'535u, 65'535u << 16, UINT32_MAX});
    const std::set<std::uint32_t> expected(keys.begin(), keys.end());
    std::uint64_t sum = 0;
    for (const std::uint32_t key : expected) {
        sum += key % 7;
    }
    std::uint64_t before = UINT64_MAX;
    for (const std::uint64_t bytes : {0u, 16u << 10, 64u << 10, 1u << 20}) {
        std::uint64_t passes = 0;
        const auto pass = [&](const KeyVisitor& visit) {
            ++passes;
            for (std::size_t i = 0; i < keys.size(); i += 1000) {
                visit(&keys[i], std::min<std::size_t>(1000, keys.size() - i));
            }
        };
        const DistinctKeys counted =
            countDistinctKeys(bytes, pass, [](std::uint32_t key) { return key % 7; });
        EXPECT_EQ(counted.keys, expected.size()) << bytes;
        EXPECT_EQ(counted.sum, sum) << bytes;
        EXPECT_LT(passes, before) << bytes;
        before = passes;
    }
    EXPECT_EQ(before, 1u);
}

// A source may drop records. The dataset is then that of a scene without them.
struct EveryThird : SplatSource::Source {
    const SplatSource::Source& inner;

    explicit EveryThird(const SplatSource::Source& source) : inner(source) {
        count = source.count;
        hasCoefficients = source.hasCoefficients;
        params = source.params;
        boundsSeen = source.boundsSeen;
    }
    std::uint64_t read(std::uint64_t first, std::uint64_t size, float* records) const override {
        inner.read(first, size, records);
        const std::size_t floats = GaussionSplat::recordLayout(hasCoefficients).floats;
        std::uint64_t kept = 0;
        for (std::uint64_t i = 0; i < size; ++i) {
            if ((first + i) % 3 == 0) {
                std::copy_n(records + i * floats, floats, records + kept++ * floats);
            }
        }
        return kept;
    }
    void requireUnchanged() const override {}
};

TEST_F(StreamGridTest, DroppedRecordsAreNotThere) {
    for (const std::uint64_t countAs : {std::uint64_t{0}, many}) {
        for (const bool isStated : {false, true}) {
            PlyFile all = support::randomFile(135, 1000, true, 300.0f, 300.0f);
            if (isStated) {
                all.comments = bounds(140.0f, 140.0f);
            }
            PlyFile some = all;
            some.records.clear();
            for (std::size_t i = 0; i < all.count(); i += 3) {
                const auto record = all.records.begin() + static_cast<std::ptrdiff_t>(i * all.recordFloats());
                some.records.insert(some.records.end(), record,
                                    record + static_cast<std::ptrdiff_t>(all.recordFloats()));
            }
            Settings settings = settingsOf(2, 40);
            compare(some, settings, countAs == 0 ? some.count() : countAs);
            all.write(scratch / "all.ply");
            const auto source = openScene(scratch / "all.ply");
            const EveryThird dropping(*source);
            settings.countAs = countAs;
            const Measured measured =
                stream(dropping, support::pathBytes(input), scratch / "streamed", settings);
            EXPECT_EQ(measured.read, 1000u);
            EXPECT_EQ(measured.splats, 334u);
            expectSameDatasets(scratch / "streamed", scratch / "library");
        }
    }
}

} // namespace

} // namespace Tavrin::SplatStream
