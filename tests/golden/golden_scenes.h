// The golden scenes and the hashes of their datasets.
#pragma once

#include "scenes/scenes.h"

#include <filesystem>
#include <functional>
#include <iosfwd>
#include <map>
#include <string>
#include <vector>

namespace golden {

struct Scene {
    std::string name;
    bool large; // hundreds of megabytes
    scenes::SceneOptions options;
};

const std::vector<Scene>& goldenScenes();
std::vector<Scene> scenesOfSize(bool large);
const Scene& goldenScene(const std::string& name);

// Prints a scene by its name in test names.
void PrintTo(const Scene& scene, std::ostream* stream);

using Hashes = std::map<std::string, std::string>; // SHA-256 by file

// Converts a scene's file. Throws std::runtime_error when the conversion fails.
using Converter =
    std::function<void(const std::filesystem::path& input, const std::filesystem::path& output)>;

// The hashes of a scene ("scene.ply"), data.bin, shcoef.bin, index.bin and the meta document, the last with
// question marks for the digits of its guid and with LF line ends. Converts in `scratch`, whose files are
// removed again.
Hashes hashesOf(const Scene& scene, const std::filesystem::path& scratch, const Converter& convert);

// The same by the shipped library in a separate process.
Hashes hashesOf(const Scene& scene, const std::filesystem::path& scratch);

// The content of hashes.txt, by scene.
std::map<std::string, Hashes> expectedHashes();

// The lines of hashes.txt for a scene: HASH, two blanks, SCENE/FILE, as sha256sum prints them.
std::string linesOf(const Scene& scene, const Hashes& hashes);

} // namespace golden
