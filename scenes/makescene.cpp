// makescene: writes a seeded scene as a PLY file.
#include "scenes/scenes.h"

#include <CLI/CLI.hpp>

#include <exception>
#include <iostream>
#include <string>
#include <vector>

namespace {

struct Arguments {
    std::string output;
    scenes::SceneOptions scene;
    bool plain = false;
    std::vector<double> extent;
    std::vector<double> centre;
    std::vector<double> offset;
    std::vector<double> shift;
    std::vector<double> scale;
    std::int32_t epsg = 0;
};

scenes::Point pointOf(const std::vector<double>& v) {
    return {v[0], v[1], v[2]};
}

void declare(CLI::App& app, Arguments& arguments) {
    scenes::SceneOptions& scene = arguments.scene;
    app.add_option("output", arguments.output, "PLY file to write; an existing one is replaced")->required();
    app.add_option("-n,--splats", scene.splats, "number of splats")->capture_default_str();
    app.add_option("--seed", scene.seed, "another town for every number")->capture_default_str();
    app.add_flag("--no-coefficients", arguments.plain, "records without f_rest_0 to f_rest_44");
    app.add_option("--extent", arguments.extent, "metres along x and y (250 200)")->expected(2);
    app.add_option("--centre", arguments.centre, "of the ground, metres (0 0 0)")->expected(3);
    app.add_option("--order", scene.order, "shuffled: as a trainer writes them; grouped: surface by surface")
        ->transform(CLI::CheckedTransformer(std::map<std::string, scenes::Order>{
            {"shuffled", scenes::Order::shuffled}, {"grouped", scenes::Order::grouped}}));
    app.add_flag("--normals", scene.normals, "unit normals of the surfaces instead of zeros");
    app.add_flag("--bounds", scene.statedBounds, "state the exact box in the header");
    app.add_option("--source", scene.source, "header comment: where the data came from, one word");
    app.add_option("--data-type", scene.dataType, "header comment: kind of the data, one word");
    app.add_option("--epsg", arguments.epsg, "header comment: code of the reference system");
    app.add_option("--offset", arguments.offset, "header comments: three numbers")->expected(3);
    app.add_option("--shift", arguments.shift, "header comments: three numbers")->expected(3);
    app.add_option("--scale", arguments.scale, "header comments: three numbers")->expected(3);
    app.add_option("--comment", scene.comments,
                   "a further header comment, its text as it stands; may be repeated")
        ->expected(1)
        ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
}

void finish(const CLI::App& app, Arguments& arguments) {
    scenes::SceneOptions& scene = arguments.scene;
    scene.coefficients = !arguments.plain;
    if (!arguments.extent.empty()) {
        scene.extentX = arguments.extent[0];
        scene.extentY = arguments.extent[1];
    }
    if (!arguments.centre.empty()) {
        scene.centre = pointOf(arguments.centre);
    }
    if (app.count("--epsg") > 0) {
        scene.epsg = arguments.epsg;
    }
    if (!arguments.offset.empty()) {
        scene.offset = pointOf(arguments.offset);
    }
    if (!arguments.shift.empty()) {
        scene.shift = pointOf(arguments.shift);
    }
    if (!arguments.scale.empty()) {
        scene.scale = pointOf(arguments.scale);
    }
}

} // namespace

int main(int argc, char** argv) {
    CLI::App app("Writes a seeded scene, a small town of Gaussian splats, as a binary PLY file.",
                 "makescene");
    Arguments arguments;
    declare(app, arguments);
    CLI11_PARSE(app, argc, argv);
    finish(app, arguments);
    try {
        scenes::writeScene(arguments.output, arguments.scene);
    } catch (const std::exception& error) {
        std::cerr << "makescene: " << error.what() << "\n";
        return 1;
    }
    return 0;
}
