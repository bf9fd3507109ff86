// The record of a finished dataset: its inputs and options. It lies beside the dataset as OUT.done.json, so
// that a later run with --skip-done can tell that there is nothing to do.
#pragma once

#include "program/convert/summary.h"
#include "program/tiles/input_file.h"

#include <filesystem>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace Tavrin::SplatProgram {

// Everything that decides the bytes of a dataset.
struct Making {
    std::vector<InputFile> inputs; // in order, as they were before the first one was opened
    std::vector<std::pair<std::string, std::string>> options; // name and text of those that change bytes
    std::int64_t started = timeNow(); // nanoseconds since 1970, after the inputs were inspected
};

// A dataset that an earlier run has finished.
struct DoneTile {
    Summary summary; // counts and sizes; without warnings
    std::string guid;
};

// OUT.done.json of an output folder.
std::filesystem::path doneRecordPath(const std::filesystem::path& folder);

// The dataset in `folder`, if nothing has to be done: its record has the same `making` and program version,
// the record's guid is the dataset's, and the dataset passes the quick verification. Otherwise nothing. Also
// nothing if the run would now end differently: invalid splats were dropped and `isStrict` is set, or splats
// were left out and `allowLoss` is not. An input that may have been written to while the run began, given the
// resolution of file times, counts as changed.
std::optional<DoneTile> findDone(const std::filesystem::path& folder, const Making& making, bool isStrict,
                                 bool allowLoss);

// Removes the record of a dataset that was replaced. A file that is not a record stays. A record that cannot
// be removed does no harm: findDone sees that its guid is not the dataset's.
void forgetDone(const std::filesystem::path& folder);

// Writes the record of the dataset that is in `folder` now. Throws a Failure (OutputRefused).
void recordDone(const std::filesystem::path& folder, const Making& making, const Summary& summary);

} // namespace Tavrin::SplatProgram
