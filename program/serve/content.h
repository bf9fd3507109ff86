// What the server gives: a table that is made once, at its start.
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
    std::string name; // as messages call it
    std::string type; // media type
    std::string tag;  // entity tag, in quotes: another one for another content
    std::string bytes;
    std::string gzip; // the same compressed; empty when it is given as it is alone
    std::optional<StampedFile> file;
};

// A dataset that is given, and what the page is told of it.
struct ServedDataset {
    // Opens the dataset's files and checks it in the quick form. The files stay open, so that what is given
    // is the dataset that was checked, even when another one takes its folder. Throws a Failure
    // (InputRefused) for a folder that holds no sound dataset.
    static ServedDataset open(const std::string& folder);

    std::string folder;
    std::string name; // that of the folder, unless somebody gives it another one
    std::string map;  // datasets with the same word lie on one map; empty: it has one of its own
    std::optional<std::array<double, 6>> box; // of its splats in world coordinates, where it is known
    std::int32_t epsg = 0;                    // 0 for none
    std::vector<std::pair<std::string, StampedFile>> files; // with their names
};

class Content {
public:
    // The page at "/", the list of datasets at "/datasets.json", and each dataset's files under "/data/N/".
    static Content ofDatasets(std::vector<ServedDataset> datasets);

    // By the path of a request, which must be one of the table's. Null for any other.
    const Resource* find(std::string_view path) const;

private:
    void addText(const std::string& path, std::string name, std::string type, std::string bytes,
                 std::string gzip = {});
    void addDataset(ServedDataset dataset, const std::string& base);

    std::map<std::string, Resource, std::less<>> resources_;
};

} // namespace Tavrin::SplatProgram
