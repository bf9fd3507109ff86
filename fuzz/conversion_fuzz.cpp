// Converts a small file of several blocks. The conversion must end in one of the documented ways, and in the
// same way with blocks of another size. Its output must be that of the golden tests' reference converter.
//
// An input begins with a few choices. Then follows either the file itself or the parts to make one of:
// comments, a count that may be wrong, records, and where to cut the file.

#include "fuzz/library.h"
#include "fuzz/process_end.h"
#include "fuzz/scene.h"
#include "fuzz/target.h"
#include "include/plyconvert.h"
#include "reader/dataset.h"
#include "reader/verify.h"
#include "src/blocks.h"
#include "src/splatheader.h"
#include "tests/reference/converter.h"
#include "tests/support/dataset_writer.h"
#include "tests/support/header_errors.h"

#include <algorithm>
#include <stdexcept>

namespace {

namespace fs = std::filesystem;
using namespace Tavrin::GaussionSplat;
using fuzz::Job;

constexpr long long mostRecords = 400;

std::string endingOf(const Job& job) {
    chunkGrid = {}; // as in a fresh process
    try {
        const std::int32_t result =
            job.countAs > 0 ? fuzz::convertAs(job) : plyConvert(job.input.c_str(), job.output.c_str());
        return "result " + std::to_string(result);
    } catch (const std::invalid_argument& error) {
        return std::string("invalid_argument ") + error.what();
    } catch (const std::out_of_range& error) {
        return std::string("out_of_range ") + error.what();
    } catch (const fuzz::ProcessEnd& end) {
        return "exit status " + std::to_string(end.status);
    }
}

// A scene without splats ends with the status -1.
bool isDocumented(const std::string& ending) {
    return ending == "result 0" || ending == "result -1" || ending == "exit status -1" ||
           std::ranges::find(support::headerErrors, ending) != support::headerErrors.end();
}

// Compares the library's files with those of the reference converter.
void compareWithReference(const Job& job, const std::string& file) {
    const reference::Dataset expected = reference::convert(file, job.countAs);
    fuzz::requireEqual(fuzz::readFile(job.output / "data.bin"), expected.data, "data.bin");
    fuzz::requireEqual(fuzz::readFile(job.output / "index.bin"), expected.index, "index.bin");
    std::string meta = fuzz::readFile(job.output / "converted_from_ply.ytr");
    const std::size_t guid = meta.find("\t\"guid\": \"");
    fuzz::require(guid != meta.npos, "the meta document has a guid");
    fuzz::requireEqual(meta.replace(guid + 10, 32, 32, '?'), expected.meta, "the meta document");
    const bool hasCoefficients = fs::exists(job.output / "shcoef.bin");
    fuzz::require(hasCoefficients == reference::readHeader(file).coefficients,
                  "there are coefficients where the input has them");
    if (hasCoefficients) {
        fuzz::requireEqual(fuzz::readFile(job.output / "shcoef.bin"), expected.coefficients, "shcoef.bin");
    }
}

// The reader must report on every dataset of the library without throwing.
void readBack(const Job& job) {
    namespace Reader = Tavrin::SplatReader;
    Reader::VerifyOptions options;
    options.level = Reader::VerifyLevel::full;
    Reader::verifyDataset(job.output, options);
}

// Skips huge grids: walking over them takes long, which is no finding.
bool gridIsSmall(const std::string& file, std::int64_t count) {
    constexpr double mostCells = 10'000.0;
    const reference::Header header = reference::readHeader(file);
    const reference::Box box = reference::boxOf(header, file);
    const double side = count > 8'000'000 ? 10.0 : 30.0; // or more
    const double columns = (box.max[0] - box.min[0]) / side + 1.0;
    const double rows = (box.max[1] - box.min[1]) / side + 1.0;
    return columns >= 0.0 && rows >= 0.0 && columns < mostCells && rows < mostCells &&
           columns * rows < mostCells;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    fuzz::Source source(data, size);
    const fuzz::Scene scene = fuzz::sceneOf(source);
    if (!fuzz::statesAtMost(scene.file, mostRecords)) {
        return -1;
    }
    Job job;
    job.countAs = fuzz::statedCounts[scene.countChoice % std::size(fuzz::statedCounts)];
    if (job.countAs > 0 && !gridIsSmall(scene.file, job.countAs)) {
        job.countAs = 0;
    }
    DatasetWriter::writeFile(job.input, scene.file);
    fs::remove_all(job.output);

    blockSplats = scene.blockSplats;
    const std::string ending = endingOf(job);
    fuzz::require(isDocumented(ending), "the ending is documented: " + ending);
    const std::string files = fuzz::filesOf(job.output);
    fuzz::require(files != "no folder" || (ending != "result 0" && ending != "exit status -1"),
                  "an end behind the header leaves a folder");
    fuzz::require(files == "no folder" || ending == "result 0" || ending == "exit status -1",
                  "a header that is refused leaves no folder");

    blockSplats = scene.otherBlockSplats;
    fuzz::requireEqual(endingOf(job), ending, "the ending of a second run");
    fuzz::requireEqual(fuzz::filesOf(job.output), files, "the dataset of a second run");
    if (ending == "result 0") {
        compareWithReference(job, scene.file);
        readBack(job);
    }
    return 0;
}
