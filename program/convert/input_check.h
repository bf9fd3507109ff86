// The checks of an input that need nothing but its header and its size.
#pragma once

#include "program/convert/warnings.h"
#include "program/scene/scene_comments.h"
#include "program/scene/splat_file.h"
#include "program/system/platform.h"

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>

namespace Tavrin::SplatProgram {

// What tells whether a file was written to in the meantime; all zeros where no file stands.
struct FileStamp {
    std::uint64_t size = 0;
    std::filesystem::file_time_type time;
    std::optional<FileIdentity> identity;
    bool operator==(const FileStamp&) const = default;
};

FileStamp stampOf(const std::filesystem::path& file);

// An input whose records can be read as the header says.
struct InputFacts {
    std::string name; // as given
    SplatFile file;
    FileStamp stamp; // from before the header was read
    SceneComments comments;
    bool areBoundsSeen = false; // a comment states minx or maxx
};

// Everything that the header and the size of a file can tell. Throws a Failure (InputRefused) for what cannot
// be read, and for what a conversion would misread.
InputFacts checkInput(const std::string& name, Warnings& warnings);

} // namespace Tavrin::SplatProgram
