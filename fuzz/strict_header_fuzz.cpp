// Runs the strict header reader on arbitrary bytes. It must give a header or a refusal of one line. A header
// that it accepts must end where the library finds its end.

#include "fuzz/process_end.h"
#include "fuzz/target.h"
#include "source/ply.h"
#include "src/splatheader.h"
#include "tests/support/dataset_writer.h"

#include <algorithm>
#include <stdexcept>

namespace {

using namespace Tavrin;

constexpr long long mostRecords = 1000;

std::string refusalOf(const std::filesystem::path& path, SplatSource::PlyHeader& header) {
    try {
        const SplatSource::RecordFile file(path);
        header = SplatSource::parsePlyHeader(SplatSource::readStart(file), path.string());
    } catch (const SplatSource::SourceError& failure) {
        return failure.what();
    }
    return {};
}

void checkRefusal(const std::string& refusal, const std::filesystem::path& path) {
    fuzz::require(refusal.starts_with(path.string() + ":"), "a refusal names the file: " + refusal);
    const bool oneLine = std::ranges::none_of(refusal, [](char c) { return c == '\n' || c == '\0'; });
    fuzz::require(oneLine, "a refusal is one line: " + refusal);
}

// The library must find the same end of the header, whatever it makes of the lines.
void checkAgainstLibrary(const SplatSource::PlyHeader& header, const std::string& file,
                         const std::filesystem::path& path) {
    // For the library only a line feed ends a line.
    const bool isPlain =
        file.substr(0, header.length).find('\r') == std::string::npos && header.lines.back() == "end_header";
    if (!isPlain || !fuzz::statesAtMost(file, mostRecords)) {
        return;
    }
    try {
        const GaussionSplat::SplatHeader read(path, std::make_shared<GaussionSplat::Params>(), 1);
        fuzz::require(static_cast<std::uint64_t>(read.headerEnd) == header.length,
                      "program and library find the same end of the header");
    } catch (const std::logic_error&) {
        // a comment whose value is not a number, which the program checks separately
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string file(reinterpret_cast<const char*>(data), size);
    const std::filesystem::path path = fuzz::scratch() / "scene.ply";
    DatasetWriter::writeFile(path, file);
    SplatSource::PlyHeader header;
    const std::string refusal = refusalOf(path, header);
    if (!refusal.empty()) {
        checkRefusal(refusal, path);
        return 0;
    }
    fuzz::require(header.length <= size, "the header ends inside the file");
    std::size_t lineBytes = 0;
    for (const std::string& line : header.lines) {
        lineBytes += line.size() + 1;
    }
    // A line end has one or two bytes.
    fuzz::require(lineBytes <= header.length, "the lines are in the header");
    fuzz::require(!header.formatText.empty() && header.lines.front().starts_with("ply"),
                  "the header is one of PLY");
    for (const SplatSource::PlyElement& element : header.elements) {
        fuzz::require(element.count <= INT64_MAX && element.line <= header.lines.size(),
                      "an element has a count and a line");
    }
    checkAgainstLibrary(header, file, path);
    return 0;
}
