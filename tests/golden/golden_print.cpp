// golden_print FOLDER: converts every golden scene in FOLDER and prints the file of hashes.
//
//   build/release/tests/golden/golden_print /tmp > tests/golden/hashes.txt

#include "tests/golden/golden_scenes.h"

#include <exception>
#include <iostream>

int main(int argc, char** argv) {
    if (argc != 2) {
        std::cerr << "usage: golden_print FOLDER (for scratch files of up to 700 MB)\n";
        return 2;
    }
    try {
        const std::filesystem::path scratch = std::filesystem::path(argv[1]) / "golden_print";
        std::filesystem::create_directories(scratch);
        for (const golden::Scene& scene : golden::goldenScenes()) {
            std::cout << golden::linesOf(scene, golden::hashesOf(scene, scratch)) << std::flush;
        }
        std::filesystem::remove_all(scratch);
    } catch (const std::exception& error) {
        std::cerr << "golden_print: " << error.what() << '\n';
        return 1;
    }
    return 0;
}
