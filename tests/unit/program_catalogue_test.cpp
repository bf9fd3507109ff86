// Tests of a catalogue: names, references, times, pictures, tiles, and the document itself.
#include "program/system/exit_status.h"
#include "program/system/platform.h"
#include "program/tiles/catalogue.h"
#include "program/tiles/names.h"
#include "tests/support/dataset_writer.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <limits>

namespace Tavrin::SplatProgram {
namespace {

using nlohmann::json;
using testing::ElementsAre;

TEST(CatalogueNames, AnIdIsTheFoldersName) {
    EXPECT_THAT(idsOf({"/city/tile_1", "/city/tile_2"}), ElementsAre("tile_1", "tile_2"));
}

TEST(CatalogueNames, EqualNamesTakeTheirParents) {
    EXPECT_THAT(idsOf({"/city/north/tile", "/city/south/tile", "/city/other"}),
                ElementsAre("north/tile", "south/tile", "other"));
    EXPECT_THAT(idsOf({"/a/x/tile", "/b/x/tile", "/b/y/tile"}),
                ElementsAre("a/x/tile", "b/x/tile", "y/tile"));
    EXPECT_THAT(idsOf({"/tile", "/a/tile"}), ElementsAre("/tile", "a/tile"));
}

TEST(CatalogueNames, ReferencesStartAtTheCataloguesFolder) {
    EXPECT_EQ(relativeReference("/city/tile/data.bin", "/city"), "./tile/data.bin");
    EXPECT_EQ(relativeReference("/other/tile/data.bin", "/city/maps"), "../../other/tile/data.bin");
    EXPECT_EQ(relativeReference("/city/a:b/50 %/data.bin", "/city"), "./a%3Ab/50%20%25/data.bin");
    EXPECT_EQ(relativeReference("/city/a#?b/data.bin", "/city"), "./a%23%3Fb/data.bin");
}

TEST(CatalogueNames, ABaseMakesThemAbsolute) {
    EXPECT_EQ(referenceAt("https://example.org/city", "./tile/data.bin"),
              "https://example.org/city/tile/data.bin");
    EXPECT_EQ(referenceAt("https://example.org/city//", "../tile/data.bin"),
              "https://example.org/tile/data.bin");
    EXPECT_EQ(referenceAt("https://example.org", "./data.bin"), "https://example.org/data.bin");
    EXPECT_EQ(referenceAt("https://example.org/", "../data.bin"), std::nullopt);
    EXPECT_EQ(referenceAt("/srv/city", "../tile/data.bin"), "/srv/tile/data.bin");
    EXPECT_EQ(referenceAt("/srv", "../../data.bin"), std::nullopt);
    EXPECT_EQ(referenceAt("/", "./data.bin"), "/data.bin");
}

TEST(CatalogueNames, ABaseIsAnAddress) {
    for (const char* const good : {"https://example.org/city", "s3://bucket/city/", "/srv/city"}) {
        EXPECT_EQ(checkBase(good), "") << good;
    }
    for (const char* const bad :
         {"", "city", "://x", "https://", "https://a b", "https://a?b", "https://a#b"}) {
        EXPECT_NE(checkBase(bad), "") << bad;
    }
}

TEST(CatalogueTimes, AreInUtc) {
    using std::chrono::seconds;
    EXPECT_EQ(timeText(std::chrono::sys_seconds(seconds(0))), "1970-01-01T00:00:00Z");
    EXPECT_EQ(timeText(std::chrono::sys_seconds(seconds(1'709'208'001))), "2024-02-29T12:00:01Z");
    EXPECT_EQ(timeFrom("2024-02-29"), "2024-02-29T00:00:00Z");
    EXPECT_EQ(timeFrom("2024-02-29T12:30:59Z"), "2024-02-29T12:30:59Z");
    EXPECT_EQ(timeFrom("2024-02-29t12:30:59.250z"), "2024-02-29T12:30:59.250Z");
    EXPECT_EQ(timeFrom("2024-02-29 12:30:59+00:00"), "2024-02-29T12:30:59Z");
    for (const char* const bad :
         {"", "2024", "2024-13-01", "2023-02-29", "2024-2-1", "2024-02-29T", "2024-02-29T12:30Z",
          "2024-02-29T24:00:00Z", "2024-02-29T12:60:00Z", "2024-02-29T12:30:59", "2024-02-29T12:30:59.Z",
          "2024-02-29T12:30:59+01:00", "2024-02-29T12:30:59Z ", "-024-02-29"}) {
        EXPECT_EQ(timeFrom(bad), std::nullopt) << bad;
    }
}

TEST(CatalogueOverview, AWorldFileNamesTheMiddleOfTheFirstPixel) {
    const auto transform = worldFileTransform("0.5\n0\n0\n-0.5\n100.25\n199.75\n");
    ASSERT_TRUE(transform);
    EXPECT_THAT(*transform, ElementsAre(0.5, 0.0, 100.0, 0.0, -0.5, 200.0));
    Overview overview;
    overview.columns = 20;
    overview.rows = 10;
    overview.transform = *transform;
    const Rectangle box = overview.box();
    EXPECT_EQ(box.minX, 100.0);
    EXPECT_EQ(box.maxX, 110.0);
    EXPECT_EQ(box.minY, 195.0);
    EXPECT_EQ(box.maxY, 200.0);
    for (const char* const bad : {"", "0.5\n0\n0\n-0.5\n100.25\n", "0.5\n0\n0\n-0.5\n100,25\n199.75\n"}) {
        EXPECT_FALSE(worldFileTransform(bad)) << bad;
    }
}

// One dataset of a few splats for each name.
class TilesTest : public testing::Test {
protected:
    DatasetWriter::TemporaryFolder scratch_;

    std::string write(const std::string& name, std::vector<DatasetWriter::StoredSplat> splats,
                      const DatasetWriter::MetaFields& fields = {}) const {
        const std::filesystem::path folder = scratch_.path() / name;
        DatasetWriter::writeFiles(folder, DatasetWriter::oneCellFiles(splats, fields));
        return textFromPath(folder);
    }

    static Tiles read(const std::vector<std::string>& names, unsigned threads = 2) {
        return readTiles(names, threads, [](double) {});
    }
};

TEST_F(TilesTest, TheBoxIsThatOfTheRecordsWithTheOffset) {
    DatasetWriter::MetaFields fields;
    fields.offset = {431'000.0, 5'320'000.0, -400.0};
    fields.box = {{-100, -100, -100}, {100, 100, 100}};
    fields.cellLengthX = fields.cellLengthY = 200.0;
    const std::string name =
        write("tile", {DatasetWriter::splatAt(1.5f, 7.0f, 3.0f), DatasetWriter::splatAt(4.25f, 2.0f, 9.0f)},
              fields);
    const Tiles tiles = read({name});
    ASSERT_EQ(tiles.good.size(), 1u) << tiles.refused.at(0).reason;
    const Tile& tile = tiles.good.front();
    EXPECT_THAT(tile.min, ElementsAre(431'001.5, 5'320'002.0, -397.0));
    EXPECT_THAT(tile.max, ElementsAre(431'004.25, 5'320'007.0, -391.0));
    EXPECT_EQ(tile.splats, 2u);
    EXPECT_EQ(tile.cells, 1u);
    EXPECT_EQ(tile.unplaced, 0u);
    EXPECT_EQ(tile.dataBytes, 64u);
    EXPECT_EQ(tile.coefficientBytes, 128u);
}

TEST_F(TilesTest, SplatsAtNoFinitePositionAreCountedApart) {
    constexpr float nan = std::numeric_limits<float>::quiet_NaN();
    constexpr float infinity = std::numeric_limits<float>::infinity();
    const std::string some =
        write("some", {DatasetWriter::splatAt(1.0f, 2.0f), DatasetWriter::splatAt(nan, 9.0f),
                       DatasetWriter::splatAt(9.0f, -infinity)});
    const std::string none = write("none", {DatasetWriter::splatAt(nan, 2.0f)});
    const Tiles tiles = read({some, none});
    ASSERT_EQ(tiles.good.size(), 1u);
    EXPECT_EQ(tiles.good.front().unplaced, 2u);
    EXPECT_THAT(tiles.good.front().max, ElementsAre(1.0, 2.0, 1.0));
    ASSERT_EQ(tiles.refused.size(), 1u);
    EXPECT_EQ(tiles.refused.front().name, none);
    EXPECT_EQ(tiles.refused.front().reason, "none of its splats has a finite position");
}

TEST_F(TilesTest, StandInTheOrderGivenWhateverTheThreads) {
    std::vector<std::string> names;
    for (int i = 0; i < 12; ++i) {
        const auto x = static_cast<float>(i);
        names.push_back(write("tile" + std::to_string(i), {DatasetWriter::splatAt(x, 1.0f)}));
    }
    std::filesystem::resize_file(scratch_.path() / "tile5" / "data.bin", 31);
    for (const unsigned threads : {1u, 3u, 40u}) {
        const Tiles tiles = read(names, threads);
        ASSERT_EQ(tiles.good.size(), 11u);
        for (std::size_t i = 0; i < tiles.good.size(); ++i) {
            EXPECT_EQ(tiles.good[i].min[0], static_cast<double>(i < 5 ? i : i + 1));
        }
        ASSERT_EQ(tiles.refused.size(), 1u);
        EXPECT_EQ(tiles.refused.front().name, names[5]);
        EXPECT_THAT(tiles.refused.front().reason, testing::HasSubstr("data.bin"));
    }
}

TEST_F(TilesTest, AnInterruptEndsTheReading) {
    const std::string name = write("tile", DatasetWriter::smallScene());
    const auto interrupt = [](double) { throw Failure(ExitStatus::interrupted, "interrupted"); };
    EXPECT_THROW(readTiles({name, name}, 2, interrupt), Failure);
}

TEST_F(TilesTest, AFolderIsNamedByItsOwnLinkAndItsParentsWithoutLinks) {
    const std::filesystem::path place = std::filesystem::canonical(scratch_.path());
    write("north/tile", DatasetWriter::smallScene());
    const std::string dots = textFromPath(scratch_.path() / "north" / ".." / "north" / "tile" / "");
    EXPECT_EQ(tileFolder(dots), place / "north" / "tile");
    EXPECT_EQ(tileFolder(textFromPath(scratch_.path() / "north" / "tile" / ".")), place / "north" / "tile");
    EXPECT_THROW(tileFolder(textFromPath(scratch_.path() / "south")), Failure);
}

CatalogueItem itemAt(const std::string& id, double longitude) {
    CatalogueItem item;
    item.id = id;
    item.datetime = "2024-05-01T00:00:00Z";
    Tile& tile = item.tile;
    tile.folder = "/city/" + id;
    tile.splats = 12;
    tile.cells = 3;
    tile.dataBytes = 384;
    tile.meta.guid = "0123456789abcdef0123456789abcdef";
    tile.meta.epsg = 25832;
    tile.meta.offset = {431'000.0, 5'320'000.0, 400.0};
    tile.meta.fileType = "Portable";
    tile.min = {431'000.0, 5'320'000.25, 401.0};
    tile.max = {431'100.0, 5'320'100.0, 450.0};
    tile.meta.attributes[4] = {{0.25}, {1.0}, 1};
    tile.meta.attributes[1].max[0] = std::numeric_limits<double>::infinity();
    item.footprint =
        Footprint{{{{longitude, 48.0}, {longitude + 1.0, 48.0}, {longitude, 49.0}, {longitude, 48.0}}},
                  longitude,
                  48.0,
                  longitude + 1.0,
                  49.0};
    return item;
}

TEST(Catalogue, SaysWhereATileLiesAndWhatItHolds) {
    const json city = json::parse(catalogueText({itemAt("tile", 8.0)}, {"/city", ""}));
    EXPECT_EQ(city["type"], "FeatureCollection");
    ASSERT_EQ(city["features"].size(), 1u);
    const json& item = city["features"][0];
    EXPECT_EQ(item["id"], "tile");
    EXPECT_EQ(item["geometry"], json::parse(R"({"type": "Polygon",
        "coordinates": [[[8.0, 48.0], [9.0, 48.0], [8.0, 49.0], [8.0, 48.0]]]})"));
    EXPECT_EQ(item["bbox"], json({8.0, 48.0, 401.0, 9.0, 49.0, 450.0}));
    const json& properties = item["properties"];
    EXPECT_EQ(properties["datetime"], "2024-05-01T00:00:00Z");
    EXPECT_EQ(properties["proj:code"], "EPSG:25832");
    EXPECT_EQ(properties["proj:epsg"], 25832);
    EXPECT_EQ(properties["proj:bbox"], json({431'000.0, 5'320'000.25, 401.0, 431'100.0, 5'320'100.0, 450.0}));
    EXPECT_EQ(properties["pc:count"], 12);
    EXPECT_EQ(properties["plyconvert:guid"], "0123456789abcdef0123456789abcdef");
    EXPECT_EQ(properties["plyconvert:offset"], json({431'000.0, 5'320'000.0, 400.0}));
    EXPECT_EQ(item["assets"]["data"]["href"], "./tile/data.bin");
    EXPECT_EQ(item["assets"]["data"]["file:size"], 384);
    EXPECT_FALSE(item["assets"].contains("coefficients"));
    EXPECT_FALSE(item["assets"].contains("overview"));
}

TEST(Catalogue, StatisticsNameTheirPlaceInTheSchema) {
    const json city = json::parse(catalogueText({itemAt("tile", 8.0)}, {"/city", ""}));
    const json& properties = city["features"][0]["properties"];
    const json& statistics = properties["pc:statistics"];
    const std::vector<std::string> columns = {"x",        "y",        "z",        "red",     "green",
                                              "blue",     "opacity",  "scale_x",  "scale_y", "scale_z",
                                              "rotation", "normal_x", "normal_y", "normal_z"};
    std::vector<std::string> named;
    for (const json& column : properties["pc:schemas"]) {
        named.push_back(column["name"]);
    }
    EXPECT_EQ(named, columns);
    ASSERT_EQ(statistics.size(), columns.size());
    for (const json& statistic : statistics) {
        const auto position = statistic["position"].get<std::size_t>();
        EXPECT_EQ(statistic["name"], properties["pc:schemas"][position]["name"]);
        if (statistic["name"] == "opacity") {
            EXPECT_EQ(statistic["minimum"], 0.25);
        }
        // JSON cannot express an infinite range, and a packed quaternion has none.
        const bool hasRange = statistic["name"] != "normal_x" && statistic["name"] != "rotation";
        EXPECT_EQ(statistic.contains("maximum"), hasRange);
    }
    EXPECT_EQ(statistics[1]["minimum"], 5'320'000.25);
}

// Geo tools read numbers without a decimal point as integers.
TEST(Catalogue, CoordinatesHaveADecimalPoint) {
    const std::string text = catalogueText({itemAt("tile", 8.0)}, {"/city", ""});
    EXPECT_THAT(text,
                testing::HasSubstr("\"proj:bbox\":[431000.0,5320000.25,401.0,431100.0,5320100.0,450.0]"));
}

TEST(Catalogue, ATileWithoutAPlaceHasABoxOfItsOwnAlone) {
    CatalogueItem item = itemAt("tile", 8.0);
    item.footprint.reset();
    const json city = json::parse(catalogueText({item}, {"/city", ""}));
    const json& feature = city["features"][0];
    EXPECT_TRUE(feature["geometry"].is_null());
    EXPECT_FALSE(feature.contains("bbox"));
    EXPECT_TRUE(feature["properties"]["proj:epsg"].is_null());
    EXPECT_TRUE(feature["properties"]["proj:code"].is_null());
    EXPECT_EQ(feature["properties"]["proj:bbox"].size(), 6u);
}

TEST(Catalogue, TwoPolygonsAreOneGeometry) {
    CatalogueItem item = itemAt("tile", 179.0);
    item.footprint->polygons.push_back({{-180.0, 48.0}, {-179.0, 48.0}, {-180.0, 49.0}, {-180.0, 48.0}});
    const json city = json::parse(catalogueText({item}, {"/city", ""}));
    const json& geometry = city["features"][0]["geometry"];
    EXPECT_EQ(geometry["type"], "MultiPolygon");
    ASSERT_EQ(geometry["coordinates"].size(), 2u);
    EXPECT_EQ(geometry["coordinates"][1][0][1], json({-179.0, 48.0}));
}

TEST(Catalogue, TheOrderOfTheTilesIsThatOfTheirIds) {
    const CatalogueItem one = itemAt("one", 8.0);
    const CatalogueItem two = itemAt("two", 10.0);
    EXPECT_EQ(catalogueText({one, two}, {"/city", ""}), catalogueText({two, one}, {"/city", ""}));
}

TEST(Catalogue, APictureSaysItsPixels) {
    CatalogueItem item = itemAt("tile", 8.0);
    item.overview = Overview{
        "/city/tile.tif", false, 1'234, 200, 100, 25832, {0.5, 0.0, 431'000.0, 0.0, -0.5, 5'320'100.0}};
    const json city = json::parse(catalogueText({item}, {"/city", "https://example.org/c"}));
    const json& overview = city["features"][0]["assets"]["overview"];
    EXPECT_EQ(overview["href"], "https://example.org/c/tile.tif");
    EXPECT_EQ(overview["type"], "image/tiff; application=geotiff");
    EXPECT_EQ(overview["proj:shape"], json({100, 200}));
    EXPECT_EQ(overview["proj:transform"], json({0.5, 0.0, 431'000.0, 0.0, -0.5, 5'320'100.0}));
    EXPECT_EQ(overview["proj:epsg"], 25832);
    EXPECT_EQ(overview["file:size"], 1'234);
}

TEST(Catalogue, ABaseWithoutRoomIsRefused) {
    EXPECT_THROW(catalogueText({itemAt("tile", 8.0)}, {"/maps", "https://example.org"}), Failure);
}

TEST(Catalogue, ANameThatIsNoUtf8IsShownWithReplacements) {
    const json city = json::parse(catalogueText({itemAt("t\xFFile", 8.0)}, {"/city", ""}));
    EXPECT_EQ(city["features"][0]["id"], "t\xEF\xBF\xBDile");
}

} // namespace
} // namespace Tavrin::SplatProgram
