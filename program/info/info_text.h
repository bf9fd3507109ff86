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
    std::size_t columns = 0; // of the terminal that it fits; 0 where there is none
    bool cells = false;      // a table of a dataset's cells
};

// What `info` prints for people: several lines, the last one ended.
std::string sceneText(const SceneFacts& facts, const InfoStyle& style);
std::string datasetText(const DatasetFacts& facts, const InfoStyle& style);

// The same as one JSON object on one line. Numbers that JSON cannot hold are null.
std::string sceneJson(const SceneFacts& facts);
std::string datasetJson(const DatasetFacts& facts, bool cells);

} // namespace Tavrin::SplatProgram
