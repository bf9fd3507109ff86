// The bytes of data.bin, shcoef.bin and index.bin, and the two rules around a million splats.

#include "tests/blackbox/blackbox.h"

namespace blackbox {
namespace {

using support::DatasetFiles;
using support::HostReport;
using support::metaValue;
using support::PlyFile;
using support::Splat;

class Files : public BlackBox {
protected:
    DatasetFiles convertFile(const PlyFile& ply) {
        ply.write(input);
        convertToTheEnd();
        return support::readDataset(output);
    }
};

// Fields of a record in data.bin.
std::uint32_t rotationWord(const std::string& data, std::size_t record) {
    return valueAt<std::uint32_t>(data, record * 32 + 22);
}

std::uint16_t word(const std::string& data, std::size_t record, std::size_t offset) {
    return valueAt<std::uint16_t>(data, record * 32 + offset);
}

int byte(const std::string& data, std::size_t record, std::size_t offset) {
    return static_cast<unsigned char>(data[record * 32 + offset]);
}

TEST_F(Files, OneSplatGivesThisIndex) {
    const DatasetFiles files = convertFile(oneSplat());
    const std::string expected("\0\0\0\0"
                               "\1\0\0\0"
                               "\0\0\0\0\0\0\0\0"
                               "\40\0\0\0",
                               20);
    EXPECT_EQ(files.index, expected);
}

TEST_F(Files, PositionsAreCopied) {
    PlyFile ply;
    ply.add({.position = {0.1f, -1e-40f, 3e38f}});
    const DatasetFiles files = convertFile(ply);
    EXPECT_EQ(valueAt<float>(files.data, 0), 0.1f);
    EXPECT_EQ(valueAt<float>(files.data, 4), -1e-40f);
    EXPECT_EQ(valueAt<float>(files.data, 8), 3e38f);
}

TEST_F(Files, ColourIsTheZerothOrderClamped) {
    PlyFile ply;
    ply.add({.dc = {0.0f, 2.0f, -5.0f}});
    const DatasetFiles files = convertFile(ply);
    EXPECT_EQ(byte(files.data, 0, 12), 127); // 0.5
    EXPECT_EQ(byte(files.data, 0, 13), 255); // 1.06 and so 1
    EXPECT_EQ(byte(files.data, 0, 14), 0);   // below 0
}

TEST_F(Files, OpacityIsTheLogisticFunction) {
    PlyFile ply;
    for (const float logit : {0.0f, 100.0f, -100.0f, 1.0f}) {
        ply.add({.opacity = logit});
    }
    const DatasetFiles files = convertFile(ply);
    EXPECT_EQ(byte(files.data, 0, 15), 127);
    EXPECT_EQ(byte(files.data, 1, 15), 255);
    EXPECT_EQ(byte(files.data, 2, 15), 0);
    EXPECT_EQ(byte(files.data, 3, 15), 186); // 0.7310586 * 255 = 186.4
    EXPECT_THAT(files.meta, testing::HasSubstr("\t\t\t\"name\": \"opacity\",\n\t\t\t\"min\": [0], \n"
                                               "\t\t\t\"max\": [1]\n"));
}

TEST_F(Files, ScaleIsTheExponentialAgainstItsRange) {
    PlyFile ply;
    for (const float logScale : {0.0f, 1.0f, -1.0f}) {
        ply.add({.scale = {logScale, logScale, 0.0f}});
    }
    const DatasetFiles files = convertFile(ply);
    // (1 - 1/e) / (e - 1/e) * 65535.5 = 17625.4
    EXPECT_EQ(word(files.data, 0, 16), 17625);
    EXPECT_EQ(word(files.data, 1, 16), 65535);
    EXPECT_EQ(word(files.data, 2, 18), 0);
    EXPECT_EQ(word(files.data, 1, 20), 0); // the range of z is empty: 0 / 0
    EXPECT_THAT(files.meta, testing::HasSubstr("\"name\": \"scale\",\n\t\t\t\"min\": [0.36787"));
}

TEST_F(Files, NormalsSpanTheirRange) {
    PlyFile ply;
    ply.add({.normal = {-1.0f, 0.0f, 0.1f}});
    ply.add({.normal = {1.0f, 0.0f, 0.2f}});
    ply.add({.normal = {0.0f, 0.0f, 0.15f}});
    const DatasetFiles files = convertFile(ply);
    EXPECT_EQ(word(files.data, 0, 26), 0);
    EXPECT_EQ(word(files.data, 1, 26), 65535);
    EXPECT_EQ(word(files.data, 2, 26), 32767); // half of 65535.5
    EXPECT_EQ(word(files.data, 1, 28), 0);     // no extent
    EXPECT_EQ(word(files.data, 1, 30), 65535);
    const std::string entry = "\t\t\t\"min\": [-1, 0, 0.10000000149011612], \n"
                              "\t\t\t\"max\": [1, 0, 0.20000000298023224]\n";
    EXPECT_THAT(files.meta, testing::HasSubstr("\"name\": \"normal\",\n" + entry));
    EXPECT_THAT(files.meta, testing::HasSubstr("\"name\": \"envnormal\",\n" + entry));
}

TEST_F(Files, RotationsKeepTheThreeSmallComponents) {
    PlyFile ply;
    ply.add({.rotation = {1.0f, 0.0f, 0.0f, 0.0f}});
    ply.add({.rotation = {0.0f, 2.0f, 0.0f, 0.0f}});
    ply.add({.rotation = {0.0f, -2.0f, 0.0f, 0.0f}});
    ply.add({.rotation = {1.0f, 1.0f, 1.0f, 1.0f}});
    ply.add({.rotation = {-0.5f, 0.0f, -1.0f, 0.0f}});
    ply.add({.rotation = {0.0f, 0.0f, 0.0f, 0.0f}});
    const DatasetFiles files = convertFile(ply);
    const auto packed = [](std::uint32_t a, std::uint32_t b, std::uint32_t c, std::uint32_t largest) {
        return a | b << 10 | c << 20 | largest << 30;
    };
    EXPECT_EQ(rotationWord(files.data, 0), packed(511, 511, 511, 3)); // rot_0 comes last
    EXPECT_EQ(rotationWord(files.data, 1), packed(511, 511, 511, 0));
    EXPECT_EQ(rotationWord(files.data, 2), packed(511, 511, 511, 0)); // the same turn
    // 0.5 * 1.4142135 * 0.5 + 0.5 = 0.85355; a tie keeps the first
    EXPECT_EQ(rotationWord(files.data, 3), packed(873, 873, 873, 0));
    // q = (0, -0.894, 0, -0.447): rot_2 is the largest, and its negative sign negates the rest; 0.816 *
    // 1023.5 = 835.4
    EXPECT_EQ(rotationWord(files.data, 4), packed(511, 511, 835, 1));
    EXPECT_EQ(rotationWord(files.data, 5), 0u); // all zeros: NaN in three components, none is the largest
}

TEST_F(Files, CoefficientsArePackedByThree) {
    PlyFile ply;
    ply.coefficients = true;
    Splat low;
    low.rest.fill(-1.0f);
    Splat high;
    high.rest.fill(1.0f);
    Splat mixed;
    for (std::size_t k = 0; k < 15; ++k) {
        mixed.rest[k] = -1.0f;     // red
        mixed.rest[15 + k] = 0.0f; // green
        mixed.rest[30 + k] = 1.0f; // blue
    }
    for (const Splat& splat : {low, high, mixed}) {
        ply.add(splat);
    }
    const DatasetFiles files = convertFile(ply);
    ASSERT_EQ(files.coefficients.size(), 3u * 64);
    for (std::size_t k = 0; k < 15; ++k) {
        EXPECT_EQ(valueAt<std::uint32_t>(files.coefficients, 4 * k), 0u);
        EXPECT_EQ(valueAt<std::uint32_t>(files.coefficients, 64 + 4 * k), 0xFFFFFFFFu);
        EXPECT_EQ(valueAt<std::uint32_t>(files.coefficients, 128 + 4 * k), 2047u << 21 | 511u << 11);
    }
    for (std::size_t record = 0; record < 3; ++record) {
        EXPECT_EQ(valueAt<std::uint32_t>(files.coefficients, 64 * record + 60), 0u);
    }
    EXPECT_EQ(metaValue(files.meta, "fileType"), "\"Quality\"");
    EXPECT_THAT(files.meta, testing::HasSubstr("\"name\": \"shcoef\",\n\t\t\t\"min\": [-1, -1, -1], \n"
                                               "\t\t\t\"max\": [1, 1, 1]\n"));
}

TEST_F(Files, WithoutCoefficientsTheirRangeIsZeroToOne) {
    const std::string meta = convertFile(oneSplat()).meta;
    EXPECT_EQ(metaValue(meta, "fileType"), "\"Portable\"");
    for (const char* name : {"shcoef", "envshcoef"}) {
        EXPECT_THAT(meta, testing::HasSubstr("\"name\": \"" + std::string(name) +
                                             "\",\n\t\t\t\"min\": [0, 0, 0], \n\t\t\t\"max\": [1, 1, 1]\n"));
    }
}

TEST_F(Files, ValuesThatAreNoNumbersLeaveTheRangesEmpty) {
    constexpr float nan = std::numeric_limits<float>::quiet_NaN();
    PlyFile ply;
    ply.add({.normal = {nan, nan, nan}, .dc = {nan, nan, nan}, .opacity = nan, .scale = {nan, nan, nan}});
    const DatasetFiles files = convertFile(ply);
    const std::string empty = "\t\t\t\"min\": [inf, inf, inf], \n\t\t\t\"max\": [-inf, -inf, -inf]\n";
    for (const char* name : {"normal", "color", "scale", "envnormal", "envscale"}) {
        EXPECT_THAT(files.meta, testing::HasSubstr("\"name\": \"" + std::string(name) + "\",\n" + empty));
    }
    EXPECT_THAT(files.meta, testing::HasSubstr("\"name\": \"opacity\",\n\t\t\t\"min\": [inf], \n"
                                               "\t\t\t\"max\": [-inf]\n"));
    EXPECT_EQ(files.data.substr(12, 10), std::string(10, '\0')); // colour, opacity and scale
}

// The missing part of a cut file is read as zeros: logits and log-scales of 0, and no rotation.
TEST_F(Files, ACutFileIsFilledWithZeros) {
    PlyFile ply;
    for (int i = 0; i < 3; ++i) {
        ply.add({.position = {1.0f, 2.0f, 3.0f}, .dc = {1.0f, 1.0f, 1.0f}});
    }
    constexpr std::size_t recordBytes = support::floatsWithout * sizeof(float);
    const std::string bytes = ply.bytes();
    // The second record keeps its x and its y, the third nothing.
    support::writeFile(input, bytes.substr(0, ply.header().size() + recordBytes + 2 * sizeof(float)));
    convertToTheEnd();
    const DatasetFiles files = support::readDataset(output);
    ASSERT_EQ(files.data.size(), 3u * 32);
    EXPECT_EQ(valueAt<float>(files.data, 32), 1.0f);
    EXPECT_EQ(valueAt<float>(files.data, 36), 2.0f);
    EXPECT_EQ(valueAt<float>(files.data, 40), 0.0f);
    EXPECT_EQ(valueAt<float>(files.data, 64), 0.0f);
    for (const std::size_t record : {1u, 2u}) {
        for (const std::size_t channel : {12u, 13u, 14u, 15u}) {
            EXPECT_EQ(byte(files.data, record, channel), 127);
        }
        EXPECT_EQ(rotationWord(files.data, record), 0u);
    }
    EXPECT_EQ(metaValue(files.meta, "totalSplats"), "3");
}

TEST_F(Files, AFileWithoutAnyRecordIsAllZeros) {
    PlyFile ply;
    ply.coefficients = true;
    ply.elementLine = "element vertex 1000";
    const DatasetFiles files = convertFile(ply);
    ASSERT_EQ(files.data.size(), 32'000u);
    ASSERT_EQ(files.coefficients.size(), 64'000u);
    EXPECT_EQ(files.coefficients, std::string(64'000, '\0'));
    for (std::size_t record = 1; record < 1000; ++record) {
        ASSERT_EQ(files.data.compare(32 * record, 32, files.data, 0, 32), 0);
    }
}

// Three columns of splats along x: at 1, 31 and 95 units from the box's corner.
PlyFile threeColumns(std::size_t count) {
    PlyFile ply;
    ply.comments = {"comment minx 100", "comment miny 50",  "comment minz 0",
                    "comment maxx 350", "comment maxy 130", "comment maxz 10"};
    ply.records.reserve(count * ply.recordFloats());
    const float columns[] = {101.0f, 131.0f, 195.0f};
    for (std::size_t i = 0; i < count; ++i) {
        ply.add({.position = {columns[i % 3], 129.0f, static_cast<float>(i)}});
    }
    return ply;
}

// The meta document states cells of 30 units, but all splats lie in the single cell 0.
TEST_F(Files, AMillionSplatsAreOneCell) {
    constexpr std::size_t count = 1'000'000;
    const PlyFile ply = threeColumns(count);
    ply.write(input);
    const HostReport report = convertToTheEnd();
    EXPECT_EQ(report.process.output, emptyLines(2));
    const DatasetFiles files = support::readDataset(output);
    ASSERT_EQ(files.index.size(), 20u);
    EXPECT_EQ(valueAt<std::uint32_t>(files.index, 0), 0u);
    EXPECT_EQ(valueAt<std::uint32_t>(files.index, 4), count);
    EXPECT_EQ(valueAt<std::uint64_t>(files.index, 8), 0u);
    EXPECT_EQ(valueAt<std::uint32_t>(files.index, 16), count * 32);
    ASSERT_EQ(files.data.size(), count * 32);
    for (std::size_t i = 0; i < count; ++i) {
        ASSERT_EQ(valueAt<float>(files.data, 32 * i + 8), static_cast<float>(i)); // in the file's order
    }
    EXPECT_EQ(metaValue(files.meta, "cellLengthX"), "30");
    EXPECT_EQ(metaValue(files.meta, "cellLengthY"), "30");
}

TEST_F(Files, BelowAMillionTheCellIsTheScene) {
    threeColumns(999'999).write(input);
    const std::string meta = metaAfterConversion();
    EXPECT_EQ(metaValue(meta, "cellLengthX"), "250");
    EXPECT_EQ(metaValue(meta, "cellLengthY"), "80");
}

TEST_F(Files, AboveAMillionTheOccupiedCellsAreListed) {
    constexpr std::size_t count = 1'000'001;
    threeColumns(count).write(input);
    const HostReport report = convertToTheEnd();
    EXPECT_EQ(report.process.output, emptyLines(3 * 2));
    const DatasetFiles files = support::readDataset(output);
    ASSERT_EQ(files.index.size(), 3u * 20);
    ASSERT_EQ(files.data.size(), count * 32);
    const std::uint32_t columnOf[] = {0, 1, 3}; // 95 units are the fourth cell
    std::uint64_t offset = 0;
    for (std::size_t cell = 0; cell < 3; ++cell) {
        const std::size_t entry = 20 * cell;
        const std::uint32_t expected = static_cast<std::uint32_t>((count + 2 - cell) / 3);
        EXPECT_EQ(valueAt<std::uint32_t>(files.index, entry), columnOf[cell] | 2u << 16);
        ASSERT_EQ(valueAt<std::uint32_t>(files.index, entry + 4), expected);
        ASSERT_EQ(valueAt<std::uint64_t>(files.index, entry + 8), offset);
        ASSERT_EQ(valueAt<std::uint32_t>(files.index, entry + 16), expected * 32);
        for (std::size_t i = 0; i < expected; ++i) {
            ASSERT_EQ(valueAt<float>(files.data, offset + 32 * i + 8), static_cast<float>(cell + 3 * i));
        }
        offset += expected * 32;
    }
    EXPECT_EQ(metaValue(files.meta, "totalSplats"), "1000001");
}

// Splats outside the stated box have no cell and are left out of the files.
TEST_F(Files, AllSplatsOutsideTheGridGiveEmptyFiles) {
    PlyFile ply = threeColumns(1'000'001);
    for (std::size_t i = 0; i < ply.records.size(); i += ply.recordFloats()) {
        ply.records[i + (i % 2)] = -1000.0f; // x or y below the corner
    }
    ply.write(input);
    const HostReport report = convertToTheEnd();
    EXPECT_EQ(report.process.output, "");
    const DatasetFiles files = support::readDataset(output);
    EXPECT_EQ(files.data, "");
    EXPECT_EQ(files.index, "");
    EXPECT_EQ(metaValue(files.meta, "totalSplats"), "1000001");
}

} // namespace
} // namespace blackbox
