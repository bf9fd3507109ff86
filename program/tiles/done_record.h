// The record that a dataset is done: what it was made of, and how. It stands beside the dataset as
// OUT.done.json, so that a later run can tell that there is nothing to do.
#pragma once

#include "program/convert/summary.h"
#include "program/tiles/input_file.h"

#include <filesystem>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace Tavrin::SplatProgram {

// What decides the bytes of a dataset.
struct Making {
    std::vector<InputFile> inputs; // in order, as they were before the first of them was opened
    std::vector<std::pair<std::string, std::string>> options; // those that change bytes: name, word
    std::int64_t started = timeNow();                         // after the inputs were looked at
};

// What a run may find done.
struct DoneTile {
    Summary summary; // with the counts and sizes; no warnings
    std::string guid;
};

// OUT.done.json of an output folder.
std::filesystem::path doneRecordPath(const std::filesystem::path& folder);

// The dataset in `folder` when its record says that it was made in this way by this version of the program,
// the record's guid is the dataset's, and the dataset verifies in the quick form; else nothing. With
// `isStrict` nothing where invalid splats were dropped, without `allowLoss` nothing where splats were left
// out: such a run would end differently. An input that was written to while the run began, as far as the
// clock of its file system tells, counts as changed.
std::optional<DoneTile> findDone(const std::filesystem::path& folder, const Making& making, bool isStrict,
                                 bool allowLoss);

// Removes the record of a dataset that was replaced. A file that is no record stays, and so does one that
// cannot be removed: findDone sees that its dataset is gone.
void forgetDone(const std::filesystem::path& folder);

// Writes the record of the dataset that stands in `folder` now. Throws a Failure (OutputRefused).
void recordDone(const std::filesystem::path& folder, const Making& making, const Summary& summary);

} // namespace Tavrin::SplatProgram
