// Pictures from straight above: projection, blending, the grid of pixels, and the files.
#include "picture/geotiff_file.h"
#include "picture/layer.h"
#include "picture/orthophoto.h"
#include "picture/png_file.h"
#include "tests/support/dataset_writer.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <numeric>
#include <random>

#include <geotiffio.h>
#include <tiffio.h>
#include <xtiffio.h>

namespace {

using namespace Tavrin::SplatPicture;
namespace Reader = Tavrin::SplatReader;
using DatasetWriter::StoredSplat;
using Reader::Splat;

constexpr std::uint16_t smallest = 0; // stored scales of the default range, 0.25 to 4

// The picture in memory.
class MemorySink : public Sink {
public:
    void write(Crew& /*crew*/, const std::uint8_t* pixels, int rows) override {
        calls.push_back(rows);
        bytes.insert(bytes.end(), pixels, pixels + rowBytes * static_cast<std::size_t>(rows));
    }
    void close() override {}

    std::size_t rowBytes = 0;
    std::vector<int> calls;
    std::vector<std::uint8_t> bytes;
};

std::vector<Reader::Dataset> opened(const std::filesystem::path& folder) {
    std::vector<Reader::Dataset> datasets;
    datasets.push_back(Reader::Dataset::open(folder));
    return datasets;
}

std::vector<std::uint8_t> drawn(const std::vector<Reader::Dataset>& datasets, const Orthophoto& picture,
                                unsigned threads = 1, const Crew::Progress& progress = {}) {
    Crew crew(threads, progress);
    MemorySink sink;
    sink.rowBytes = 4 * static_cast<std::size_t>(picture.grid.width);
    drawOrthophoto(surveyOf(datasets, crew), picture, crew, sink);
    return sink.bytes;
}

PixelGrid gridAt(double pixel, std::int64_t column, std::int64_t row, int width, int height) {
    PixelGrid grid;
    grid.pixel = pixel;
    grid.column = column;
    grid.row = row;
    grid.width = width;
    grid.height = height;
    return grid;
}

StoredSplat splatAt(float x, float y, float z, std::array<std::uint8_t, 4> colour,
                    std::uint16_t scale = smallest) {
    StoredSplat splat;
    splat.position = {x, y, z};
    splat.colour = colour;
    splat.scale = {scale, scale, scale};
    // Coefficients of 0, as nearly as their 11 and 10 bits allow.
    splat.coefficients.fill(1023u | (511u << 11) | (1023u << 21));
    return splat;
}

// v rotated by the inverse of q, by the vector form of the quaternion product.
Point turnedBack(const std::array<double, 4>& q, const Point& v) {
    const Point axis = {-q[1], -q[2], -q[3]};
    const auto cross = [](const Point& a, const Point& b) {
        return Point{a[1] * b[2] - a[2] * b[1], a[2] * b[0] - a[0] * b[2], a[0] * b[1] - a[1] * b[0]};
    };
    const Point once = cross(axis, v);
    const Point twice = cross(axis, once);
    return {v[0] + 2.0 * (q[0] * once[0] + twice[0]), v[1] + 2.0 * (q[0] * once[1] + twice[1]),
            v[2] + 2.0 * (q[0] * once[2] + twice[2])};
}

// The density of the ellipsoid, summed along z at (x, y) from its centre.
double columnOf(const Splat& splat, double x, double y) {
    double sum = 0.0;
    for (double z = -20.0; z <= 20.0; z += 0.01) {
        const Point inside = turnedBack(splat.rotation, {x, y, z});
        double square = 0.0;
        for (std::size_t axis = 0; axis < 3; ++axis) {
            square += inside[axis] * inside[axis] / (splat.scale[axis] * splat.scale[axis]);
        }
        sum += std::exp(-0.5 * square);
    }
    return sum;
}

Splat anySplat(std::mt19937& engine) {
    std::uniform_real_distribution<double> part(-1.0, 1.0);
    Splat splat;
    double squares = 0.0;
    for (double& component : splat.rotation) {
        component = part(engine);
        squares += component * component;
    }
    for (double& component : splat.rotation) {
        component /= std::sqrt(squares);
    }
    for (double& scale : splat.scale) {
        scale = std::exp(part(engine)); // 0.37 to 2.7
    }
    splat.opacity = 0.5 + 0.5 * part(engine) * part(engine);
    return splat;
}

TEST(PictureProjection, IsTheIntegralAlongZ) {
    std::mt19937 engine(3);
    View view;
    DownwardCamera(0.0, 0.0, 1.0).see({0.0, 0.0, 0.0}, view);
    for (int i = 0; i < 10; ++i) {
        const Splat splat = anySplat(engine);
        const auto [xx, xy, yy] = covariance(splat, view);
        const double determinant = xx * yy - xy * xy;
        const double middle = columnOf(splat, 0.0, 0.0);
        for (const auto& [x, y] : {std::pair{0.7, 0.0}, {0.0, -0.9}, {1.1, 0.6}, {-0.5, 1.3}}) {
            const double down = -y; // rows run downwards
            const double square = (yy * x * x - 2.0 * xy * x * down + xx * down * down) / determinant;
            EXPECT_NEAR(std::exp(-0.5 * square), columnOf(splat, x, y) / middle, 1e-6);
        }
    }
}

TEST(PictureProjection, AFootprintIsTheGaussianOfItsCovariance) {
    std::mt19937 engine(5);
    for (int i = 0; i < 200; ++i) {
        Splat splat = anySplat(engine);
        splat.scale[0] *= i % 2 == 0 ? 1.0 : 1000.0; // long and thin
        View view;
        DownwardCamera(-3.0, 8.0, 0.5).see({1.0, 2.0, 7.0}, view);
        EXPECT_EQ(view.x, 8.0);
        EXPECT_EQ(view.y, 12.0);
        EXPECT_EQ(view.depth, -7.0);
        Footprint footprint;
        ASSERT_TRUE(project(splat, view, footprint));
        const auto [plainX, xy, plainY] = covariance(splat, view);
        const double xx = plainX + blurring;
        const double yy = plainY + blurring;
        EXPECT_NEAR(footprint.reachX / (reachOf(splat.opacity) * std::sqrt(xx)), 1.0, 1e-6);
        EXPECT_NEAR(footprint.reachY / (reachOf(splat.opacity) * std::sqrt(yy)), 1.0, 1e-6);
        // A point two standard deviations along the long axis and a pixel to the side.
        const double dy = 2.0 * std::sqrt(yy);
        const double dx = xy / yy * dy + 1.0;
        const double u = (dx - double{footprint.slope} * dy) * footprint.inverseX;
        const double v = dy * footprint.inverseY;
        const double square = dy * dy / yy + (dx - xy / yy * dy) * (dx - xy / yy * dy) / (xx - xy * xy / yy);
        EXPECT_NEAR(u * u + v * v, square, 2e-3 * square);
    }
}

TEST(PictureProjection, LeavesOutWhatIsFaintOrNotFinite) {
    std::mt19937 engine(7);
    Splat splat = anySplat(engine);
    Footprint footprint;
    View view;
    DownwardCamera(0.0, 0.0, 1.0).see({0.0, 0.0, 0.0}, view);
    splat.opacity = 0.0039;
    EXPECT_FALSE(project(splat, view, footprint));
    splat.opacity = 0.5;
    EXPECT_TRUE(project(splat, view, footprint));
    splat.scale[1] = std::numeric_limits<double>::infinity();
    EXPECT_FALSE(project(splat, view, footprint));
    splat.scale[1] = 1.0;
    view.x = std::nan("");
    EXPECT_FALSE(project(splat, view, footprint));
}

// A sphere of standard deviation 0.25 + half a step over nothing: each pixel must have the value of the
// closed form.
TEST(Orthophoto, OneSplatIsItsGaussianInItsPlace) {
    DatasetWriter::MetaFields fields;
    fields.offset = {500000.0, 5700000.0, 100.0};
    const DatasetWriter::TemporaryFolder folder;
    DatasetWriter::writeFiles(
        folder.path(), DatasetWriter::oneCellFiles({splatAt(3.3f, 2.1f, 1.0f, {255, 128, 10, 200})}, fields));
    Orthophoto picture;
    picture.grid = gridAt(0.125, 4000000, 45600032, 64, 32);
    ASSERT_EQ(picture.grid.left(), 500000.0);
    ASSERT_EQ(picture.grid.top(), 5700004.0);
    const std::vector<std::uint8_t> bytes = drawn(opened(folder.path()), picture);
    ASSERT_EQ(bytes.size(), 4u * 64 * 32);
    const double sigma = 0.25 + 0.5 * 3.75 / 65535.5;
    const double variance = sigma * sigma / (0.125 * 0.125) + 0.3; // square pixels
    for (int row = 0; row < 32; ++row) {
        for (int column = 0; column < 64; ++column) {
            const double dx = column + 0.5 - double{3.3f} / 0.125;
            const double dy = row + 0.5 - (4.0 - double{2.1f}) / 0.125;
            const double alpha = (200.5 / 255.0) * std::exp(-0.5 * (dx * dx + dy * dy) / variance);
            const std::uint8_t* pixel = &bytes[4 * (static_cast<std::size_t>(row) * 64 + column)];
            if (std::fabs(alpha - double{leastAlpha}) > 1e-4) {
                EXPECT_NEAR(pixel[3], alpha < double{leastAlpha} ? 0.0 : 255.0 * alpha, 0.51);
            }
            if (pixel[3] > 0) {
                EXPECT_NEAR(pixel[0], 255, 1); // the colour is not multiplied by alpha
                EXPECT_NEAR(pixel[1], 128, 1);
                EXPECT_NEAR(pixel[2], 10, 1);
            } else {
                EXPECT_EQ(pixel[0] + pixel[1] + pixel[2], 0);
            }
        }
    }
}

std::vector<StoredSplat> manySplats(std::size_t count, unsigned seed, bool levelHeights) {
    std::mt19937 engine(seed);
    std::uniform_real_distribution<float> part(0.0f, 1.0f);
    std::vector<StoredSplat> splats(count);
    for (StoredSplat& splat : splats) {
        const float height = 2.0f * part(engine);
        splat.position = {8.0f * part(engine), 4.0f * part(engine),
                          levelHeights ? std::round(height) : height};
        for (std::uint8_t& byte : splat.colour) {
            byte = static_cast<std::uint8_t>(engine());
        }
        for (std::uint16_t& scale : splat.scale) {
            scale = static_cast<std::uint16_t>(engine() % 8000);
        }
        const auto tilt = static_cast<std::uint32_t>(engine() % 500);
        splat.rotation = (511u + tilt) | ((511u - tilt / 2) << 10) | (511u << 20) | (3u << 30);
        for (std::uint32_t& word : splat.coefficients) {
            word = static_cast<std::uint32_t>(engine());
        }
    }
    return splats;
}

// An independent reference: all splats sorted by height, each pixel computed alone, in double precision.
std::vector<double> plainly(const Reader::Dataset& dataset, const PixelGrid& grid) {
    std::vector<Reader::LoadedSplat> splats = Reader::loadWhole(dataset);
    std::stable_sort(splats.begin(), splats.end(), [](const auto& one, const auto& other) {
        return one.splat.position[2] > other.splat.position[2];
    });
    std::vector<double> pixels(4 * static_cast<std::size_t>(grid.width) *
                               static_cast<std::size_t>(grid.height));
    View view;
    DownwardCamera(0.0, 0.0, grid.pixel).see({0.0, 0.0, 0.0}, view);
    for (std::size_t i = 0; i < pixels.size() / 4; ++i) {
        const double x = grid.left() + (static_cast<double>(i % grid.width) + 0.5) * grid.pixel;
        const double y = grid.top() - (static_cast<double>(i / grid.width) + 0.5) * grid.pixel;
        double light = 1.0;
        std::array<double, 3> sum{};
        for (const Reader::LoadedSplat& loaded : splats) {
            const Splat& splat = loaded.splat;
            if (!std::isfinite(splat.position[0])) {
                continue;
            }
            auto [xx, xy, yy] = covariance(splat, view);
            xx += 0.3;
            yy += 0.3;
            const double dx = (x - splat.position[0]) / grid.pixel;
            const double dy = (splat.position[1] - y) / grid.pixel;
            const double square = (yy * dx * dx - 2.0 * xy * dx * dy + xx * dy * dy) / (xx * yy - xy * xy);
            const double alpha = splat.opacity * std::exp(-0.5 * square);
            if (alpha < 1.0 / 255.0) {
                continue;
            }
            for (std::size_t c = 0; c < 3; ++c) {
                const auto k = [&](std::size_t n) { return splat.coefficients[15 * c + n]; };
                const double colour =
                    splat.colour[c] - 0.4886025 * k(1) + 0.3153916 * 2.0 * k(5) - 0.3731763 * 2.0 * k(11);
                sum[c] += light * alpha * std::max(0.0, colour);
            }
            light *= 1.0 - alpha;
        }
        for (std::size_t c = 0; c < 3; ++c) {
            pixels[4 * i + c] = light == 1.0 ? 0.0 : 255.0 * std::min(1.0, sum[c] / (1.0 - light));
        }
        pixels[4 * i + 3] = 255.0 * (1.0 - light);
    }
    return pixels;
}

TEST(Orthophoto, IsWhatPlainBlendingGives) {
    std::vector<StoredSplat> splats = manySplats(300, 11, true);
    splats[7].position[0] = std::numeric_limits<float>::quiet_NaN();
    const DatasetWriter::TemporaryFolder folder;
    DatasetWriter::writeFiles(folder.path(), DatasetWriter::oneCellFiles(splats));
    Orthophoto picture;
    picture.grid = gridAt(0.1, -20, 60, 110, 70); // the splats reach beyond some edges
    const std::vector<Reader::Dataset> datasets = opened(folder.path());
    const std::vector<std::uint8_t> bytes = drawn(datasets, picture);
    const std::vector<double> expected = plainly(datasets.front(), picture.grid);
    std::size_t covered = 0;
    std::size_t off = 0; // differences beyond rounding, where an opacity is close to the limit of 1 / 255
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        covered += i % 4 == 3 && bytes[i] > 0 ? 1 : 0;
        off += bytes[i] != 0 && std::fabs(bytes[i] - expected[i]) > (bytes[i | 3] > 8 ? 1.0 : 40.0) ? 1 : 0;
    }
    EXPECT_GT(covered, 6000u);
    EXPECT_LE(off, bytes.size() / 1000);
    // With a background the picture is opaque and has the blended colours.
    picture.background = Colour{1.0f, 0.5f, 0.0f};
    const std::vector<std::uint8_t> laid = drawn(datasets, picture);
    for (std::size_t i = 0; i < laid.size(); i += 4) {
        const double alpha = expected[i + 3] / 255.0;
        ASSERT_EQ(laid[i + 3], 255);
        EXPECT_NEAR(laid[i + 2], alpha * expected[i + 2], 3.0);
        EXPECT_NEAR(laid[i], alpha * expected[i] + (1.0 - alpha) * 255.0, 3.0);
    }
}

// The bytes depend neither on the number of threads nor on the number of slabs that the memory allows.
TEST(Orthophoto, IsTheSameForEveryNumberOfThreadsAndSlabs) {
    const DatasetWriter::TemporaryFolder folder;
    DatasetWriter::writeFiles(folder.path(), DatasetWriter::oneCellFiles(manySplats(90'000, 13, true)));
    const std::vector<Reader::Dataset> datasets = opened(folder.path());
    Orthophoto picture;
    picture.grid = gridAt(0.1, -1, 45, 83, 75);
    const std::vector<std::uint8_t> bytes = drawn(datasets, picture);
    EXPECT_GT(std::accumulate(bytes.begin(), bytes.end(), std::uint64_t{0}), bytes.size() * 10);
    EXPECT_TRUE(drawn(datasets, picture, 3) == bytes);
    picture.memory = 0; // 65,536 splats at a time
    EXPECT_TRUE(drawn(datasets, picture, 1) == bytes);
    EXPECT_TRUE(drawn(datasets, picture, 4) == bytes);
}

// A layer that may hold few pairs blends in many runs.
TEST(Layer, BlendsTheSameInAnyNumberOfRuns) {
    std::mt19937 engine(17);
    std::vector<Footprint> footprints;
    for (std::uint64_t i = 0; i < 500; ++i) {
        View view;
        DownwardCamera(0.0, 0.0, 1.0).see({static_cast<double>(engine() % 300), -20.0, 0.0}, view);
        Footprint footprint;
        ASSERT_TRUE(project(anySplat(engine), view, footprint));
        footprint.number = i;
        footprint.depth = static_cast<double>(engine() % 5);
        footprint.colour = {static_cast<float>(i % 7) / 7.0f, 0.5f, 0.25f};
        footprints.push_back(footprint);
    }
    std::vector<std::vector<std::uint8_t>> results;
    for (const std::size_t pairs : {std::size_t{1} << 20, std::size_t{1}}) {
        Canvas canvas(300, 40, 1.0f);
        for (int strip = 0; strip < canvas.stripCount(); ++strip) {
            canvas.clear(strip, 0);
        }
        Crew crew(2);
        Layer(canvas, pairs).blend(footprints, footprints.size(), crew);
        results.emplace_back(4u * 300 * 40);
        for (int strip = 0; strip < canvas.stripCount(); ++strip) {
            canvas.store(strip, 40, std::nullopt, results.back().data());
        }
    }
    EXPECT_TRUE(results[0] == results[1]);
}

TEST(Orthophoto, ItsBoxHoldsAllThatIsDrawn) {
    const DatasetWriter::TemporaryFolder folder;
    DatasetWriter::writeFiles(folder.path(), DatasetWriter::oneCellFiles(manySplats(60, 19, false)));
    const std::vector<Reader::Dataset> datasets = opened(folder.path());
    Crew crew(1);
    const Survey survey = surveyOf(datasets, crew);
    Orthophoto whole;
    whole.grid = gridOfPixel(survey.box, 0.05, blurringMargin());
    Orthophoto wider = whole;
    constexpr int more = 20;
    wider.grid = gridAt(0.05, whole.grid.column - more, whole.grid.row + more, whole.grid.width + 2 * more,
                        whole.grid.height + 2 * more);
    const std::vector<std::uint8_t> inside = drawn(datasets, whole);
    const std::vector<std::uint8_t> all = drawn(datasets, wider);
    std::array<bool, 4> isAtEdge{};
    for (int row = 0; row < wider.grid.height; ++row) {
        for (int column = 0; column < wider.grid.width; ++column) {
            const std::uint8_t* pixel = &all[4 * (static_cast<std::size_t>(row) * wider.grid.width + column)];
            const int x = column - more;
            const int y = row - more;
            if (x < 0 || y < 0 || x >= whole.grid.width || y >= whole.grid.height) {
                ASSERT_EQ(pixel[3], 0) << x << ", " << y;
                continue;
            }
            ASSERT_TRUE(std::equal(pixel, pixel + 4,
                                   &inside[4 * (static_cast<std::size_t>(y) * whole.grid.width + x)]));
            if (pixel[3] > 0) { // hardly more than the margin of the blurring is empty
                isAtEdge[0] = isAtEdge[0] || x < 5;
                isAtEdge[1] = isAtEdge[1] || y < 5;
                isAtEdge[2] = isAtEdge[2] || x >= whole.grid.width - 5;
                isAtEdge[3] = isAtEdge[3] || y >= whole.grid.height - 5;
            }
        }
    }
    EXPECT_EQ(isAtEdge, (std::array<bool, 4>{true, true, true, true}));
}

TEST(PixelGrid, LiesOnWholeMultiplesOfThePixel) {
    const PixelGrid east = gridOfPixel({500000.07, 5700000.0, 500010.0, 5700003.04}, 0.1, 0.0);
    EXPECT_EQ(east.column, 5000000);
    EXPECT_EQ(east.row, 57000031);
    EXPECT_EQ(east.width, 100);
    EXPECT_EQ(east.height, 31);
    const PixelGrid west = gridOfPixel({499990.0, 5700000.0, 500000.0, 5700003.0}, 0.1, 0.0);
    EXPECT_EQ(west.column + west.width, 5000000); // neighbours share an edge to the bit
    EXPECT_EQ(west.left() + 0.0, 4999900 * 0.1);
    const PixelGrid point = gridOfPixel({2.0, 2.0, 2.0, 2.0}, 1.0, 0.0);
    EXPECT_EQ(point.width, 1);
    EXPECT_EQ(point.height, 1);
    const PixelGrid around = gridOfPixel({-1.0, -1.0, 1.0, 1.0}, 1.0, 1.5);
    EXPECT_EQ(around.column, -3);
    EXPECT_EQ(around.row, 3);
    EXPECT_EQ(around.width, 6);
}

TEST(PixelGrid, TakesTheSmallestPixelsThatFit) {
    std::mt19937 engine(23);
    std::uniform_real_distribution<double> part(-1.0, 1.0);
    for (int i = 0; i < 500; ++i) {
        const double x = 1e6 * part(engine);
        const double y = 1e6 * part(engine);
        const Box box = {x, y, x + std::exp(8.0 * part(engine)), y + std::exp(8.0 * part(engine))};
        const int size = 2 + static_cast<int>(engine() % 4000);
        const PixelGrid grid = gridOfSize(box, size, i % 2 == 0 ? 0.0 : 1.8);
        EXPECT_LE(std::max(grid.width, grid.height), size);
        const double slack = 2e-6 * grid.pixel;
        EXPECT_LE(grid.left(), box.minX + slack);
        EXPECT_GE(grid.left() + grid.width * grid.pixel, box.maxX - slack);
        EXPECT_GE(grid.top(), box.maxY - slack);
        EXPECT_LE(grid.top() - grid.height * grid.pixel, box.minY + slack);
        if (size > 10) {
            EXPECT_GE(std::max(grid.width, grid.height), size - 2);
        }
    }
    EXPECT_EQ(gridOfSize({0.0, 0.0, 10.0, 5.0}, 100, 0.0).pixel, 0.1);
}

TEST(PixelGrid, RefusesWhatNoPictureHolds) {
    EXPECT_THROW(gridOfPixel({0.0, 0.0, 65537.0, 1.0}, 1.0, 0.0), PictureError);
    EXPECT_NO_THROW(gridOfPixel({0.0, 0.0, 65536.0, 1.0}, 1.0, 0.0));
    EXPECT_THROW(gridOfPixel({1e9, 0.0, 1e9 + 1e-7, 1.0}, 1e-9, 0.0), PictureError);
    EXPECT_THROW(gridOfPixel({-1e308, 0.0, 1e308, 1.0}, 1e-3, 0.0), PictureError);
}

// Several stripes, and tiles that are cut at the right and lower edges.
TEST(GeoTiff, HoldsPlaceCodeAndPixels) {
    const DatasetWriter::TemporaryFolder folder;
    const std::filesystem::path path = folder.path() / "picture.tif";
    const PixelGrid grid = gridAt(0.05, 10000001, 114000007, 300, 530);
    std::vector<std::uint8_t> pixels(4u * 300 * 530);
    std::mt19937 engine(29);
    std::generate(pixels.begin(), pixels.end(), [&] { return static_cast<std::uint8_t>(engine()); });
    Crew crew(2);
    GeoTiffFile file(path, grid, 25832);
    for (int row = 0; row < grid.height; row += stripeRows) {
        file.write(crew, &pixels[4u * 300 * static_cast<std::size_t>(row)],
                   std::min(stripeRows, grid.height - row));
    }
    file.close();

    TIFF* const tiff = XTIFFOpen(path.c_str(), "r");
    ASSERT_NE(tiff, nullptr);
    EXPECT_EQ(TIFFNumberOfDirectories(tiff), 1);
    const auto number = [tiff](std::uint32_t tag) {
        std::uint16_t value = 0;
        EXPECT_EQ(TIFFGetField(tiff, tag, &value), 1) << tag;
        return value;
    };
    EXPECT_TRUE(TIFFIsTiled(tiff));
    EXPECT_EQ(number(TIFFTAG_COMPRESSION), COMPRESSION_ADOBE_DEFLATE);
    EXPECT_EQ(number(TIFFTAG_SAMPLESPERPIXEL), 4);
    EXPECT_EQ(number(TIFFTAG_PHOTOMETRIC), PHOTOMETRIC_RGB);
    std::uint16_t extras = 0;
    std::uint16_t* kinds = nullptr;
    ASSERT_EQ(TIFFGetField(tiff, TIFFTAG_EXTRASAMPLES, &extras, &kinds), 1);
    EXPECT_EQ(kinds[0], EXTRASAMPLE_UNASSALPHA);
    std::uint16_t count = 0;
    double* values = nullptr;
    ASSERT_EQ(TIFFGetField(tiff, TIFFTAG_GEOPIXELSCALE, &count, &values), 1);
    EXPECT_EQ(std::vector<double>(values, values + count), (std::vector<double>{0.05, 0.05, 0.0}));
    ASSERT_EQ(TIFFGetField(tiff, TIFFTAG_GEOTIEPOINTS, &count, &values), 1);
    EXPECT_EQ(std::vector<double>(values, values + count),
              (std::vector<double>{0.0, 0.0, 0.0, 10000001 * 0.05, 114000007 * 0.05, 0.0}));
    GTIF* const keys = GTIFNew(tiff);
    const auto key = [keys](geokey_t name) {
        std::uint16_t value = 0;
        EXPECT_EQ(GTIFKeyGet(keys, name, &value, 0, 1), 1) << name;
        return value;
    };
    EXPECT_EQ(key(GTModelTypeGeoKey), ModelTypeProjected);
    EXPECT_EQ(key(GTRasterTypeGeoKey), RasterPixelIsArea);
    EXPECT_EQ(key(ProjectedCSTypeGeoKey), 25832);
    GTIFFree(keys);
    std::vector<std::uint32_t> raster(300u * 530);
    ASSERT_EQ(TIFFReadRGBAImageOriented(tiff, 300, 530, raster.data(), ORIENTATION_TOPLEFT, 1), 1);
    XTIFFClose(tiff);
    for (std::size_t i = 0; i < raster.size(); ++i) {
        // This function multiplies colours by alpha; with an alpha of 255 they are unchanged.
        ASSERT_EQ(TIFFGetA(raster[i]), pixels[4 * i + 3]);
        if (pixels[4 * i + 3] == 255) {
            ASSERT_EQ(TIFFGetR(raster[i]), pixels[4 * i]);
            ASSERT_EQ(TIFFGetB(raster[i]), pixels[4 * i + 2]);
        }
    }
}

TEST(GeoTiff, KnowsTheKindsOfCodes) {
    EXPECT_EQ(kindOfCode(0), CodeKind::none);
    EXPECT_EQ(kindOfCode(25832), CodeKind::projected);
    EXPECT_EQ(kindOfCode(4326), CodeKind::geographic);
    EXPECT_EQ(kindOfCode(5703), CodeKind::unknown); // heights
    EXPECT_EQ(kindOfCode(102100), CodeKind::unknown);
    EXPECT_EQ(kindOfCode(-5), CodeKind::unknown);
}

TEST(Png, ComesBackAndIsRefusedWhenCut) {
    Picture picture(70, 30);
    std::mt19937 engine(31);
    std::generate(picture.bytes.begin(), picture.bytes.end(),
                  [&] { return static_cast<std::uint8_t>(engine()); });
    const DatasetWriter::TemporaryFolder folder;
    const std::filesystem::path path = folder.path() / "picture.png";
    writePng(path, picture);
    EXPECT_EQ(readPng(path).bytes, picture.bytes);
    EXPECT_EQ(peakSignalToNoise(readPng(path), picture), std::numeric_limits<double>::infinity());
    EXPECT_THROW(peakSignalToNoise(Picture(70, 31), picture), PictureError);
    std::filesystem::resize_file(path, std::filesystem::file_size(path) / 2);
    EXPECT_THROW(readPng(path), PictureError);
    EXPECT_THROW(readPng(folder.path() / "none.png"), PictureError);
    EXPECT_THROW(PngFile(folder.path() / "no" / "folder.png", 4, 4), PictureError);
}

TEST(Png, DifferencesCountOverBlackAndOverWhite) {
    Picture one(1, 1);
    Picture other(1, 1);
    one.bytes = {255, 255, 255, 255};
    other.bytes = {0, 0, 0, 0}; // equal only over white
    EXPECT_NEAR(peakSignalToNoise(one, other), 0.0, 1e-12);
    other.bytes = {254, 255, 255, 255};
    EXPECT_NEAR(peakSignalToNoise(one, other), 10.0 * std::log10(255.0 * 255.0 * 3.0), 1e-9);
}

TEST(PictureCrew, EndsWithTheFirstFailure) {
    for (const unsigned threads : {1u, 3u}) {
        Crew crew(threads);
        EXPECT_THROW(crew.run(1000,
                              [](unsigned, std::size_t item) {
                                  if (item == 20) {
                                      throw PictureError("the twentieth");
                                  }
                              }),
                     PictureError);
        std::atomic<std::size_t> sum = 0;
        crew.run(100, [&](unsigned worker, std::size_t item) {
            EXPECT_LT(worker, threads);
            sum += item;
        });
        EXPECT_EQ(sum, 4950u);
    }
}

TEST(Orthophoto, EndsWhenProgressThrows) {
    const DatasetWriter::TemporaryFolder folder;
    DatasetWriter::writeFiles(folder.path(), DatasetWriter::oneCellFiles(manySplats(60, 19, false)));
    Orthophoto picture;
    picture.grid = gridAt(0.05, 0, 80, 160, 80);
    double last = 0.0;
    EXPECT_THROW(drawn(opened(folder.path()), picture, 2,
                       [&last](double share) {
                           EXPECT_GE(share, last);
                           last = share;
                           if (share > 0.5) {
                               throw PictureError("stopped");
                           }
                       }),
                 PictureError);
    EXPECT_GT(last, 0.5);
}

} // namespace
