// Splat PLY files. Arbitrary bytes must be refused with one line or give records that do not depend on how
// they are read. A file of any layout must give the records of the equivalent canonical file.

#include "fuzz/target.h"
#include "source/canonical_header.h"
#include "source/merge.h"
#include "source/ply_layout.h"
#include "tests/support/dataset_writer.h"
#include "tests/support/plyvariant.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstring>
#include <memory>
#include <vector>

namespace {

using namespace Tavrin;

constexpr std::uint64_t mostRecords = 2000;

std::size_t floatsOf(const SplatSource::Source& source) {
    return GaussionSplat::recordLayout(source.hasCoefficients).floats;
}

std::vector<float> readAll(const SplatSource::Source& source, std::uint64_t window) {
    std::vector<float> records(source.count * floatsOf(source));
    std::uint64_t kept = 0;
    for (std::uint64_t first = 0; first < source.count; first += window) {
        const std::uint64_t size = std::min(window, source.count - first);
        kept += source.read(first, size, records.data() + kept * floatsOf(source));
    }
    records.resize(kept * floatsOf(source));
    return records;
}

bool areSameBits(const std::vector<float>& a, const std::vector<float>& b) {
    return a.size() == b.size() &&
           (a.empty() || std::memcmp(a.data(), b.data(), a.size() * sizeof(float)) == 0);
}

std::unique_ptr<SplatSource::Scene> open(const std::string& bytes, const char* name) {
    const std::filesystem::path path = fuzz::scratch() / name;
    DatasetWriter::writeFile(path, bytes);
    SplatSource::SceneOptions options;
    options.open.threads = 2;
    options.open.scratchFolder = fuzz::scratch();
    return SplatSource::openScene({path}, options);
}

std::string canonicalFile(const SplatSource::Source& source, const std::vector<float>& records) {
    const std::uint64_t splats = records.size() / floatsOf(source);
    return SplatSource::canonicalHeader(source.params, source.boundsSeen, splats, source.hasCoefficients) +
           std::string(reinterpret_cast<const char*>(records.data()), records.size() * sizeof(float));
}

void checkBytes(const std::string& bytes) {
    std::vector<float> records;
    std::string canonical;
    try {
        const auto scene = open(bytes, "scene.ply");
        if (scene->count > mostRecords) {
            return;
        }
        records = readAll(*scene, mostRecords);
        fuzz::require(areSameBits(readAll(*scene, 7), records), "windows change no record");
        const SplatSource::Ledger ledger = scene->ledger();
        fuzz::require(ledger.read == scene->count && ledger.read == ledger.kept + ledger.droppedInAll(),
                      "read = kept + dropped");
        canonical = canonicalFile(*scene, records);
    } catch (const SplatSource::SourceError& error) {
        const std::string text = error.what();
        fuzz::require(text.starts_with((fuzz::scratch() / "scene.ply").string() + ":"),
                      "a refusal names the file: " + text);
        fuzz::require(std::ranges::none_of(text, [](char c) { return c == '\n' || c == '\0'; }),
                      "a refusal is one line: " + text);
        return;
    }
    const auto again = open(canonical, "canonical.ply");
    const std::vector<float> same = readAll(*again, mostRecords);
    fuzz::require(areSameBits(same, records), "a normal form has the same records");
    fuzz::require(canonicalFile(*again, same) == canonical, "a normal form is its own");
}

// A layout from the first bytes, values from the rest.
void checkVariant(fuzz::Source& source) {
    constexpr const char* types[] = {"float", "double", "short", "int32", "char"};
    constexpr const char* lineEnds[] = {"\n", "\r\n", "\r"};
    support::PlyVariant variant;
    variant.form = static_cast<support::PlyForm>(source.takeBelow(3));
    variant.order = static_cast<support::PlyOrder>(source.takeBelow(4));
    const std::size_t type = source.takeBelow(5);
    variant.type = types[type];
    variant.degree = static_cast<int>(source.takeBelow(5));
    const std::size_t flags = source.takeBelow(8);
    variant.hasNormals = (flags & 1) != 0;
    variant.hasListBefore = (flags & 2) != 0;
    variant.hasListInside = (flags & 4) != 0;
    variant.lineEnd = lineEnds[source.takeBelow(3)];
    const std::size_t floats = GaussionSplat::recordLayout(variant.degree > 0).floats;
    const int degree = std::min(variant.degree, 3);
    const auto perChannel = static_cast<std::size_t>((degree + 1) * (degree + 1) - 1);
    const std::size_t opacityAt = floats - 8;
    std::vector<float> records(source.takeBelow(40) * floats);
    for (std::size_t i = 0; i < records.size(); ++i) {
        const std::size_t place = i % floats;
        const bool isNormal = place >= GaussionSplat::normalAt && place < GaussionSplat::colourAt;
        const bool isRest = degree > 0 && place >= GaussionSplat::coefficientsAt && place < opacityAt;
        const bool isThere = isNormal ? variant.hasNormals
                                      : !isRest || (place - GaussionSplat::coefficientsAt) %
                                                           GaussionSplat::coefficientsPerChannel <
                                                       perChannel;
        const auto bits = source.take<std::uint32_t>();
        const auto real = std::bit_cast<float>(bits);
        const float value =
            type < 2 && std::isfinite(real) ? real : static_cast<float>(static_cast<std::int8_t>(bits));
        records[i] = isThere ? value : 0.0f;
    }
    for (std::size_t i = floats - 4; i < records.size(); i += floats) {
        records[i] = 1.0f; // no rotation is zero
    }
    const auto scene = open(support::variantFile(variant, records), "variant.ply");
    fuzz::require(scene->hasCoefficients == (degree > 0), "the degree is the layout's");
    // Integer types have no negative zero, so the expected records have none either.
    const bool isMoved = scene->isOffsetChosen;
    const std::vector<float> read = readAll(*scene, 16);
    fuzz::require(read.size() == records.size(), "every splat is read");
    for (std::size_t i = 0; i < read.size(); ++i) {
        const bool isSame = std::bit_cast<std::uint32_t>(read[i]) == std::bit_cast<std::uint32_t>(records[i]);
        fuzz::require(isSame || (isMoved && i % floats < 3), "a layout gives the canonical file's bytes");
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string bytes(reinterpret_cast<const char*>(data), size);
    if (bytes.starts_with("ply")) {
        checkBytes(bytes);
        return 0;
    }
    fuzz::Source source(data, size);
    checkVariant(source);
    return 0;
}
