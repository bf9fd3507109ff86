#include "src/records.h"

#include "tests/support/fields.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstddef>
#include <limits>
#include <type_traits>

namespace Tavrin::GaussionSplat {

namespace {

constexpr double infinity = std::numeric_limits<double>::infinity();
constexpr double nan = std::numeric_limits<double>::quiet_NaN();

void expectVector(const Vector3& value, double x, double y, double z) {
    EXPECT_EQ(value.x, x);
    EXPECT_EQ(value.y, y);
    EXPECT_EQ(value.z, z);
}

TEST(Vector3, HoldsThreeDoublesInOrder) {
    static_assert(std::is_same_v<decltype(Vector3::x), double> &&
                  std::is_same_v<decltype(Vector3::y), double> &&
                  std::is_same_v<decltype(Vector3::z), double>);
    static_assert(std::is_trivially_copyable_v<Vector3>);
    EXPECT_EQ(sizeof(Vector3), 24u);
    EXPECT_EQ(offsetof(Vector3, x), 0u);
    EXPECT_EQ(offsetof(Vector3, y), 8u);
    EXPECT_EQ(offsetof(Vector3, z), 16u);
    expectVector(Vector3(), 0.0, 0.0, 0.0);
}

TEST(Params, DeclaresItsFieldsInOrder) {
    static_assert(!std::is_polymorphic_v<Params>);
    static_assert(std::is_same_v<decltype(Params::epsg), std::int32_t>);
    static_assert(std::is_same_v<decltype(Params::dataType), std::string>);
    static_assert(std::is_same_v<decltype(Params::source), std::string>);
    const Params params;
    support::expectDeclaredInOrder({{"minx", params.minx},
                                    {"miny", params.miny},
                                    {"minz", params.minz},
                                    {"maxx", params.maxx},
                                    {"maxy", params.maxy},
                                    {"maxz", params.maxz},
                                    {"offsetx", params.offsetx},
                                    {"offsety", params.offsety},
                                    {"offsetz", params.offsetz},
                                    {"epsg", params.epsg},
                                    {"shiftx", params.shiftx},
                                    {"shifty", params.shifty},
                                    {"shiftz", params.shiftz},
                                    {"scalex", params.scalex},
                                    {"scaley", params.scaley},
                                    {"scalez", params.scalez},
                                    {"dataType", params.dataType},
                                    {"source", params.source}});
}

TEST(Params, NumbersAreDoublesWithTheirDefaults) {
    struct Row {
        const char* name;
        double Params::*field; // of this type, or the table does not compile
        double value;
    };
    const Row rows[] = {
        {"minx", &Params::minx, 0.0},       {"miny", &Params::miny, 0.0},
        {"minz", &Params::minz, 0.0},       {"maxx", &Params::maxx, 1.0},
        {"maxy", &Params::maxy, 1.0},       {"maxz", &Params::maxz, 1.0},
        {"offsetx", &Params::offsetx, 0.0}, {"offsety", &Params::offsety, 0.0},
        {"offsetz", &Params::offsetz, 0.0}, {"shiftx", &Params::shiftx, 0.0},
        {"shifty", &Params::shifty, 0.0},   {"shiftz", &Params::shiftz, 0.0},
        {"scalex", &Params::scalex, 1.0},   {"scaley", &Params::scaley, 1.0},
        {"scalez", &Params::scalez, 1.0},
    };
    const Params params;
    for (const Row& row : rows) {
        EXPECT_EQ(params.*row.field, row.value) << row.name;
    }
    EXPECT_EQ(params.epsg, 0);
    EXPECT_EQ(params.dataType, "None");
    EXPECT_EQ(params.source, "None");
}

TEST(AttributeRange, IsEmptyAtFirst) {
    const AttributeRange range;
    support::expectDeclaredInOrder({{"name", range.name}, {"min", range.min}, {"max", range.max}});
    expectVector(range.min, infinity, infinity, infinity);
    expectVector(range.max, -infinity, -infinity, -infinity);
}

TEST(AttributeBounding, HoldsSixEmptyRangesInOrder) {
    static_assert(!std::is_polymorphic_v<AttributeBounding>);
    const AttributeBounding bounding;
    support::expectDeclaredInOrder({{"position", bounding.position},
                                    {"normal", bounding.normal},
                                    {"color", bounding.color},
                                    {"shcoef", bounding.shcoef},
                                    {"opacity", bounding.opacity},
                                    {"scale", bounding.scale},
                                    {"hasShcoef", bounding.hasShcoef}});
    struct Row {
        const char* name;
        AttributeRange AttributeBounding::*range;
    };
    const Row rows[] = {{"position", &AttributeBounding::position}, {"normal", &AttributeBounding::normal},
                        {"color", &AttributeBounding::color},       {"shcoef", &AttributeBounding::shcoef},
                        {"opacity", &AttributeBounding::opacity},   {"scale", &AttributeBounding::scale}};
    for (const Row& row : rows) {
        const AttributeRange& range = bounding.*row.range;
        EXPECT_EQ(range.name, row.name);
        expectVector(range.min, infinity, infinity, infinity);
        expectVector(range.max, -infinity, -infinity, -infinity);
        EXPECT_GT(range.min.x, range.max.x) << row.name;
        EXPECT_GT(range.min.y, range.max.y) << row.name;
        EXPECT_GT(range.min.z, range.max.z) << row.name;
    }
    static_assert(std::is_same_v<decltype(AttributeBounding::hasShcoef), bool>);
    EXPECT_TRUE(bounding.hasShcoef);
}

TEST(Widen, FirstValueBecomesBothBounds) {
    AttributeRange range;
    widen(range, {.name = "ignored", .min = {1.0, -2.0, 3.0}, .max = {1.0, -2.0, 3.0}});
    expectVector(range.min, 1.0, -2.0, 3.0);
    expectVector(range.max, 1.0, -2.0, 3.0);
    EXPECT_EQ(range.name, "");
}

TEST(Widen, TakesTheOuterBoundOfEachAxis) {
    AttributeRange range{.name = "n", .min = {0.0, 0.0, 0.0}, .max = {1.0, 1.0, 1.0}};
    widen(range, {.name = {}, .min = {-1.0, 0.5, 0.0}, .max = {0.5, 2.0, 1.0}});
    expectVector(range.min, -1.0, 0.0, 0.0);
    expectVector(range.max, 1.0, 2.0, 1.0);
}

TEST(Widen, AnEmptyRangeChangesNothing) {
    AttributeRange range{.name = "n", .min = {0.0, 1.0, 2.0}, .max = {3.0, 4.0, 5.0}};
    widen(range, AttributeRange());
    expectVector(range.min, 0.0, 1.0, 2.0);
    expectVector(range.max, 3.0, 4.0, 5.0);
}

TEST(Widen, NanNeverReplacesABound) {
    AttributeRange range{.name = "n", .min = {0.0, 0.0, 0.0}, .max = {1.0, 1.0, 1.0}};
    widen(range, {.name = {}, .min = {nan, nan, nan}, .max = {nan, nan, nan}});
    expectVector(range.min, 0.0, 0.0, 0.0);
    expectVector(range.max, 1.0, 1.0, 1.0);
}

TEST(Widen, OfEqualBoundsTheFirstStays) {
    AttributeRange range{.name = "n", .min = {0.0, -0.0, 0.0}, .max = {-0.0, 0.0, -0.0}};
    widen(range, {.name = {}, .min = {-0.0, 0.0, -0.0}, .max = {0.0, -0.0, 0.0}});
    EXPECT_FALSE(std::signbit(range.min.x));
    EXPECT_TRUE(std::signbit(range.min.y));
    EXPECT_TRUE(std::signbit(range.max.x));
    EXPECT_FALSE(std::signbit(range.max.y));
}

TEST(WidenX, LeavesTheOtherAxesAlone) {
    AttributeRange range;
    widenX(range, {.name = {}, .min = {0.25, 7.0, 7.0}, .max = {0.75, 7.0, 7.0}});
    expectVector(range.min, 0.25, infinity, infinity);
    expectVector(range.max, 0.75, -infinity, -infinity);
}

} // namespace

} // namespace Tavrin::GaussionSplat
