// What the server gives: a table that is made once, at its start.
#pragma once

#include "program/system/stamped_file.h"

#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>
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

class Content {
public:
    // The page at "/", the list of datasets at "/datasets.json", and each dataset's files under "/data/N/".
    // The files are opened here and stay open, so that what is given is the dataset that was checked, even
    // when another one takes its folder. Throws a Failure (InputRefused) for a folder that holds no sound
    // dataset.
    static Content ofDatasets(const std::vector<std::string>& folders);

    // By the path of a request, which must be one of the table's. Null for any other.
    const Resource* find(std::string_view path) const;

private:
    void addText(const std::string& path, std::string name, std::string type, std::string bytes,
                 std::string gzip = {});
    void addDataset(const std::string& folder, const std::string& base);

    std::map<std::string, Resource, std::less<>> resources_;
};

// Throws a Failure (InputRefused) with the first finding of the quick check when the folder holds no sound
// dataset.
void requireSoundDataset(const std::string& folder);

} // namespace Tavrin::SplatProgram
