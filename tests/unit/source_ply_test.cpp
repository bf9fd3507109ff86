// Compares PLY files of every layout with their canonical records.

#include "source/open.h"
#include "source/ply.h"
#include "tests/support/files.h"
#include "tests/support/plyfile.h"
#include "tests/support/plyvariant.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace {

using namespace Tavrin;
using support::PlyFile;
using support::PlyForm;
using support::PlyOrder;
using support::PlyVariant;
using support::Scratch;

constexpr std::size_t splats = 2500; // several windows, and several entries of the index of an ASCII file

// Values that every type and every text form can hold: small integers and quarters.
std::vector<float> recordsOf(int degree) {
    const GaussionSplat::RecordLayout& layout = GaussionSplat::recordLayout(degree > 0);
    const std::size_t taken =
        static_cast<std::size_t>((std::min(degree, 3) + 1) * (std::min(degree, 3) + 1) - 1);
    std::vector<float> records(splats * layout.floats);
    support::Random random(7);
    for (std::size_t i = 0; i < records.size(); ++i) {
        const std::size_t place = i % layout.floats;
        const bool isNormal = place >= GaussionSplat::normalAt && place < GaussionSplat::colourAt;
        const bool isRest = degree > 0 && place >= GaussionSplat::coefficientsAt && place < layout.opacity;
        const bool isThere = !isRest || (place - GaussionSplat::coefficientsAt) % 15 < taken;
        records[i] = isNormal || !isThere ? 0.0f : static_cast<float>(random.next() % 120) - 20.0f;
    }
    return records;
}

std::string nameOf(const PlyVariant& variant) {
    return "form " + std::to_string(static_cast<int>(variant.form)) + ", order " +
           std::to_string(static_cast<int>(variant.order)) + ", type " + variant.type + ", degree " +
           std::to_string(variant.degree) + (variant.hasNormals ? "" : ", no normals") +
           (variant.hasListBefore ? ", list before" : "") + (variant.hasListInside ? ", list inside" : "");
}

// What the header says is known without the records, which then cannot be read.
void expectHeader(const std::filesystem::path& path, const SplatSource::Input& input) {
    const auto header = SplatSource::openHeader(path);
    EXPECT_EQ(header->count, input.count);
    EXPECT_EQ(header->kind, input.kind);
    EXPECT_EQ(header->degree, input.degree);
    EXPECT_EQ(header->hasCoefficients, input.hasCoefficients);
    EXPECT_EQ(header->isWide, input.isWide);
    EXPECT_EQ(header->isCanonical, input.isCanonical);
    EXPECT_EQ(header->scratchBytes, 0u);
    float record[62];
    EXPECT_THROW(header->read(0, 1, record), std::logic_error);
}

void expectRecords(const PlyVariant& variant) {
    SCOPED_TRACE(nameOf(variant));
    const Scratch scratch;
    const std::vector<float> records = recordsOf(variant.degree);
    support::writeFile(scratch / "scene.ply", support::variantFile(variant, records));
    SplatSource::OpenOptions options;
    options.threads = 2;
    const auto input = SplatSource::openSource(scratch / "scene.ply", options);
    ASSERT_EQ(input->count, splats);
    ASSERT_EQ(input->hasCoefficients, variant.degree > 0);
    expectHeader(scratch / "scene.ply", *input);
    std::vector<float> read(records.size());
    const std::size_t floats = GaussionSplat::recordLayout(variant.degree > 0).floats;
    input->read(0, splats, read.data());
    EXPECT_EQ(read, records);
    // Reads from the middle, as workers do.
    for (const std::size_t first : {1u, 1023u, 1024u, 1500u, 2499u}) {
        std::fill(read.begin(), read.end(), -1.0f);
        const std::size_t size = std::min<std::size_t>(700, splats - first);
        std::vector<double> positions(3 * size);
        input->readWide(first, size, read.data(), positions.data());
        EXPECT_TRUE(std::equal(read.begin(), read.begin() + static_cast<std::ptrdiff_t>(size * floats),
                               records.begin() + static_cast<std::ptrdiff_t>(first * floats)));
        EXPECT_EQ(positions[3 * size - 1], records[(first + size - 1) * floats + 2]);
    }
}

TEST(PlyInput, ReadsEveryLayoutTypeDegreeAndByteOrder) {
    for (const PlyForm form : {PlyForm::ascii, PlyForm::littleEndian, PlyForm::bigEndian}) {
        for (const PlyOrder order :
             {PlyOrder::canonical, PlyOrder::alphabetical, PlyOrder::reversed, PlyOrder::extraBetween}) {
            for (const char* const type : {"float", "double", "short", "int32", "char"}) {
                for (const int degree : {0, 1, 2, 3, 4}) {
                    expectRecords({.form = form, .order = order, .type = type, .degree = degree});
                }
            }
        }
    }
}

TEST(PlyInput, ReadsFilesWithoutNormalsWithListsAndOtherLineEnds) {
    for (const PlyForm form : {PlyForm::ascii, PlyForm::littleEndian, PlyForm::bigEndian}) {
        for (const int degree : {0, 3}) {
            expectRecords({.form = form, .degree = degree, .hasNormals = false});
            expectRecords({.form = form, .degree = degree, .hasListBefore = true});
            expectRecords({.form = form, .degree = degree, .hasListInside = true});
            expectRecords({.form = form, .degree = degree, .hasListBefore = true, .hasListInside = true});
            expectRecords({.form = form, .degree = degree, .lineEnd = "\r\n"});
            expectRecords({.form = form, .degree = degree, .lineEnd = "\r"});
        }
    }
}

// The bits of NaNs are kept, in canonical and in other layouts.
TEST(PlyInput, KeepsTheBitsOfFloats) {
    const Scratch scratch;
    PlyFile file;
    file.coefficients = true;
    support::Random random(3);
    for (int i = 0; i < 300; ++i) {
        file.add(support::awkwardSplat(random));
    }
    file.write(scratch / "canonical.ply");
    const auto canonical = SplatSource::openSource(scratch / "canonical.ply", {});
    EXPECT_TRUE(canonical->isCanonical);
    std::vector<float> read(file.records.size());
    canonical->read(0, 300, read.data());
    EXPECT_EQ(std::memcmp(read.data(), file.records.data(), read.size() * sizeof(float)), 0);
    std::string bytes = file.bytes();
    const std::string line = "property float rot_3\n";
    const std::size_t at = bytes.find(line);
    bytes.replace(bytes.find("property float x\n"), 17, line)
        .replace(at + 4, line.size(), "property float x\n");
    support::writeFile(scratch / "swapped.ply", bytes);
    const auto swapped = SplatSource::openSource(scratch / "swapped.ply", {});
    std::vector<float> moved(file.records.size());
    swapped->read(0, 300, moved.data());
    const std::size_t floats = file.recordFloats();
    for (std::size_t i = 0; i < 300; ++i) {
        std::swap(moved[i * floats], moved[i * floats + floats - 1]);
    }
    EXPECT_EQ(std::memcmp(moved.data(), file.records.data(), read.size() * sizeof(float)), 0);
}

// Ctrl-C while the words of a text file are counted, lists are walked over, or records are read.
TEST(PlyInput, EndsWithWhatPauseThrows) {
    struct Interrupted {};
    for (const PlyForm form : {PlyForm::ascii, PlyForm::littleEndian}) {
        const Scratch scratch;
        support::writeFile(scratch / "scene.ply",
                           support::variantFile({.form = form, .hasListInside = true}, recordsOf(3)));
        std::size_t calls = 0;
        std::size_t last = SIZE_MAX;
        SplatSource::OpenOptions options;
        options.pause = [&] {
            if (++calls > last) {
                throw Interrupted();
            }
        };
        SplatSource::openSource(scratch / "scene.ply", options);
        ASSERT_GE(calls, 2u); // the header, and what is behind it
        last = std::exchange(calls, 0) - 1;
        EXPECT_THROW(SplatSource::openSource(scratch / "scene.ply", options), Interrupted);
        calls = 0;
        last = SIZE_MAX;
        const auto input = SplatSource::openSource(scratch / "scene.ply", options);
        last = calls;
        std::vector<float> records(input->count * GaussionSplat::layoutWithCoefficients.floats);
        EXPECT_THROW(input->read(0, input->count, records.data()), Interrupted);
    }
}

// The message with which a file with this content is refused.
std::string refusalOf(const std::string& text) {
    const Scratch scratch;
    support::writeFile(scratch / "scene.ply", text);
    try {
        SplatSource::openSource(scratch / "scene.ply", {});
    } catch (const SplatSource::SourceError& error) {
        return std::string(error.what()).substr(support::textOf(scratch / "scene.ply").size());
    }
    return {};
}

TEST(PlyInput, SaysWhatAFileLooksLike) {
    EXPECT_NE(refusalOf("glTF\2\0\0\0").find("a glTF file"), std::string::npos);
    EXPECT_NE(refusalOf("PK\3\4....").find("a zip archive"), std::string::npos);
    EXPECT_NE(
        refusalOf("ply\nformat ascii 1.0\nelement vertex 1\nproperty float x\nproperty float y\nproperty "
                  "float z\nend_header\n1 2 3\n")
            .find("a point cloud, not splats: no opacity, no scale"),
        std::string::npos);
}

} // namespace
