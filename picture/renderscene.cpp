// renderscene: draws a splat PLY file in perspective, as a viewer would, so that two scenes can be looked at
// side by side.
//
// Every splat is projected as an elliptical Gaussian and blended over what lies behind it.
#include "picture/layer.h"
#include "picture/png_file.h"
#include "reader/format.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <cmath>
#include <exception>
#include <fstream>
#include <iostream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

namespace {

namespace Picture = Tavrin::SplatPicture;
using Tavrin::SplatReader::Point;
using Tavrin::SplatReader::Splat;

// Floats of a record, and where its values start. The opacity, the scales and the rotation end it.
constexpr std::size_t floatsWithCoefficients = 62;
constexpr std::size_t floatsWithoutCoefficients = 17;
constexpr std::size_t colourAt = 6;
constexpr std::size_t coefficientsAt = 9;
constexpr std::size_t opacityFromEnd = 8;
constexpr std::size_t scaleFromEnd = 7;
constexpr std::size_t rotationFromEnd = 4;

struct Scene {
    std::size_t floats = 0; // in a record
    std::vector<float> records;
    std::size_t count() const { return records.size() / floats; }
};

Scene readScene(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    constexpr std::string_view element = "element vertex ";
    std::size_t count = 0;
    Scene scene;
    for (std::string line; std::getline(file, line) && line != "end_header";) {
        if (line.starts_with(element)) {
            count = std::stoull(line.substr(element.size()));
        }
        scene.floats += line.starts_with("property float ") ? 1 : 0;
    }
    if (!file || (scene.floats != floatsWithCoefficients && scene.floats != floatsWithoutCoefficients)) {
        throw std::runtime_error(path + ": no splat file of 62 or 17 floats a record");
    }
    scene.records.resize(count * scene.floats);
    file.read(reinterpret_cast<char*>(scene.records.data()),
              static_cast<std::streamsize>(scene.records.size() * sizeof(float)));
    if (!file) {
        throw std::runtime_error(path + ": the file is cut");
    }
    return scene;
}

Splat splatOf(const float* record, std::size_t floats) {
    const float* const opacity = record + floats - opacityFromEnd;
    const float* const scale = record + floats - scaleFromEnd;
    const float* const rotation = record + floats - rotationFromEnd;
    Splat splat;
    double squares = 0.0;
    for (std::size_t i = 0; i < 4; ++i) {
        squares += double{rotation[i]} * rotation[i];
    }
    for (std::size_t i = 0; i < 4; ++i) {
        splat.rotation[i] = rotation[i] / std::sqrt(squares);
    }
    for (std::size_t i = 0; i < 3; ++i) {
        splat.position[i] = record[i];
        splat.colour[i] = 0.5 + double{Tavrin::SplatReader::Format::colourGain} * record[colourAt + i];
        splat.scale[i] = std::exp(double{scale[i]});
    }
    for (std::size_t i = 0; floats == floatsWithCoefficients && i < splat.coefficients.size(); ++i) {
        splat.coefficients[i] = record[coefficientsAt + i];
    }
    splat.opacity = 1.0 / (1.0 + std::exp(-double{*opacity}));
    return splat;
}

Picture::Picture render(const Scene& scene, const Picture::PerspectiveCamera& camera, int width, int height) {
    // The largest opacity of a splat, and the colour of the sky, as in common viewers.
    constexpr float mostAlpha = 0.99f;
    constexpr Picture::Colour sky = {0.62f, 0.74f, 0.88f};
    std::vector<Picture::Footprint> footprints;
    Picture::Footprint footprint;
    Picture::View view;
    for (std::size_t i = 0; i < scene.count(); ++i) {
        const Splat splat = splatOf(scene.records.data() + i * scene.floats, scene.floats);
        if (camera.see({splat.position[0], splat.position[1], splat.position[2]}, view) &&
            Picture::project(splat, view, footprint)) {
            footprint.number = i;
            footprint.colour = Picture::colourOf(splat, Picture::harmonics(view.direction));
            footprints.push_back(footprint);
        }
    }
    Picture::Picture picture(width, height);
    Picture::Canvas canvas(width, height, mostAlpha);
    Picture::Crew crew(std::max(1u, std::thread::hardware_concurrency()));
    const auto forEachStrip = [&](const auto& body) {
        crew.run(static_cast<std::size_t>(canvas.stripCount()),
                 [&](unsigned, std::size_t strip) { body(static_cast<int>(strip)); });
    };
    forEachStrip([&](int strip) { canvas.clear(strip, 0); });
    constexpr std::size_t pairs = std::size_t{32} << 20;
    Picture::Layer(canvas, pairs).blend(footprints, footprints.size(), crew);
    forEachStrip([&](int strip) { canvas.store(strip, height, sky, picture.bytes.data()); });
    return picture;
}

struct Arguments {
    std::string scene;
    std::string picture;
    std::string against;
    int width = 960;
    int height = 540;
    std::vector<double> eye = {-70.0, -95.0, 45.0};
    std::vector<double> target = {0.0, 0.0, 4.0};
    std::vector<double> up = {0.0, 0.0, 1.0};
    double fieldOfView = 60.0;
};

Point pointOf(const std::vector<double>& numbers) {
    return {numbers[0], numbers[1], numbers[2]};
}

} // namespace

int main(int argc, char** argv) {
    CLI::App app("Draws a splat PLY file as a picture (PNG).", "renderscene");
    Arguments arguments;
    app.add_option("scene", arguments.scene, "the splat PLY file")->required();
    app.add_option("picture", arguments.picture, "PNG file to write; an existing one is replaced")
        ->required();
    app.add_option("--against", arguments.against, "a picture to print the difference from, in decibels");
    app.add_option("--width", arguments.width, "pixels")->check(CLI::Range(1, 8192))->capture_default_str();
    app.add_option("--height", arguments.height, "pixels")->check(CLI::Range(1, 8192))->capture_default_str();
    app.add_option("--eye", arguments.eye, "x y z of the camera")->expected(3)->capture_default_str();
    app.add_option("--target", arguments.target, "x y z of what is in the middle")->expected(3);
    app.add_option("--up", arguments.up, "x y z of what is upright, not along the line of sight")
        ->expected(3);
    app.add_option("--field-of-view", arguments.fieldOfView, "degrees across")
        ->check(CLI::Range(0.001, 170.0));
    CLI11_PARSE(app, argc, argv);
    try {
        const Picture::PerspectiveCamera camera(pointOf(arguments.eye), pointOf(arguments.target),
                                                pointOf(arguments.up), arguments.fieldOfView, arguments.width,
                                                arguments.height);
        const Picture::Picture picture =
            render(readScene(arguments.scene), camera, arguments.width, arguments.height);
        Picture::writePng(arguments.picture, picture);
        if (!arguments.against.empty()) {
            std::cout << Picture::peakSignalToNoise(Picture::readPng(arguments.against), picture) << "\n";
        }
    } catch (const std::exception& error) {
        std::cerr << "renderscene: " << error.what() << "\n";
        return 1;
    }
    return 0;
}
