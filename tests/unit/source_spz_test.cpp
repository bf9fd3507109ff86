// SPZ files of several pieces: read by several threads while they are unpacked, damaged, with remarks.

#include "source/spz.h"
#include "tests/support/files.h"
#include "tests/support/floats.h"

#include <gtest/gtest.h>
#include <zlib.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <string>
#include <thread>
#include <utility>
#include <vector>
#if PLYCONVERT_ZSTD
#include <zstd.h>
#endif

namespace {

using namespace Tavrin;
using namespace Tavrin::SplatSource;
using support::Scratch;

constexpr std::uint32_t splats = 60'000; // a dozen pieces and more with coefficients
constexpr std::uint64_t window = 1000;   // records that a thread reads at a time

template <typename Number>
void append(std::string& bytes, Number value) {
    bytes.append(reinterpret_cast<const char*>(&value), sizeof value);
}

struct SpzFile {
    int version = 3;
    int degree = 3;
    std::array<std::string, spzArrays> arrays;

    // Any bytes, but no position at the ends of its bits: the third byte of a coordinate is neither 0x7f nor
    // 0x80.
    SpzFile(int itsVersion, int itsDegree) : version(itsVersion), degree(itsDegree) {
        SpzHeader header;
        header.version = static_cast<std::uint32_t>(version);
        header.degree = degree;
        std::uint32_t state = 7;
        for (int i = 0; i < spzArrays; ++i) {
            arrays[i].resize(splats * header.bytesOf(SpzArray{i}));
            for (char& byte : arrays[i]) {
                state = state * 1664525 + 1013904223;
                byte = static_cast<char>(state >> 24 & 0x3f);
            }
        }
    }

    void setCoordinate(std::size_t splat, std::size_t axis, std::uint32_t bits) {
        for (std::size_t i = 0; i < 3; ++i) {
            arrays[0][9 * splat + 3 * axis + i] = static_cast<char>(bits >> (8 * i) & 0xff);
        }
    }

    std::string header() const {
        std::string bytes;
        append(bytes, std::uint32_t{0x5053474e});
        append(bytes, static_cast<std::uint32_t>(version));
        append(bytes, splats);
        return bytes + std::string({static_cast<char>(degree), char{12}, char{0}, char{0}});
    }

    std::string gzip() const {
        std::string bytes = header();
        for (const std::string& array : arrays) {
            bytes += array;
        }
        z_stream stream{};
        EXPECT_EQ(deflateInit2(&stream, 1, Z_DEFLATED, 16 + MAX_WBITS, 8, Z_DEFAULT_STRATEGY), Z_OK);
        std::string packed(deflateBound(&stream, static_cast<uLong>(bytes.size())) + 64, '\0');
        stream.next_in = reinterpret_cast<Bytef*>(bytes.data());
        stream.avail_in = static_cast<uInt>(bytes.size());
        stream.next_out = reinterpret_cast<Bytef*>(packed.data());
        stream.avail_out = static_cast<uInt>(packed.size());
        EXPECT_EQ(deflate(&stream, Z_FINISH), Z_STREAM_END);
        packed.resize(stream.total_out);
        deflateEnd(&stream);
        return packed;
    }

#if PLYCONVERT_ZSTD
    std::string zstd() const {
        std::string table;
        std::string streams;
        for (const std::string& array : arrays) {
            if (!array.empty()) {
                std::string packed(ZSTD_compressBound(array.size()), '\0');
                packed.resize(ZSTD_compress(packed.data(), packed.size(), array.data(), array.size(), 1));
                append(table, std::uint64_t{packed.size()});
                append(table, std::uint64_t{array.size()});
                streams += packed;
            }
        }
        std::string head = header();
        head.back() = static_cast<char>(table.size() / 16);
        append(head, std::uint32_t{32});
        return head + std::string(12, '\0') + table + streams;
    }
#endif
};

std::size_t floatsOf(const Source& source) {
    return GaussionSplat::recordLayout(source.hasCoefficients).floats;
}

// Each thread takes the next window, or from both ends in turns. Returns what the threads ended with.
std::vector<std::string> readTogether(const Source& source, int threads, bool isScattered,
                                      std::vector<float>& records) {
    records.assign(source.count * floatsOf(source), 0.0f);
    std::atomic<std::uint64_t> next = 0;
    std::vector<std::string> ends(static_cast<std::size_t>(threads));
    const auto work = [&](std::string& end) {
        try {
            for (std::uint64_t i; (i = next.fetch_add(1)) < splats / window;) {
                const std::uint64_t place =
                    !isScattered || i % 2 == 0 ? i / (isScattered ? 2 : 1) : splats / window - 1 - i / 2;
                source.read(place * window, window, records.data() + place * window * floatsOf(source));
            }
        } catch (const SourceError& error) {
            end = error.what();
        }
    };
    std::vector<std::thread> crew;
    for (std::string& end : ends) {
        crew.emplace_back(work, std::ref(end));
    }
    for (std::thread& worker : crew) {
        worker.join();
    }
    return ends;
}

void expectSameRecords(const std::string& file) {
    const Scratch scratch;
    support::writeFile(scratch / "scene.spz", file);
    std::vector<float> alone;
    std::vector<float> together;
    const SpzInput first(scratch / "scene.spz", InputAxes::stated, scratch.folder());
    EXPECT_EQ(readTogether(first, 1, false, alone), std::vector<std::string>(1));
    EXPECT_TRUE(std::ranges::any_of(alone, [](float value) { return value != 0.0f; }));
    for (const bool isScattered : {false, true}) {
        const SpzInput input(scratch / "scene.spz", InputAxes::stated, scratch.folder());
        EXPECT_EQ(readTogether(input, 4, isScattered, together), std::vector<std::string>(4));
        EXPECT_EQ(std::memcmp(alone.data(), together.data(), alone.size() * sizeof(float)), 0);
        EXPECT_TRUE(input.laterRemarks().empty());
    }
    // Positions alone are those of the records.
    const SpzInput input(scratch / "scene.spz", InputAxes::stated, scratch.folder());
    std::vector<double> positions(3 * window);
    input.readPositions(splats - window, window, positions.data());
    for (std::size_t i = 0; i < positions.size(); ++i) {
        const std::size_t record = splats - window + i / 3;
        ASSERT_EQ(positions[i], double{alone[record * floatsOf(input) + i % 3]});
    }
}

TEST(SpzInput, ThreadsGetTheSameRecordsWhileItIsUnpacked) {
    for (const int degree : {0, 1, 3}) {
        SCOPED_TRACE(degree);
        expectSameRecords(SpzFile(3, degree).gzip());
#if PLYCONVERT_ZSTD
        expectSameRecords(SpzFile(4, degree).zstd());
#endif
    }
}

// Of a file that is cut behind its middle, the first records are whole.
TEST(SpzInput, DamageEndsEveryThreadThatNeedsWhatIsMissing) {
    const Scratch scratch;
    const std::string file = SpzFile(3, 3).gzip();
    support::writeFile(scratch / "scene.spz", file.substr(0, file.size() * 3 / 4));
    const SpzInput input(scratch / "scene.spz", InputAxes::stated, scratch.folder());
    std::vector<float> records(window * floatsOf(input));
    EXPECT_NO_THROW(input.read(0, window, records.data()));
    for (int i = 0; i < 2; ++i) {
        EXPECT_THROW(input.read(splats - 1, 1, records.data()), SourceError);
        EXPECT_THROW(input.laterRemarks(), SourceError);
        EXPECT_NO_THROW(input.read(0, window, records.data()));
    }
    const SpzInput again(scratch / "scene.spz", InputAxes::stated, scratch.folder());
    std::vector<float> all;
    const std::vector<std::string> ends = readTogether(again, 4, false, all);
    EXPECT_NE(ends.front().find("it is cut"), std::string::npos) << ends.front();
    EXPECT_EQ(ends, std::vector<std::string>(4, ends.front()));
}

// The checksum and the length of gzip stand behind everything else.
TEST(SpzInput, AWrongChecksumOrLengthIsFoundWithTheLastRecords) {
    const std::string file = SpzFile(3, 3).gzip();
    for (const auto& [place, reason] :
         {std::pair(8, "incorrect data check"), std::pair(5, "incorrect data check"),
          std::pair(4, "incorrect length check"), std::pair(1, "incorrect length check")}) {
        SCOPED_TRACE(place);
        const Scratch scratch;
        std::string damaged = file;
        damaged[damaged.size() - static_cast<std::size_t>(place)] ^= 1;
        support::writeFile(scratch / "scene.spz", damaged + "behind it");
        const SpzInput input(scratch / "scene.spz", InputAxes::stated, scratch.folder());
        std::vector<float> records(window * floatsOf(input));
        EXPECT_NO_THROW(input.read(0, window, records.data()));
        std::vector<float> all;
        bool isFound = false;
        for (const std::string& end : readTogether(input, 4, false, all)) {
            EXPECT_TRUE(end.empty() || end.find(reason) != std::string::npos) << end;
            isFound = isFound || !end.empty();
        }
        EXPECT_TRUE(isFound);
        EXPECT_THROW(input.read(splats - 1, 1, records.data()), SourceError);
        EXPECT_THROW(input.laterRemarks(), SourceError);
    }
}

TEST(SpzInput, BytesBehindTheSplatsAreRemarkedAtTheEnd) {
    const Scratch scratch;
    support::writeFile(scratch / "scene.spz", SpzFile(3, 0).gzip() + "12345");
    const SpzInput input(scratch / "scene.spz", InputAxes::stated, scratch.folder());
    EXPECT_TRUE(input.remarks.empty());
    EXPECT_EQ(input.laterRemarks(), std::vector<std::string>{"5 bytes behind the splats are ignored"});
}

TEST(SpzInput, PositionsAtTheEndsOfTheirBitsAreRemarkedWhereverTheyStand) {
    constexpr std::uint32_t most = 0x7fffff;
    constexpr std::uint32_t least = 0x800000;
    const auto remarks = [](std::size_t splat, std::size_t axis, std::uint32_t bits) {
        const Scratch scratch;
        SpzFile file(2, 0);
        file.setCoordinate(splat, axis, bits);
        support::writeFile(scratch / "scene.spz", file.gzip());
        return SpzInput(scratch / "scene.spz", InputAxes::stated, scratch.folder()).laterRemarks().size();
    };
    for (const std::size_t splat :
         {std::size_t{0}, std::size_t{28'671}, std::size_t{28'672}, std::size_t{splats - 1}}) {
        EXPECT_EQ(remarks(splat, 0, most), 1u) << splat;
        EXPECT_EQ(remarks(splat, 2, least), 1u) << splat;
    }
    EXPECT_EQ(remarks(5, 1, most - 1), 0u);
    EXPECT_EQ(remarks(5, 1, least + 1), 0u);
}

} // namespace
