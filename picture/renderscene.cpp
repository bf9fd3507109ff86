// renderscene: draws a splat PLY file as a viewer would, so that two scenes can be looked at side by side.
//
// Every splat is projected as an elliptical Gaussian and blended over what lies behind it. Plain and exact
// rather than fast: some seconds for a million splats.
#include "picture/picture.h"
#include "scenes/math.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <exception>
#include <fstream>
#include <iostream>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

using scenes::Point;

struct Scene {
    std::size_t floats = 0; // in a record: 62, or 17 without coefficients
    std::vector<float> records;
    std::size_t count() const { return records.size() / floats; }
};

Scene readScene(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    std::size_t count = 0;
    Scene scene;
    for (std::string line; std::getline(file, line) && line != "end_header";) {
        if (line.starts_with("element vertex ")) {
            count = std::stoull(line.substr(15));
        }
        scene.floats += line.starts_with("property float ") ? 1 : 0;
    }
    if (!file || (scene.floats != 62 && scene.floats != 17)) {
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

// Looks from `eye` along `forward`; pixels are square.
struct Camera {
    Point eye;
    Point right;
    Point down;
    Point forward;
    double focal = 0.0; // pixels
    double centreX = 0.0;
    double centreY = 0.0;
};

Camera lookAt(Point eye, Point target, double fieldOfView, const bench::Picture& picture) {
    Camera camera;
    camera.eye = eye;
    camera.forward = scenes::normalised(target - eye);
    camera.right = scenes::normalised(scenes::cross(camera.forward, Point{0.0, 0.0, 1.0}));
    camera.down = scenes::cross(camera.forward, camera.right);
    constexpr double halfDegree = 3.14159265358979323846 / 360.0;
    camera.focal = 0.5 * picture.width / std::tan(fieldOfView * halfDegree);
    camera.centreX = 0.5 * picture.width;
    camera.centreY = 0.5 * picture.height;
    return camera;
}

// A splat on the picture: alpha(d) = opacity exp(-(a dx^2 + 2 b dx dy + c dy^2) / 2).
struct Footprint {
    float depth = 0.0f;
    float x = 0.0f; // of the centre, in pixels
    float y = 0.0f;
    float a = 0.0f;
    float b = 0.0f;
    float c = 0.0f;
    float reach = 0.0f; // pixels until alpha is below one step of an 8-bit picture
    float opacity = 0.0f;
    std::array<float, 3> colour{};
};

constexpr float leastAlpha = 1.0f / 255.0f;

// Half axes of the ellipsoid in camera coordinates: the columns of rotation times scale.
std::array<Point, 3> halfAxes(const float* tail, const Camera& camera) {
    const double norm = std::sqrt(double{tail[4]} * tail[4] + double{tail[5]} * tail[5] +
                                  double{tail[6]} * tail[6] + double{tail[7]} * tail[7]);
    const double w = tail[4] / norm;
    const double x = tail[5] / norm;
    const double y = tail[6] / norm;
    const double z = tail[7] / norm;
    const std::array<Point, 3> columns = {
        {{1.0 - 2.0 * (y * y + z * z), 2.0 * (x * y + w * z), 2.0 * (x * z - w * y)},
         {2.0 * (x * y - w * z), 1.0 - 2.0 * (x * x + z * z), 2.0 * (y * z + w * x)},
         {2.0 * (x * z + w * y), 2.0 * (y * z - w * x), 1.0 - 2.0 * (x * x + y * y)}}};
    std::array<Point, 3> axes;
    for (std::size_t i = 0; i < axes.size(); ++i) {
        const Point axis = columns[i] * std::exp(double{tail[1 + i]});
        axes[i] = {scenes::dot(axis, camera.right), scenes::dot(axis, camera.down),
                   scenes::dot(axis, camera.forward)};
    }
    return axes;
}

std::array<float, 3> colourOf(const float* record, std::size_t floats, Point direction) {
    constexpr double zeroth = 0.2820948;
    constexpr std::size_t perChannel = 15;
    const std::array<double, perChannel> basis = scenes::harmonics(direction);
    std::array<float, 3> colour{};
    for (std::size_t channel = 0; channel < colour.size(); ++channel) {
        double value = 0.5 + zeroth * record[6 + channel];
        for (std::size_t k = 0; floats == 62 && k < perChannel; ++k) {
            value += basis[k] * record[9 + channel * perChannel + k];
        }
        colour[channel] = static_cast<float>(std::max(0.0, value));
    }
    return colour;
}

// False when the splat cannot be seen: behind the eye, well off the picture, or too faint.
bool project(const float* record, std::size_t floats, const Camera& camera, Footprint& footprint) {
    constexpr double nearest = 0.2; // scene units before the eye
    constexpr double blurring =
        0.3; // variance, in pixels, that keeps small splats from falling between pixels
    const float* tail = record + floats - 8;
    const Point ray = Point{record[0], record[1], record[2]} - camera.eye;
    const double depth = scenes::dot(ray, camera.forward);
    const double opacity = 1.0 / (1.0 + std::exp(-double{tail[0]}));
    if (depth < nearest || opacity < leastAlpha) {
        return false;
    }
    // The perspective is linear enough over a splat: its derivative at the centre. Far to the side of the
    // picture it is not, and would smear splats over all of it.
    constexpr double margin = 1.3;
    const double scale = camera.focal / depth;
    const double tx = scenes::dot(ray, camera.right) / depth;
    const double ty = scenes::dot(ray, camera.down) / depth;
    if (std::fabs(tx) * camera.focal > margin * camera.centreX ||
        std::fabs(ty) * camera.focal > margin * camera.centreY) {
        return false;
    }
    double xx = blurring;
    double xy = 0.0;
    double yy = blurring;
    for (const Point& axis : halfAxes(tail, camera)) {
        const double u = scale * (axis.x - tx * axis.z);
        const double v = scale * (axis.y - ty * axis.z);
        xx += u * u;
        xy += u * v;
        yy += v * v;
    }
    const double determinant = xx * yy - xy * xy;
    const double largest = 0.5 * (xx + yy + std::sqrt((xx - yy) * (xx - yy) + 4.0 * xy * xy));
    footprint.depth = static_cast<float>(depth);
    footprint.x = static_cast<float>(camera.centreX + camera.focal * tx);
    footprint.y = static_cast<float>(camera.centreY + camera.focal * ty);
    footprint.a = static_cast<float>(yy / determinant);
    footprint.b = static_cast<float>(-xy / determinant);
    footprint.c = static_cast<float>(xx / determinant);
    footprint.reach = static_cast<float>(std::sqrt(2.0 * std::log(opacity / leastAlpha) * largest));
    footprint.opacity = static_cast<float>(opacity);
    footprint.colour = colourOf(record, floats, scenes::normalised(ray));
    return true;
}

// Adds splats from the nearest to the farthest; what is left of the light comes from the sky.
class Canvas {
public:
    explicit Canvas(bench::Picture& picture)
        : picture_(picture), light_(picture.pixels(), 1.0f), sum_(3 * picture.pixels(), 0.0f) {}

    void blend(const Footprint& splat) {
        const int left = std::max(0, static_cast<int>(std::floor(splat.x - splat.reach)));
        const int top = std::max(0, static_cast<int>(std::floor(splat.y - splat.reach)));
        const int right = std::min(picture_.width - 1, static_cast<int>(splat.x + splat.reach));
        const int bottom = std::min(picture_.height - 1, static_cast<int>(splat.y + splat.reach));
        for (int y = top; y <= bottom; ++y) {
            for (int x = left; x <= right; ++x) {
                blendPixel(splat, x, y);
            }
        }
    }

    void finish() {
        constexpr std::array<float, 3> sky = {0.62f, 0.74f, 0.88f};
        for (std::size_t i = 0; i < sum_.size(); ++i) {
            const float value = sum_[i] + light_[i / 3] * sky[i % 3];
            picture_.bytes[i] =
                static_cast<unsigned char>(std::lround(std::clamp(value, 0.0f, 1.0f) * 255.0f));
        }
    }

private:
    void blendPixel(const Footprint& splat, int x, int y) {
        constexpr float darkest = 1e-4f;
        constexpr float mostAlpha = 0.99f;
        const std::size_t pixel = static_cast<std::size_t>(y) * static_cast<std::size_t>(picture_.width) +
                                  static_cast<std::size_t>(x);
        const float dx = static_cast<float>(x) + 0.5f - splat.x;
        const float dy = static_cast<float>(y) + 0.5f - splat.y;
        const float power = splat.a * dx * dx + 2.0f * splat.b * dx * dy + splat.c * dy * dy;
        const float alpha = std::min(mostAlpha, splat.opacity * std::exp(-0.5f * power));
        if (alpha < leastAlpha || light_[pixel] < darkest) {
            return;
        }
        for (std::size_t channel = 0; channel < 3; ++channel) {
            sum_[3 * pixel + channel] += light_[pixel] * alpha * splat.colour[channel];
        }
        light_[pixel] *= 1.0f - alpha;
    }

    bench::Picture& picture_;
    std::vector<float> light_; // share that the splats so far let through
    std::vector<float> sum_;
};

void render(const Scene& scene, const Camera& camera, bench::Picture& picture) {
    std::vector<Footprint> splats;
    Footprint footprint;
    for (std::size_t i = 0; i < scene.count(); ++i) {
        if (project(scene.records.data() + i * scene.floats, scene.floats, camera, footprint)) {
            splats.push_back(footprint);
        }
    }
    std::ranges::stable_sort(splats, {}, &Footprint::depth);
    Canvas canvas(picture);
    for (const Footprint& splat : splats) {
        canvas.blend(splat);
    }
    canvas.finish();
}

struct Arguments {
    std::string scene;
    std::string picture;
    std::string against;
    int width = 960;
    int height = 540;
    std::vector<double> eye = {-70.0, -95.0, 45.0};
    std::vector<double> target = {0.0, 0.0, 4.0};
    double fieldOfView = 60.0;
};

} // namespace

int main(int argc, char** argv) {
    CLI::App app("Draws a splat PLY file as a picture (PPM).", "renderscene");
    Arguments arguments;
    app.add_option("scene", arguments.scene, "the splat PLY file")->required();
    app.add_option("picture", arguments.picture, "PPM file to write; an existing one is replaced")
        ->required();
    app.add_option("--against", arguments.against, "a picture to print the difference from, in decibels");
    app.add_option("--width", arguments.width, "pixels")->check(CLI::Range(1, 8192))->capture_default_str();
    app.add_option("--height", arguments.height, "pixels")->check(CLI::Range(1, 8192))->capture_default_str();
    app.add_option("--eye", arguments.eye, "x y z of the camera")->expected(3)->capture_default_str();
    app.add_option("--target", arguments.target, "x y z of what is in the middle")->expected(3);
    app.add_option("--field-of-view", arguments.fieldOfView, "degrees across")->check(CLI::Range(1.0, 170.0));
    CLI11_PARSE(app, argc, argv);
    try {
        bench::Picture picture(arguments.width, arguments.height);
        const Point eye = {arguments.eye[0], arguments.eye[1], arguments.eye[2]};
        const Point target = {arguments.target[0], arguments.target[1], arguments.target[2]};
        render(readScene(arguments.scene), lookAt(eye, target, arguments.fieldOfView, picture), picture);
        bench::writePicture(arguments.picture, picture);
        if (!arguments.against.empty()) {
            std::cout << bench::peakSignalToNoise(bench::readPicture(arguments.against), picture) << "\n";
        }
    } catch (const std::exception& error) {
        std::cerr << "renderscene: " << error.what() << "\n";
        return 1;
    }
    return 0;
}
