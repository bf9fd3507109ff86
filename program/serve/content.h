// The content of the server: a table of paths, made once at the start.
#pragma once

#include "program/system/stamped_file.h"

#include <array>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace Tavrin::SplatProgram {

// One path of the server: bytes in memory, or a file.
struct Resource {
    std::string name; // for messages
    std::string type; // media type
    std::string tag;  // entity tag, in quotes; differs when the content differs
    std::string bytes;
    std::string gzip; // `bytes` compressed; empty if only the plain form is served
    std::optional<StampedFile> file;
};

// A dataset to serve, and what the page is told about it.
struct ServedDataset {
    // Opens the dataset's files and runs the quick verification. The files stay open, so that the dataset
    // that was checked is served even after another one has replaced its folder. Throws a Failure
    // (InputRefused) when the folder has no sound dataset.
    static ServedDataset open(const std::string& folder);

    std::string folder;
    std::string name; // of the folder, unless the caller sets another one
    std::string map;  // datasets with the same word share a map; empty: the dataset has a map of its own
    std::optional<std::array<double, 6>> box;               // of its splats in world coordinates, if known
    std::int32_t epsg = 0;                                  // 0 for none
    std::vector<std::pair<std::string, StampedFile>> files; // with their names
};

class Content {
public:
    // The page at "/", the list of datasets at "/datasets.json", and each dataset's files under "/data/N/".
    static Content ofDatasets(std::vector<ServedDataset> datasets);

    // The resource at the path of a request; null for any path outside the table.
    const Resource* find(std::string_view path) const;

private:
    void addText(const std::string& path, std::string name, std::string type, std::string bytes,
                 std::string gzip = {});
    void addDataset(ServedDataset dataset, const std::string& base);

    std::map<std::string, Resource, std::less<>> resources_;
};

} // namespace Tavrin::SplatProgram
