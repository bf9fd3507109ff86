// Publishing a finished dataset, and cleaning up after dead runs.
#include "program/convert/publish.h"
#include "program/system/exit_status.h"
#include "tests/support/dataset_writer.h"
#include "tests/support/files.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <limits>
#include <set>
#include <string>
#include <vector>

namespace Tavrin::SplatProgram {
namespace {

namespace fs = std::filesystem;
using testing::HasSubstr;

// A process id that no system uses.
constexpr std::uint64_t deadProcess = std::numeric_limits<std::uint32_t>::max();

class Publish : public testing::Test {
protected:
    support::Scratch scratch;
    fs::path out = scratch / "out";
    std::string input = support::textOf(scratch / "in.ply");

    void SetUp() override { support::writeFile(scratch / "in.ply", "ply"); }

    // The output place as a conversion resolves it.
    OutputPlace placeOf(const fs::path& folder, bool force = false) const {
        OutputPlace place = resolveOutput(support::textOf(folder));
        checkOutput(place, input, force);
        return place;
    }

    // Writes a sound dataset with `splats` splats, by which datasets are told apart.
    static void writeDataset(const fs::path& folder, std::size_t splats) {
        DatasetWriter::writeFiles(
            folder, DatasetWriter::oneCellFiles(std::vector<DatasetWriter::StoredSplat>(splats)));
    }

    static std::size_t splatsOf(const fs::path& folder) {
        return static_cast<std::size_t>(fs::file_size(folder / "data.bin")) / 32;
    }

    // The names in the scratch folder.
    std::set<std::string> names() const {
        std::set<std::string> found;
        for (const fs::directory_entry& entry : fs::directory_iterator(scratch.folder())) {
            found.insert(support::textOf(entry.path().filename()));
        }
        return found;
    }

    using Names = std::set<std::string>;
};

void expectFailure(ExitStatus status, const std::function<void()>& action, const std::string& text) {
    try {
        action();
        FAIL() << "nothing was thrown";
    } catch (const Failure& failure) {
        EXPECT_EQ(failure.status(), status);
        EXPECT_THAT(failure.what(), HasSubstr(text));
    }
}

TEST_F(Publish, PutsTheDatasetInPlaceOfNothing) {
    {
        PartialFolder partial(placeOf(out));
        EXPECT_EQ(partial.path(), partialPath(placeOf(out).folder, ownProcessId()));
        writeDataset(partial.path(), 3);
        EXPECT_FALSE(fs::exists(out));
        EXPECT_EQ(partial.publish({input}, false), std::nullopt);
    }
    EXPECT_EQ(splatsOf(out), 3u);
    EXPECT_EQ(names(), (Names{"in.ply", "out"}));
}

TEST_F(Publish, PutsTheDatasetInPlaceOfAnEmptyFolder) {
    fs::create_directory(out);
    {
        PartialFolder partial(placeOf(out));
        writeDataset(partial.path(), 3);
        EXPECT_EQ(partial.publish({input}, false), std::nullopt);
    }
    EXPECT_EQ(splatsOf(out), 3u);
    EXPECT_EQ(names(), (Names{"in.ply", "out"}));
}

TEST_F(Publish, ReplacesAnEarlierDataset) {
    writeDataset(out, 1);
    {
        PartialFolder partial(placeOf(out));
        writeDataset(partial.path(), 2);
        EXPECT_EQ(splatsOf(out), 1u);
        EXPECT_EQ(partial.publish({input}, false), std::nullopt);
    }
    EXPECT_EQ(splatsOf(out), 2u);
    EXPECT_EQ(names(), (Names{"in.ply", "out"}));
}

TEST_F(Publish, ReplacesAForeignFolderOnlyWhenForced) {
    fs::create_directories(out / "deep");
    support::writeFile(out / "deep" / "notes.txt", "precious");
    {
        PartialFolder partial(placeOf(out, true));
        writeDataset(partial.path(), 2);
        expectFailure(
            ExitStatus::conversionFailed, [&] { partial.publish({input}, false); },
            "is neither empty nor an earlier dataset (it holds deep)");
        EXPECT_EQ(support::readFile(out / "deep" / "notes.txt"), "precious");
        EXPECT_EQ(partial.publish({input}, true), std::nullopt);
    }
    EXPECT_EQ(splatsOf(out), 2u);
    EXPECT_EQ(names(), (Names{"in.ply", "out"}));
}

TEST_F(Publish, SeesWhatCameToThePlaceDuringTheConversion) {
    {
        PartialFolder partial(placeOf(out));
        writeDataset(partial.path(), 2);
        fs::create_directory(out);
        support::writeFile(out / "notes.txt", "precious");
        expectFailure(
            ExitStatus::conversionFailed, [&] { partial.publish({input}, false); }, "it holds notes.txt");
    }
    EXPECT_EQ(support::filesUnder(out), Names{"notes.txt"});
    EXPECT_EQ(names(), (Names{"in.ply", "out"}));
}

TEST_F(Publish, RemovesWhatIsNotPublished) {
    writeDataset(out, 1);
    {
        PartialFolder partial(placeOf(out));
        writeDataset(partial.path(), 2);
    }
    EXPECT_EQ(splatsOf(out), 1u);
    EXPECT_EQ(names(), (Names{"in.ply", "out"}));
}

TEST_F(Publish, LeavesFilesThatNoConversionWrites) {
    fs::path left;
    {
        PartialFolder partial(placeOf(out));
        left = partial.path();
        writeDataset(left, 2);
        support::writeFile(left / "notes.txt", "precious");
    }
    EXPECT_EQ(support::filesUnder(left), Names{"notes.txt"});
}

TEST_F(Publish, CreatesMissingParentsAndRemovesThemUnlessItPublishes) {
    const fs::path deep = scratch / "a" / "b" / "out";
    { const PartialFolder partial(placeOf(deep)); }
    EXPECT_EQ(names(), Names{"in.ply"});
    {
        PartialFolder partial(placeOf(deep));
        writeDataset(partial.path(), 2);
        EXPECT_EQ(partial.publish({input}, false), std::nullopt);
    }
    EXPECT_EQ(splatsOf(deep), 2u);
    EXPECT_EQ(support::filesUnder(scratch / "a").count("b/out/data.bin"), 1u);
}

TEST_F(Publish, HoldsALockWhileItLives) {
    const std::string lock = support::textOf(partialPath(out, ownProcessId()).filename()) + ".lock";
    {
        const PartialFolder partial(placeOf(out));
        EXPECT_TRUE(names().contains(lock));
        expectFailure(
            ExitStatus::outputRefused, [&] { const PartialFolder second(placeOf(out)); },
            "another run holds it");
        EXPECT_TRUE(names().contains(lock));
    }
    EXPECT_EQ(names(), Names{"in.ply"});
}

TEST_F(Publish, RefusesToDeleteWhatStandsInItsWay) {
    const fs::path inTheWay = partialPath(out, ownProcessId());
    fs::create_directory(inTheWay);
    expectFailure(
        ExitStatus::outputRefused, [&] { const PartialFolder partial(placeOf(out)); }, "is in the way");
    EXPECT_EQ(names(), (Names{"in.ply", support::textOf(inTheWay.filename())}));
}

// The number of progress calls depends on the disk.
TEST_F(Publish, TellsHowMuchIsFlushed) {
    PartialFolder partial(placeOf(out));
    writeDataset(partial.path(), 2);
    std::vector<double> shares{0.0};
    partial.flush([&](double share) { shares.push_back(share); });
    shares.push_back(1.0);
    EXPECT_TRUE(std::is_sorted(shares.begin(), shares.end())) << testing::PrintToString(shares);
    EXPECT_EQ(partial.publish({input}, false), std::nullopt);
    EXPECT_EQ(splatsOf(out), 2u);
}

using CleanUp = Publish;

TEST_F(CleanUp, PutsBackTheDatasetThatADeadRunMovedAside) {
    writeDataset(scratch / "out.replaced-4294967295", 1);
    writeDataset(scratch / "out.partial-4294967295", 2);
    support::writeFile(scratch / "out.partial-4294967295.lock", "");
    cleanUpDeadRuns(out);
    EXPECT_EQ(splatsOf(out), 1u);
    EXPECT_EQ(names(), (Names{"in.ply", "out"}));
}

TEST_F(CleanUp, KeepsTheDatasetThatStands) {
    writeDataset(out, 3);
    writeDataset(scratch / "out.replaced-4294967295", 1);
    writeDataset(partialPath(out, deadProcess), 2);
    cleanUpDeadRuns(out);
    EXPECT_EQ(splatsOf(out), 3u);
    EXPECT_EQ(names(), (Names{"in.ply", "out"}));
}

TEST_F(CleanUp, LeavesLiveRunsAlone) {
    // Without a lock file only the process id is checked.
    const fs::path unlocked = partialPath(out, ownProcessId());
    writeDataset(unlocked, 2);
    cleanUpDeadRuns(out);
    EXPECT_EQ(splatsOf(unlocked), 2u);
    fs::remove_all(unlocked);

    PartialFolder partial(placeOf(out));
    writeDataset(partial.path(), 2);
    cleanUpDeadRuns(out);
    EXPECT_EQ(splatsOf(partial.path()), 2u);
    EXPECT_EQ(partial.publish({input}, false), std::nullopt);
}

TEST_F(CleanUp, LeavesEveryOtherNameAlone) {
    const Names others{"in.ply",
                       "out.partial-",
                       "out.partial-4294967295x",
                       "out.partial-4294967295.lock.lock",
                       "out.replaced-4294967295.lock",
                       "out.copy-4294967295",
                       "out2.partial-4294967295",
                       "xout.partial-4294967295"};
    for (const std::string& name : others) {
        if (name != "in.ply") {
            writeDataset(scratch / name, 1);
        }
    }
    cleanUpDeadRuns(out);
    EXPECT_EQ(names(), others);
    for (const std::string& name : others) {
        EXPECT_TRUE(name == "in.ply" || splatsOf(scratch / name) == 1) << name;
    }
}

TEST_F(CleanUp, LeavesFilesThatNoConversionWrites) {
    const fs::path dead = partialPath(out, deadProcess);
    writeDataset(dead, 2);
    support::writeFile(dead / "notes.txt", "precious");
    cleanUpDeadRuns(out);
    EXPECT_EQ(support::filesUnder(dead), Names{"notes.txt"});
}

} // namespace
} // namespace Tavrin::SplatProgram
