// The scenes whose converted bytes are held to hashes, and how their hashes are taken.
#pragma once

#include "scenes/scenes.h"

#include <filesystem>
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
const Scene& goldenScene(const std::string& name);

// SHA-256 by file: the scene itself ("scene.ply"), data.bin, shcoef.bin, index.bin and the meta document, the
// last with question marks for the digits of its guid and with LF line ends. Converts in `scratch`, whose
// files are removed again. Throws std::runtime_error when the conversion does not come to its end.
std::map<std::string, std::string> hashesOf(const Scene& scene, const std::filesystem::path& scratch);

// The lines of hashes.txt for a scene: HASH, two blanks, SCENE/FILE, as sha256sum prints them.
std::string linesOf(const Scene& scene, const std::map<std::string, std::string>& hashes);

} // namespace golden
