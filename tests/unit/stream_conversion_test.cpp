// The streaming conversion gives the library's bytes: small scenes of every kind.

#include "tests/unit/stream_support.h"

namespace Tavrin::SplatStream {

namespace {

using support::PlyFile;

struct StreamTest : testing::Test {
    support::Scratch scratch;

    std::filesystem::path write(const PlyFile& file) const {
        file.write(scratch / "scene.ply");
        return scratch / "scene.ply";
    }
};

const std::vector<std::string> stated = {"comment minx -20", "comment miny -15", "comment minz -3",
                                         "comment maxx 20",  "comment maxy 15",  "comment maxz 9"};

TEST_F(StreamTest, RandomScenesUnderEveryWindowAndThreadCount) {
    for (const bool coefficients : {false, true}) {
        for (const bool bounds : {false, true}) {
            PlyFile file = support::randomFile(80, 300, coefficients);
            if (bounds) {
                file.comments = stated;
            }
            const auto input = write(file);
            convertByLibrary(scratch, input);
            const auto source = openScene(input);
            for (const std::uint64_t window : {1u, 3u, 64u, 299u, 300u, 1024u}) {
                for (const unsigned threads : {1u, 2u, 5u}) {
                    SCOPED_TRACE(testing::Message()
                                 << coefficients << bounds << ' ' << window << ' ' << threads);
                    stream(*source, support::pathBytes(input), scratch / "streamed",
                           settingsOf(threads, window));
                    expectSameDatasets(scratch / "streamed", scratch / "library");
                }
            }
        }
    }
}

TEST_F(StreamTest, AwkwardRecords) {
    for (std::uint64_t seed = 0; seed < 40; ++seed) {
        support::Random random(seed);
        PlyFile file;
        file.coefficients = seed % 2 == 1;
        if (seed % 3 == 0) {
            file.comments = stated;
        }
        const std::size_t count = 1 + random.next() % 70;
        for (std::size_t i = 0; i < count; ++i) {
            file.add(support::awkwardSplat(random));
        }
        SCOPED_TRACE(seed);
        compareConversions(scratch, write(file),
                           settingsOf(static_cast<unsigned>(1 + seed % 3), 1 + seed % 13));
    }
}

} // namespace

} // namespace Tavrin::SplatStream
