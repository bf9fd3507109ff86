// Which datasets `view` shows: of folders and catalogues, those of one EPSG code on one map.
#pragma once

#include "program/serve/content.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace Tavrin::SplatProgram {

struct ViewedDatasets {
    std::vector<ServedDataset> datasets;
    std::string remark; // one line where not all of them are on the first map; empty else
};

// `words` are folders of datasets and files of catalogues. Each dataset is checked by the reader. With `epsg`
// those of this code alone are taken, and 0 stands for those without one. Throws a Failure (InputRefused) for
// what is neither a sound dataset nor a catalogue of such, and when no dataset has the code.
ViewedDatasets datasetsToView(const std::vector<std::string>& words, std::optional<std::int32_t> epsg);

} // namespace Tavrin::SplatProgram
