#include "source/spz.h"

#include "src/records.h"

#include <fmt/format.h>

#include <algorithm>
#include <utility>

namespace Tavrin::SplatSource {
namespace {

constexpr std::uint64_t mostSplats = 1024; // read at a time

// A buffer of at least this many bytes, which each thread keeps.
std::uint8_t* roomFor(std::uint64_t bytes) {
    thread_local std::vector<std::uint8_t> room;
    room.resize(std::max<std::size_t>(room.size(), bytes));
    return room.data();
}

} // namespace

SpzInput::SpzInput(const std::filesystem::path& path, InputAxes axes,
                   const std::filesystem::path& scratchFolder, Pause pause)
    : file_(path, std::move(pause)), header_(readSpzHeader(file_)), arrays_(file_, header_, scratchFolder),
      decoder_(header_, settleAxes(axes)) {
    if (header_.degree > 3) {
        remarks.push_back("coefficients of degree 4 are dropped: a dataset holds degrees 1 to 3");
    }
}

void describeSpz(const SpzHeader& header, Input& input) {
    input.kind = fmt::format("SPZ, version {}", header.version);
    input.count = header.splats;
    input.degree = std::min(header.degree, 3);
    input.hasCoefficients = input.degree > 0;
    input.params.dataType = "ply"; // as for a canonical file of these records
    input.scratchBytes = header.arrayBytes();
}

void SpzInput::requireUnchanged() const {
    file_.requireUnchanged();
}

std::vector<std::string> SpzInput::laterRemarks() const {
    return arrays_.finish().remarks;
}

// Also adds the axes to the input's kind.
AxisTurn SpzInput::settleAxes(InputAxes axes) {
    name = file_.name();
    describeSpz(header_, *this);
    if (axes == InputAxes::rightUpBack || axes == InputAxes::rightDownFront) {
        const bool isUp = axes == InputAxes::rightUpBack;
        kind += isUp ? ", axes right, up, back as chosen" : ", axes right, down, front as chosen";
        return turnFromAxes(isUp ? axesRightUpBack : axesRightDownFront);
    }
    const std::uint32_t code = header_.hasExtensions ? arrays_.axesCode() : 0;
    if (code > mostAxesCode) {
        throw SourceError(fmt::format(
            "{}: its axes have the code {}, which is not known: state them with --axes", name, code));
    }
    kind += code != 0 ? fmt::format(", axes as it states (code {})", code)
                      : ", axes right, up, back by default, for it states none";
    return turnFromAxes(code != 0 ? code : axesRightUpBack);
}

void SpzInput::readWide(std::uint64_t first, std::uint64_t size, float* records, double* positions) const {
    std::uint8_t* const bytes = roomFor(std::min(size, mostSplats) * (header_.arrayBytes() / header_.splats));
    const std::size_t floats = GaussionSplat::recordLayout(hasCoefficients).floats;
    for (std::uint64_t done = 0; done < size;) {
        const std::uint64_t part = std::min(size - done, mostSplats);
        arrays_.read(first + done, part, spzArrays, bytes);
        decoder_.decode(bytes, part, records + done * floats);
        done += part;
    }
    copyPositions(records, floats, size, positions);
}

void SpzInput::readPositions(std::uint64_t first, std::uint64_t size, double* positions) const {
    std::uint8_t* const bytes = roomFor(std::min(size, mostSplats) * header_.bytesOf(SpzArray::positions));
    for (std::uint64_t done = 0; done < size;) {
        const std::uint64_t part = std::min(size - done, mostSplats);
        arrays_.read(first + done, part, 1, bytes);
        decoder_.decodePositions(bytes, part, positions + 3 * done);
        done += part;
    }
}

} // namespace Tavrin::SplatSource
