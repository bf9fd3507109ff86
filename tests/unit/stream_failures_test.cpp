// A failure during a pass ends it at once with one line.

#include "tests/unit/stream_support.h"

#include <atomic>

#if !defined(_WIN32)
#include <csignal>

#include <sys/resource.h>
#endif

namespace Tavrin::SplatStream {

namespace {

namespace fs = std::filesystem;
using support::PlyFile;

struct StreamFailureTest : testing::Test {
    support::Scratch scratch;
    fs::path input = scratch / "scene.ply";
    fs::path output = scratch / "out";
    PlyFile file = support::randomFile(120, 5000, true);

    StreamFailureTest() {
        file.write(input);
        fs::create_directories(output);
    }
};

template <typename Error, typename Body>
std::string messageOf(Body body) {
    try {
        body();
    } catch (const Error& error) {
        return error.what();
    }
    ADD_FAILURE() << "nothing of this kind was thrown";
    return {};
}

bool isOneLine(const std::string& text) {
    return !text.empty() && text.find('\n') == text.npos;
}

// A source that does something before one of its windows is read.
struct WatchedSource : SplatSource::Source {
    const SplatSource::Source& inner;
    std::uint64_t at;
    std::function<void()> action;

    WatchedSource(const SplatSource::Source& source, std::uint64_t record, std::function<void()> act)
        : inner(source), at(record), action(std::move(act)) {
        count = source.count;
        hasCoefficients = source.hasCoefficients;
        params = source.params;
        boundsSeen = source.boundsSeen;
    }

    std::uint64_t read(std::uint64_t first, std::uint64_t size, float* records) const override {
        if (first <= at && at < first + size) {
            action();
        }
        return inner.read(first, size, records);
    }
    std::uint64_t boxPositions() const override { return inner.boxPositions(); }
    void readBoxPositions(std::uint64_t first, std::uint64_t size, float* positions) const override {
        inner.readBoxPositions(first, size, positions);
    }
    void requireUnchanged() const override { inner.requireUnchanged(); }
};

TEST_F(StreamFailureTest, AFileThatEndsBeforeItsLastRecordIsNotOpened) {
    fs::resize_file(input, fs::file_size(input) - 1);
    EXPECT_TRUE(isOneLine(messageOf<SplatSource::SourceError>([&] { openScene(input); })));
}

TEST_F(StreamFailureTest, AFileThatIsNotThere) {
    const std::string message = messageOf<SplatSource::SourceError>(
        [&] { SplatSource::CanonicalPly(scratch / "none.ply", SplatSource::CanonicalPlyFacts{}); });
    EXPECT_TRUE(isOneLine(message));
    EXPECT_NE(message.find("none.ply"), message.npos);
}

TEST_F(StreamFailureTest, AFileThatIsCutDuringEitherPass) {
    const auto source = openScene(input);
    const Measured measured = measure(*source, settingsOf(2, 64));
    const WatchedSource cut(*source, 4000, [&] { fs::resize_file(input, fs::file_size(input) / 2); });
    EXPECT_TRUE(isOneLine(
        messageOf<SplatSource::SourceChanged>([&] { place(cut, measured, output, settingsOf(2, 64)); })));
    EXPECT_TRUE(isOneLine(messageOf<SplatSource::SourceChanged>([&] { measure(cut, settingsOf(2, 64)); })));
}

TEST_F(StreamFailureTest, AFileThatGrowsOrIsReplacedDuringEitherPass) {
    for (const bool isReplaced : {false, true}) {
        SCOPED_TRACE(isReplaced);
        const auto change = [&] {
            if (isReplaced) {
                file.write(scratch / "other.ply");
                fs::rename(scratch / "other.ply", input);
            } else {
                support::writeFile(input, support::readFile(input) + '\0');
            }
        };
        const auto source = openScene(input);
        const Measured measured = measure(*source, settingsOf(2, 64));
#if defined(_WIN32)
        if (isReplaced) {
            continue; // Windows does not rename or remove an open file
        }
#endif
        const WatchedSource changed(*source, 4000, change);
        EXPECT_TRUE(isOneLine(messageOf<SplatSource::SourceChanged>(
            [&] { place(changed, measured, output, settingsOf(2, 64)); })));
        EXPECT_TRUE(
            isOneLine(messageOf<SplatSource::SourceChanged>([&] { measure(changed, settingsOf(2, 64)); })));
    }
}

// The second pass reads other records than the first. Nothing may be written beyond a cell's places.
TEST_F(StreamFailureTest, RecordsThatDifferBetweenThePasses) {
    PlyFile other = support::randomFile(121, 5001, true);
    other.write(scratch / "other.ply");
    const auto one = openScene(input);
    const auto two = openScene(scratch / "other.ply");
    const Measured few = measure(*one, settingsOf(2, 64));
    EXPECT_TRUE(isOneLine(
        messageOf<SplatSource::SourceChanged>([&] { place(*two, few, output, settingsOf(2, 64)); })));
    const Measured many = measure(*two, settingsOf(2, 64));
    EXPECT_TRUE(isOneLine(
        messageOf<SplatSource::SourceChanged>([&] { place(*one, many, output, settingsOf(2, 64)); })));
}

struct Interrupted {};

TEST_F(StreamFailureTest, ProgressThatThrowsEndsThePass) {
    const auto source = openScene(input);
    for (const unsigned threads : {1u, 2u, 5u}) {
        Settings settings = settingsOf(threads, 8);
        const Measured measured = measure(*source, settings);
        settings.progress = [](std::uint64_t) { throw Interrupted(); };
        EXPECT_THROW(measure(*source, settings), Interrupted);
        EXPECT_THROW(place(*source, measured, output, settings), Interrupted);
    }
}

TEST_F(StreamFailureTest, ASourceThatThrowsEndsThePass) {
    const auto source = openScene(input);
    const Measured measured = measure(*source, settingsOf(5, 8));
    for (const std::uint64_t at : {0u, 7u, 2500u, 4999u}) {
        const WatchedSource failing(*source, at, [] { throw SplatSource::SourceError("it fails"); });
        for (const unsigned threads : {1u, 2u, 5u}) {
            EXPECT_EQ(messageOf<SplatSource::SourceError>([&] { measure(failing, settingsOf(threads, 8)); }),
                      "it fails");
            EXPECT_EQ(messageOf<SplatSource::SourceError>(
                          [&] { place(failing, measured, output, settingsOf(threads, 8)); }),
                      "it fails");
        }
    }
}

// Progress comes from one thread at a time, never decreases, and ends with all splats.
TEST_F(StreamFailureTest, ProgressIsToldInOrder) {
    const auto source = openScene(input);
    Settings settings = settingsOf(5, 8);
    std::atomic<int> inside = 0;
    std::uint64_t last = 0;
    settings.progress = [&](std::uint64_t splats) {
        EXPECT_EQ(inside.fetch_add(1), 0);
        EXPECT_GE(splats, last);
        last = splats;
        inside.fetch_sub(1);
    };
    const Measured measured = measure(*source, settings);
    EXPECT_EQ(last, 5000u);
    last = 0;
    place(*source, measured, output, settings);
    EXPECT_EQ(last, 5000u);
}

TEST_F(StreamFailureTest, AFolderThatIsNotThere) {
    const auto source = openScene(input);
    const Measured measured = measure(*source, settingsOf(2, 64));
    const std::string message =
        messageOf<WriteError>([&] { place(*source, measured, scratch / "none", settingsOf(2, 64)); });
    EXPECT_TRUE(isOneLine(message));
    EXPECT_NE(message.find("data.bin"), message.npos);
}

#if !defined(_WIN32)
// Limits the size of this process's files, which then fail like on a full disk.
struct FileSizeLimit {
    rlimit before{};
    explicit FileSizeLimit(rlim_t bytes) {
        std::signal(SIGXFSZ, SIG_IGN);
        getrlimit(RLIMIT_FSIZE, &before);
        const rlimit limit{.rlim_cur = bytes, .rlim_max = before.rlim_max};
        setrlimit(RLIMIT_FSIZE, &limit);
    }
    ~FileSizeLimit() {
        setrlimit(RLIMIT_FSIZE, &before);
        std::signal(SIGXFSZ, SIG_DFL);
    }
};

TEST_F(StreamFailureTest, ADiskWithoutRoom) {
    const auto source = openScene(input);
    const Measured measured = measure(*source, settingsOf(2, 64));
    // data.bin has 160,000 bytes, shcoef.bin twice as many.
    for (const std::uint64_t room : {0u, 1000u, 159'999u, 160'000u, 319'999u}) {
        SCOPED_TRACE(room);
        const FileSizeLimit limit(room);
        const std::string message =
            messageOf<WriteError>([&] { place(*source, measured, output, settingsOf(2, 64)); });
        EXPECT_TRUE(isOneLine(message)) << message;
        EXPECT_NE(message.find(room < 160'000 ? "data.bin" : "shcoef.bin"), message.npos) << message;
    }
    place(*source, measured, output, settingsOf(2, 64));
}
#endif

TEST_F(StreamFailureTest, MemoryThatIsTooLittleSaysWhatWouldDo) {
    const auto source = openScene(input);
    Settings settings = settingsOf(3, 64);
    const Measured measured = measure(*source, settings);
    const auto leastWith = [&](std::uint64_t memory, auto pass) {
        settings.maxMemory = memory;
        try {
            pass();
        } catch (const TooLittleMemory& error) {
            return error.least;
        }
        return std::uint64_t{0};
    };
    const auto measureIt = [&] { measure(*source, settings); };
    const auto placeIt = [&] { place(*source, measured, output, settings); };
    const std::uint64_t least = measured.leastMemory;
    for (const std::uint64_t memory : {std::uint64_t{1}, std::uint64_t{1000}, least - 1}) {
        EXPECT_EQ(leastWith(memory, measureIt), least) << memory;
    }
    EXPECT_EQ(leastWith(1000, placeIt), least);
    EXPECT_EQ(leastWith(least, measureIt), 0u);
    EXPECT_EQ(leastWith(least, placeIt), 0u);
    EXPECT_LE(measureMemory(*source, measured.occupiedCells, measured.repeatedCells, settings), least);
    EXPECT_LE(placeMemory(measured, settings), least);
}

} // namespace

} // namespace Tavrin::SplatStream
