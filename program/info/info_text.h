// The facts of info as text and as JSON.
#pragma once

#include "program/info/dataset_facts.h"
#include "program/info/scene_facts.h"

#include <cstddef>
#include <string>

namespace Tavrin::SplatProgram {

enum class Bars { none, ascii, blocks };

struct InfoStyle {
    Bars bars = Bars::none;
    std::size_t columns = 0; // width to fit, of the terminal; 0 for no limit
    bool cells = false;      // also print a table of the dataset's cells
};

// The text that `info` prints: several lines, each with a line feed.
std::string sceneText(const SceneFacts& facts, const InfoStyle& style);
std::string datasetText(const DatasetFacts& facts, const InfoStyle& style);

// The same as one JSON object on one line. Numbers that JSON cannot hold are null.
std::string sceneJson(const SceneFacts& facts);
std::string datasetJson(const DatasetFacts& facts, bool cells);

} // namespace Tavrin::SplatProgram
