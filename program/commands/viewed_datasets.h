// Chooses the datasets that `view` shows, and which of them share a map: those of one EPSG code.
#pragma once

#include "program/serve/content.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace Tavrin::SplatProgram {

struct ViewedDatasets {
    std::vector<ServedDataset> datasets;
    std::string remark; // one line when some of them are not on the first map; otherwise empty
};

// `words` are dataset folders and catalogue files. The reader checks each dataset. `epsg` keeps only the
// datasets of that code; 0 keeps those without a code. Throws a Failure (InputRefused) for a word that is
// neither a sound dataset nor a catalogue of sound datasets, when no dataset has the code, and when all
// datasets together need more than `openFiles` open files.
ViewedDatasets datasetsToView(const std::vector<std::string>& words, std::optional<std::int32_t> epsg,
                              std::uint64_t openFiles);

} // namespace Tavrin::SplatProgram
