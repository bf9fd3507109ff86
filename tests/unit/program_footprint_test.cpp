// The outline of a tile on the globe, and tiles that cover the same ground.
#include "program/tiles/footprint.h"
#include "program/tiles/overlap.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <numbers>
#include <utility>

namespace Tavrin::SplatProgram {
namespace {

using testing::DoubleNear;
using testing::ElementsAre;
using testing::Field;
using testing::IsEmpty;
using testing::SizeIs;

constexpr double degree = std::numbers::pi / 180.0;
constexpr double metresPerDegree = 111'320.0;
constexpr double rounding = 1e-10; // degrees

// World coordinates that are already degrees.
std::optional<LonLat> asDegrees(double x, double y) {
    return LonLat{std::remainder(x, 360.0), y};
}

// Metres around a point at 50 degrees north, on a globe. A straight line leaves the parallel.
std::optional<LonLat> aroundFifty(double x, double y) {
    const double radius = metresPerDegree / degree;
    const double latitude = 50.0 * degree;
    const double distance = std::hypot(x, y) / radius;
    const double bearing = std::atan2(x, y);
    const double sine =
        std::sin(latitude) * std::cos(distance) + std::cos(latitude) * std::sin(distance) * std::cos(bearing);
    const double east = std::atan2(std::sin(bearing) * std::sin(distance) * std::cos(latitude),
                                   std::cos(distance) - std::sin(latitude) * sine);
    return LonLat{10.0 + east / degree, std::asin(sine) / degree};
}

// Metres around the north pole: x points to 90 degrees east, y to 180 degrees.
std::optional<LonLat> aroundPole(double x, double y) {
    return LonLat{std::atan2(x, -y) / degree, 90.0 - std::hypot(x, y) / metresPerDegree};
}

double areaOf(const Ring& ring) {
    double area = 0.0;
    for (std::size_t i = 0; i + 1 < ring.size(); ++i) {
        area += ring[i].longitude * ring[i + 1].latitude - ring[i + 1].longitude * ring[i].latitude;
    }
    return 0.5 * area;
}

bool holds(const Ring& ring, const LonLat& wanted) {
    return std::ranges::any_of(ring, [&](const LonLat& point) {
        return std::abs(point.longitude - wanted.longitude) < rounding &&
               std::abs(point.latitude - wanted.latitude) < rounding;
    });
}

// Metres from a point to the nearest line of a ring.
double distanceTo(const Ring& ring, const LonLat& point) {
    const double narrow = std::cos(point.latitude * degree);
    double nearest = INFINITY;
    for (std::size_t i = 0; i + 1 < ring.size(); ++i) {
        const double ax = (ring[i].longitude - point.longitude) * narrow;
        const double ay = ring[i].latitude - point.latitude;
        const double dx = (ring[i + 1].longitude - ring[i].longitude) * narrow;
        const double dy = ring[i + 1].latitude - ring[i].latitude;
        const double share = std::clamp(-(ax * dx + ay * dy) / (dx * dx + dy * dy), 0.0, 1.0);
        nearest = std::min(nearest, std::hypot(ax + share * dx, ay + share * dy));
    }
    return nearest * metresPerDegree;
}

TEST(Footprint, IsAClosedRingCounterclockwise) {
    const auto footprint = footprintOf({10.0, 50.0, 10.25, 50.5}, asDegrees);
    ASSERT_TRUE(footprint);
    ASSERT_THAT(footprint->polygons, SizeIs(1));
    const Ring& ring = footprint->polygons.front();
    EXPECT_EQ(ring.front(), ring.back());
    EXPECT_NEAR(areaOf(ring), 0.125, 1e-9);
    for (const LonLat& corner : {LonLat{10.0, 50.0}, {10.25, 50.0}, {10.25, 50.5}, {10.0, 50.5}}) {
        EXPECT_TRUE(holds(ring, corner));
    }
    EXPECT_EQ(footprint->west, 10.0);
    EXPECT_EQ(footprint->south, 50.0);
    EXPECT_EQ(footprint->east, 10.25);
    EXPECT_EQ(footprint->north, 50.5);
}

// Coordinates that grow to the west and to the north mirror the globe.
TEST(Footprint, IsCounterclockwiseInMirroredCoordinates) {
    const auto mirrored = [](double x, double y) { return asDegrees(-x, y); };
    const auto footprint = footprintOf({10.0, 50.0, 10.25, 50.5}, mirrored);
    ASSERT_TRUE(footprint);
    EXPECT_NEAR(areaOf(footprint->polygons.front()), 0.125, 1e-9);
}

TEST(Footprint, FollowsTheEdgesWithinAMillimetre) {
    for (const double size : {100.0, 1'000.0, 10'000.0}) {
        const Rectangle box = {-0.5 * size, -0.5 * size, 0.5 * size, 0.5 * size};
        const auto footprint = footprintOf(box, aroundFifty);
        ASSERT_TRUE(footprint);
        const Ring& ring = footprint->polygons.front();
        constexpr int samples = 1'000;
        double farthest = 0.0;
        for (int i = 0; i <= samples; ++i) {
            const double along = (static_cast<double>(i) / samples - 0.5) * size;
            for (const auto& [x, y] : {std::pair{along, box.minY}, {along, box.maxY}, {box.minX, along}}) {
                farthest = std::max(farthest, distanceTo(ring, *aroundFifty(x, y)));
            }
        }
        EXPECT_LT(farthest, 0.001) << size;
    }
}

TEST(Footprint, HasMorePointsWhereEdgesBendMore) {
    const auto small = footprintOf({0.0, 0.0, 50.0, 50.0}, aroundFifty);
    const auto wide = footprintOf({0.0, 0.0, 20'000.0, 20'000.0}, aroundFifty);
    ASSERT_TRUE(small && wide);
    EXPECT_THAT(small->polygons.front(), SizeIs(4 * 4 + 1));
    EXPECT_GT(wide->polygons.front().size(), 4u * 32u);
    const auto huge = footprintOf({0.0, 0.0, 2e6, 2e6}, aroundFifty);
    ASSERT_TRUE(huge);
    EXPECT_LE(huge->polygons.front().size(), 4u * 256u + 1u);
}

TEST(Footprint, IsCutAtTheMeridianOf180Degrees) {
    const auto footprint = footprintOf({179.5, -20.0, 181.0, -19.0}, asDegrees);
    ASSERT_TRUE(footprint);
    ASSERT_THAT(footprint->polygons, SizeIs(2));
    EXPECT_NEAR(areaOf(footprint->polygons[0]), 0.5, 1e-9);
    EXPECT_NEAR(areaOf(footprint->polygons[1]), 1.0, 1e-9);
    for (const LonLat& point : footprint->polygons[0]) {
        EXPECT_GE(point.longitude, 179.5);
        EXPECT_LE(point.longitude, 180.0);
    }
    for (const LonLat& point : footprint->polygons[1]) {
        EXPECT_GE(point.longitude, -180.0);
        EXPECT_LE(point.longitude, -179.0);
    }
    EXPECT_EQ(footprint->polygons[1].front(), footprint->polygons[1].back());
    EXPECT_EQ(footprint->west, 179.5);
    EXPECT_EQ(footprint->east, -179.0);
}

TEST(Footprint, StaysWholeBesideTheMeridianOf180Degrees) {
    const auto west = footprintOf({179.0, 0.0, 180.0, 1.0}, asDegrees);
    ASSERT_TRUE(west);
    EXPECT_THAT(west->polygons, SizeIs(1));
    EXPECT_NEAR(areaOf(west->polygons.front()), 1.0, 1e-9);
    const auto east = footprintOf({-180.0, 0.0, -179.0, 1.0}, asDegrees);
    ASSERT_TRUE(east);
    ASSERT_THAT(east->polygons, SizeIs(1));
    EXPECT_NEAR(areaOf(east->polygons.front()), 1.0, 1e-9);
    EXPECT_EQ(east->west, -180.0);
    EXPECT_EQ(east->east, -179.0);
}

TEST(Footprint, GoesAllAroundAPoleInsideIt) {
    const double far = 1.0 * metresPerDegree;
    const auto north = footprintOf({-far, -far, far, 2.0 * far}, aroundPole);
    ASSERT_TRUE(north);
    ASSERT_THAT(north->polygons, SizeIs(1));
    const Ring& ring = north->polygons.front();
    EXPECT_EQ(ring.front(), ring.back());
    EXPECT_TRUE(holds(ring, {180.0, 90.0}));
    EXPECT_TRUE(holds(ring, {-180.0, 90.0}));
    EXPECT_TRUE(holds(ring, {180.0, 88.0}));
    EXPECT_TRUE(holds(ring, {-180.0, 88.0}));
    // The nearest and the farthest point of the outline.
    EXPECT_TRUE(holds(ring, {0.0, 89.0}));
    EXPECT_NEAR(north->south, 90.0 - std::hypot(2.0, 1.0), 1e-9);
    EXPECT_EQ(north->north, 90.0);
    EXPECT_EQ(north->west, -180.0);
    EXPECT_EQ(north->east, 180.0);
    EXPECT_GT(areaOf(ring), 0.0);
    const auto southern = [](double x, double y) {
        const LonLat point = *aroundPole(x, y);
        return std::optional(LonLat{-point.longitude, -point.latitude});
    };
    const auto south = footprintOf({-far, -far, far, far}, southern);
    ASSERT_TRUE(south);
    ASSERT_THAT(south->polygons, SizeIs(1));
    EXPECT_EQ(south->south, -90.0);
    EXPECT_EQ(south->west, -180.0);
    EXPECT_GT(areaOf(south->polygons.front()), 0.0);
}

TEST(Footprint, ReachesToAPoleAtItsCorner) {
    const auto footprint = footprintOf({0.0, -metresPerDegree, metresPerDegree, 0.0}, aroundPole);
    ASSERT_TRUE(footprint);
    ASSERT_THAT(footprint->polygons, SizeIs(1));
    EXPECT_TRUE(holds(footprint->polygons.front(), {0.0, 90.0}));
    EXPECT_TRUE(holds(footprint->polygons.front(), {90.0, 90.0}));
    EXPECT_EQ(footprint->west, 0.0);
    EXPECT_EQ(footprint->east, 90.0);
    EXPECT_GT(areaOf(footprint->polygons.front()), 0.0);
}

TEST(Footprint, IsNothingWhereAnEdgeHasNoPlace) {
    const auto halfWorld = [](double x, double y) { return x < 5.0 ? asDegrees(x, y) : std::nullopt; };
    EXPECT_TRUE(footprintOf({0.0, 0.0, 4.0, 1.0}, halfWorld));
    EXPECT_FALSE(footprintOf({0.0, 0.0, 6.0, 1.0}, halfWorld));
    EXPECT_FALSE(footprintOf({0.0, 0.0, 5.0, 1.0}, halfWorld));
}

auto pair(std::size_t first, std::size_t second, double share) {
    return testing::AllOf(Field(&Overlap::first, first), Field(&Overlap::second, second),
                          Field(&Overlap::share, DoubleNear(share, 1e-4)));
}

TEST(Overlap, IsTheShareOfTheSmallerTile) {
    const std::vector<Ground> tiles = {{25832, {0.0, 0.0, 100.0, 100.0}},
                                       {25832, {98.0, 0.0, 198.0, 100.0}},
                                       {25832, {190.0, 40.0, 200.0, 50.0}},
                                       {25832, {0.0, 100.0, 100.0, 200.0}}};
    EXPECT_THAT(overlapsOf(tiles, 0.01), ElementsAre(pair(0, 1, 0.02), pair(1, 2, 0.8)));
    EXPECT_THAT(overlapsOf(tiles, 0.02), ElementsAre(pair(1, 2, 0.8)));
}

TEST(Overlap, IsFoundBetweenTilesOfTwoCodes) {
    const auto near = *footprintOf({-50.0, -50.0, 50.0, 50.0}, aroundFifty);
    const auto shifted = *footprintOf({25.0, -50.0, 125.0, 50.0}, aroundFifty);
    const auto far = *footprintOf({51.0, -50.0, 151.0, 50.0}, aroundFifty);
    const Rectangle same = {0.0, 0.0, 1.0, 1.0}; // boxes of different codes must not be compared
    EXPECT_THAT(overlapsOf({{1, same, &near}, {2, same, &shifted}}, 0.01), ElementsAre(pair(0, 1, 0.25)));
    EXPECT_THAT(overlapsOf({{1, same, &near}, {2, same, &far}}, 0.01), IsEmpty());
    EXPECT_THAT(overlapsOf({{1, same, &near}, {2, same, nullptr}}, 0.01), IsEmpty());
}

TEST(Overlap, IsFoundAcrossTheMeridianOf180Degrees) {
    const auto one = *footprintOf({179.5, 0.0, 180.5, 1.0}, asDegrees);
    const auto other = *footprintOf({-180.0, 0.0, -179.0, 1.0}, asDegrees);
    EXPECT_THAT(overlapsOf({{1, {}, &one}, {2, {}, &other}}, 0.01), ElementsAre(pair(0, 1, 0.5)));
}

TEST(Overlap, IsUnknownWithoutACode) {
    const Rectangle box = {0.0, 0.0, 1.0, 1.0};
    EXPECT_THAT(overlapsOf({{0, box}, {0, box}, {25832, box}}, 0.01), IsEmpty());
}

} // namespace
} // namespace Tavrin::SplatProgram
