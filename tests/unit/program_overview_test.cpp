// The georeference of the picture beside a dataset.
#include "program/tiles/overview.h"
#include "tests/support/files.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <png.h>

#include <array>
#include <string>
#include <vector>

#include <geotiff/geotiffio.h>
#include <geotiff/xtiffio.h>

namespace Tavrin::SplatProgram {
namespace {

namespace fs = std::filesystem;
using testing::ElementsAre;
using testing::HasSubstr;

constexpr std::uint16_t columns = 30;
constexpr std::uint16_t rows = 20;

// The georeference of a GeoTIFF.
struct Tags {
    std::vector<double> scale = {0.5, 0.25, 0.0};
    std::vector<double> tie = {0.0, 0.0, 0.0, 431'000.0, 5'320'100.0, 0.0};
    std::vector<double> matrix; // instead of scale and tie point
    int epsg = 25832;
    int geographic = 0; // a geographic code instead
    int rasterType = RasterPixelIsArea;
};

void writeTiff(const fs::path& path, const Tags& tags) {
    TIFF* const file = XTIFFOpen(path.c_str(), "w");
    ASSERT_NE(file, nullptr);
    TIFFSetField(file, TIFFTAG_IMAGEWIDTH, static_cast<std::uint32_t>(columns));
    TIFFSetField(file, TIFFTAG_IMAGELENGTH, static_cast<std::uint32_t>(rows));
    TIFFSetField(file, TIFFTAG_BITSPERSAMPLE, 8);
    TIFFSetField(file, TIFFTAG_SAMPLESPERPIXEL, 1);
    TIFFSetField(file, TIFFTAG_PHOTOMETRIC, PHOTOMETRIC_MINISBLACK);
    TIFFSetField(file, TIFFTAG_ROWSPERSTRIP, 1u);
    const auto put = [file](std::uint32_t tag, const std::vector<double>& values) {
        if (!values.empty()) {
            TIFFSetField(file, tag, static_cast<int>(values.size()), values.data());
        }
    };
    if (tags.matrix.empty()) {
        put(TIFFTAG_GEOPIXELSCALE, tags.scale);
        put(TIFFTAG_GEOTIEPOINTS, tags.tie);
    }
    put(TIFFTAG_GEOTRANSMATRIX, tags.matrix);
    GTIF* const keys = GTIFNew(file);
    GTIFKeySet(keys, GTRasterTypeGeoKey, TYPE_SHORT, 1, tags.rasterType);
    if (tags.epsg != 0) {
        GTIFKeySet(keys, ProjectedCSTypeGeoKey, TYPE_SHORT, 1, tags.epsg);
    }
    if (tags.geographic != 0) {
        GTIFKeySet(keys, GeographicTypeGeoKey, TYPE_SHORT, 1, tags.geographic);
    }
    GTIFWriteKeys(keys);
    GTIFFree(keys);
    std::array<std::uint8_t, columns> row{};
    for (std::uint32_t i = 0; i < rows; ++i) {
        TIFFWriteScanline(file, row.data(), i, 0);
    }
    XTIFFClose(file);
}

void writePng(const fs::path& path) {
    png_image image{};
    image.version = PNG_IMAGE_VERSION;
    image.width = columns;
    image.height = rows;
    image.format = PNG_FORMAT_RGBA;
    const std::vector<std::uint8_t> pixels(std::size_t{4} * columns * rows);
    ASSERT_NE(png_image_write_to_file(&image, path.c_str(), 0, pixels.data(), 0, nullptr), 0);
}

class OverviewTest : public testing::Test {
protected:
    support::Scratch scratch_;
    fs::path folder_ = scratch_ / "tile.1";
    std::string remark_;

    std::optional<Overview> find() { return overviewBeside(folder_, remark_); }
    fs::path beside(const char* ending) const { return fs::path(folder_) += ending; }
};

TEST_F(OverviewTest, IsNothingWhereThereIsNone) {
    EXPECT_FALSE(find());
    EXPECT_EQ(remark_, "");
}

TEST_F(OverviewTest, SaysWhereAGeoTiffLies) {
    writeTiff(beside(".tif"), {});
    const auto overview = find();
    ASSERT_TRUE(overview) << remark_;
    EXPECT_EQ(overview->file, beside(".tif"));
    EXPECT_FALSE(overview->isPng);
    EXPECT_EQ(overview->columns, columns);
    EXPECT_EQ(overview->rows, rows);
    EXPECT_EQ(overview->epsg, 25832);
    EXPECT_EQ(overview->bytes, fs::file_size(beside(".tif")));
    EXPECT_THAT(overview->transform, ElementsAre(0.5, 0.0, 431'000.0, 0.0, -0.25, 5'320'100.0));
}

TEST_F(OverviewTest, ATiePointMayLieAnywhere) {
    Tags tags;
    tags.tie = {10.0, 4.0, 0.0, 431'005.0, 5'320'099.0, 0.0};
    writeTiff(beside(".tif"), tags);
    EXPECT_THAT(find().value().transform, ElementsAre(0.5, 0.0, 431'000.0, 0.0, -0.25, 5'320'100.0));
}

TEST_F(OverviewTest, TagsMayNameTheMiddleOfAPixel) {
    Tags tags;
    tags.rasterType = RasterPixelIsPoint;
    writeTiff(beside(".tif"), tags);
    EXPECT_THAT(find().value().transform, ElementsAre(0.5, 0.0, 430'999.75, 0.0, -0.25, 5'320'100.125));
}

TEST_F(OverviewTest, AMatrixTakesThePlaceOfTieAndScale) {
    Tags tags;
    tags.matrix = {0.5, 0.125, 0, 431'000, 0.125, -0.5, 0, 5'320'100, 0, 0, 0, 0, 0, 0, 0, 1};
    tags.epsg = 0;
    tags.geographic = 4326;
    writeTiff(beside(".tif"), tags);
    const auto overview = find();
    ASSERT_TRUE(overview);
    EXPECT_THAT(overview->transform, ElementsAre(0.5, 0.125, 431'000.0, 0.125, -0.5, 5'320'100.0));
    EXPECT_EQ(overview->epsg, 4326);
    EXPECT_EQ(overview->box().maxX, 431'000.0 + 0.5 * columns + 0.125 * rows);
    EXPECT_EQ(overview->box().minY, 5'320'100.0 - 0.5 * rows);
}

TEST_F(OverviewTest, ATiffWithoutAPlaceIsNone) {
    Tags tags;
    tags.scale.clear();
    writeTiff(beside(".tif"), tags);
    EXPECT_FALSE(find());
    EXPECT_THAT(remark_, HasSubstr("tile.1.tif: it is not georeferenced"));
}

TEST_F(OverviewTest, AFileThatIsNoTiffIsNone) {
    support::writeFile(beside(".tif"), "no picture");
    testing::internal::CaptureStderr();
    EXPECT_FALSE(find());
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    EXPECT_THAT(remark_, HasSubstr("tile.1.tif: it cannot be read as a TIFF file"));
}

TEST_F(OverviewTest, APngHasItsPlaceInAWorldFile) {
    writePng(beside(".png"));
    support::writeFile(beside(".pgw"), "0.5\n0.0\n0.0\n-0.5\n431000.25\n5320099.75\n");
    const auto overview = find();
    ASSERT_TRUE(overview) << remark_;
    EXPECT_TRUE(overview->isPng);
    EXPECT_EQ(overview->columns, columns);
    EXPECT_EQ(overview->rows, rows);
    EXPECT_EQ(overview->epsg, 0);
    EXPECT_THAT(overview->transform, ElementsAre(0.5, 0.0, 431'000.0, 0.0, -0.5, 5'320'100.0));
}

TEST_F(OverviewTest, APngWithoutAWorldFileIsNone) {
    writePng(beside(".png"));
    EXPECT_FALSE(find());
    EXPECT_THAT(remark_, HasSubstr("tile.1.png: it has no world file"));
}

TEST_F(OverviewTest, AGeoTiffComesBeforeAPng) {
    writePng(beside(".png"));
    support::writeFile(beside(".pgw"), "0.5\n0.0\n0.0\n-0.5\n431000.25\n5320099.75\n");
    writeTiff(beside(".tif"), {});
    EXPECT_FALSE(find().value().isPng);
}

} // namespace
} // namespace Tavrin::SplatProgram
