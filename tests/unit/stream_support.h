// Converts a file by the stream and by the library, and compares the datasets.
#pragma once

#include "plyconvert.h"
#include "src/chunker.h"
#include "src/indexer.h"
#include "src/runlog.h"
#include "src/splatheader.h"
#include "stream/canonical_scene.h"
#include "stream/conversion.h"
#include "tests/support/files.h"
#include "tests/support/plyfile.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <memory>
#include <stdexcept>
#include <string>

namespace Tavrin::SplatStream {

// Opens a file as a source by the library's own header reader.
inline std::unique_ptr<SplatSource::CanonicalPly> openScene(const std::filesystem::path& path) {
    GaussionSplat::Params params;
    const GaussionSplat::SplatHeader header =
        GaussionSplat::readSplatHeader(support::pathBytes(path), params);
    return openCanonicalScene(path, header, params);
}

// The document with question marks for the digits of the guid, which are random.
inline std::string withoutGuid(std::string meta) {
    const std::string key = "\"guid\": \"";
    const std::size_t at = meta.find(key);
    if (at == meta.npos ||
        meta.find_first_not_of("0123456789abcdef", at + key.size()) != at + key.size() + 32) {
        throw std::runtime_error("no guid in the meta document");
    }
    return meta.replace(at + key.size(), 32, 32, '?');
}

// Compares every file of two folders. The log names its folder, so that name is replaced first.
inline void expectSameDatasets(const std::filesystem::path& streamed, const std::filesystem::path& library) {
    ASSERT_EQ(support::filesUnder(streamed), support::filesUnder(library));
    for (const std::string& name : support::filesUnder(library)) {
        std::string ours = support::readFile(streamed / name);
        std::string theirs = support::readFile(library / name);
        if (name == "converted_from_ply.ytr") {
            ours = withoutGuid(ours);
            theirs = withoutGuid(theirs);
        } else if (name == "log.txt") {
            const std::string folder = support::pathBytes(library);
            const std::size_t at = theirs.find(folder);
            ASSERT_NE(at, theirs.npos);
            theirs.replace(at, folder.size(), support::pathBytes(streamed));
            // Windows takes either separator.
            std::replace(ours.begin(), ours.end(), '\\', '/');
            std::replace(theirs.begin(), theirs.end(), '\\', '/');
        }
        if (name.ends_with(".bin")) {
            EXPECT_TRUE(ours == theirs)
                << name << " differs, " << ours.size() << " and " << theirs.size() << " bytes";
        } else {
            EXPECT_EQ(ours, theirs) << name;
        }
    }
}

// Runs the library's stages with the grid of a scene of `countAs` splats, since only scenes of more than
// 1,000,000 splats are divided into cells.
inline void convertByLibraryAs(const support::Scratch& scratch, const std::filesystem::path& input,
                               std::uint64_t countAs) {
    using namespace GaussionSplat;
    const std::string output = support::pathBytes(scratch / "library");
    std::filesystem::remove_all(scratch / "library");
    std::filesystem::create_directories(scratch / "library");
    const auto params = std::make_shared<Params>();
    SplatHeader header(support::pathBytes(input), params, 1);
    chooseGrid(static_cast<std::int64_t>(countAs), header.bboxMin, header.bboxMax);
    header.recordSize = header.hasShcoef ? recordSizeWithCoefficients : recordSizeWithoutCoefficients;
    const auto bounding = std::make_shared<AttributeBounding>();
    bounding->hasShcoef = header.hasShcoef;
    const auto chunks = std::make_shared<BlockList>();
    openRunLog(output + "/log.txt");
    logInfo(LogLines::inputPath, support::pathBytes(input));
    logInfo(LogLines::outputPath, output);
    Chunker chunker;
    chunker.headers = {header};
    chunker.threadCount = 2;
    chunker.doChunking(bounding, chunks, output);
    Indexer indexer({header}, output);
    indexer.run(bounding, chunks, countAs, '[' + std::to_string(countAs) + ']', countAs, params);
    closeRunLog();
}

inline Measured stream(const SplatSource::Source& source, const std::string& inputName,
                       const std::filesystem::path& folder, const Settings& settings) {
    std::filesystem::remove_all(folder);
    std::filesystem::create_directories(folder);
    Measured measured = measure(source, settings);
    writeDataset(source, measured, inputName, folder, settings);
    return measured;
}

// Converts a file by the library into scratch/library.
inline void convertByLibrary(const support::Scratch& scratch, const std::filesystem::path& input) {
    ASSERT_EQ(plyConvert(support::pathBytes(input).c_str(), support::pathBytes(scratch / "library").c_str()),
              PLYCONVERT_DONE);
}

inline Settings settingsOf(unsigned threads, std::uint64_t windowRecords) {
    Settings settings;
    settings.threads = threads;
    settings.windowRecords = windowRecords;
    return settings;
}

// Converts a file both ways and compares.
inline void compareConversions(const support::Scratch& scratch, const std::filesystem::path& input,
                               const Settings& settings) {
    convertByLibrary(scratch, input);
    const auto source = openScene(input);
    stream(*source, support::pathBytes(input), scratch / "streamed", settings);
    expectSameDatasets(scratch / "streamed", scratch / "library");
}

} // namespace Tavrin::SplatStream
