// Scenes of more than a million splats, their grids, and splats outside the grids.

#include "tests/unit/stream_support.h"

namespace Tavrin::SplatStream {

namespace {

using support::PlyFile;

struct StreamCellsTest : testing::Test {
    support::Scratch scratch;
    PlyFile file;

    // Adds splats that differ in position only.
    void addSplats(std::uint64_t seed, std::size_t count, float extentX, float extentY) {
        support::Random random(seed);
        const PlyFile few = support::randomFile(seed, 97, file.coefficients);
        file.records.reserve(count * file.recordFloats());
        while (file.count() < count) {
            const std::size_t from = file.count() % few.count() * file.recordFloats();
            file.records.insert(file.records.end(), few.records.begin() + static_cast<std::ptrdiff_t>(from),
                                few.records.begin() +
                                    static_cast<std::ptrdiff_t>(from + file.recordFloats()));
            float* const position = &file.records[file.records.size() - file.recordFloats()];
            position[0] = random.between(-extentX / 2, extentX / 2);
            position[1] = random.between(-extentY / 2, extentY / 2);
        }
    }

    void state(const char* minx, const char* miny, const char* maxx, const char* maxy) {
        file.comments = {std::string("comment minx ") + minx,
                         std::string("comment miny ") + miny,
                         std::string("comment maxx ") + maxx,
                         std::string("comment maxy ") + maxy,
                         "comment minz -1",
                         "comment maxz 1"};
    }

    // Converts by the library, and by the stream with these threads and windows, and compares.
    Measured compare(std::initializer_list<std::pair<unsigned, std::uint64_t>> ways) {
        const auto input = scratch / "scene.ply";
        file.write(input);
        convertByLibrary(scratch, input);
        const auto source = openScene(input);
        Measured measured;
        for (const auto& [threads, window] : ways) {
            SCOPED_TRACE(testing::Message() << threads << " threads, windows of " << window);
            measured =
                stream(*source, support::pathBytes(input), scratch / "streamed", settingsOf(threads, window));
            expectSameDatasets(scratch / "streamed", scratch / "library");
        }
        return measured;
    }
};

TEST_F(StreamCellsTest, AMillionIsOneCell) {
    addSplats(100, 1'000'000, 250.0f, 200.0f);
    EXPECT_EQ(compare({{2, 1024}}).cells.size(), 1u);
}

// Without stated bounds the library's scan steps over four records of this form at a time.
TEST_F(StreamCellsTest, OneMoreIsAGrid) {
    addSplats(101, 1'000'001, 250.0f, 200.0f);
    const Measured measured = compare({{1, 1024}, {2, 1000}, {5, 7}});
    EXPECT_GT(measured.cells.size(), 50u);
    EXPECT_FALSE(measured.isBoxStated);
}

TEST_F(StreamCellsTest, WithCoefficients) {
    file.coefficients = true;
    addSplats(102, 1'000'001, 250.0f, 200.0f);
    compare({{2, 1024}});
}

// Splats beyond the stated bounds lie in cells that the walk does not visit, or visits as another column: a
// negative index overflows into the other half of the key.
TEST_F(StreamCellsTest, SplatsOutsideTheStatedBounds) {
    addSplats(103, 1'000'001, 250.0f, 200.0f);
    state("-100", "-60", "70", "90");
    const Measured measured = compare({{1, 333}, {2, 1024}, {5, 31}});
    EXPECT_GT(measured.leftOut, 0u);
    EXPECT_GT(measured.outside, measured.leftOut);
}

TEST_F(StreamCellsTest, KeysThatRunTogether) {
    addSplats(104, 1'000'000, 90.0f, 90.0f);
    addSplats(108, 1'000'900, 9e6f, 90.0f);
    const Measured measured = compare({{2, 1024}});
    EXPECT_GT(measured.grid.cellCountX, 65536);
    std::uint64_t again = 0;
    for (const Cell& cell : measured.cells) {
        again += cell.splats == 0 ? 1 : 0;
    }
    EXPECT_GT(again, 0u) << "keys that the walk meets twice are what this scene is for";
}

TEST_F(StreamCellsTest, PositionsThatAreNoNumbers) {
    addSplats(105, 1'000'001, 250.0f, 200.0f);
    state("-125", "-100", "125", "100");
    support::Random random(106);
    for (int i = 0; i < 3000; ++i) {
        float* const position = &file.records[random.next() % file.count() * file.recordFloats()];
        position[random.next() % 3] = support::awkwardFloat(random);
    }
    EXPECT_GT(compare({{2, 1024}}).notFinite, 0u);
}

TEST_F(StreamCellsTest, FewSplatsInEachOfManyCells) {
    addSplats(107, 1'000'001, 6000.0f, 6000.0f);
    EXPECT_GE(compare({{2, 1024}}).cells.size(), 40'000u);
}

} // namespace

} // namespace Tavrin::SplatStream
