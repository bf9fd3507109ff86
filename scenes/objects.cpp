// The objects on the town's ground (buildings, trees, cars, lamps) and their shadows.
#include "scenes/town.h"

#include <algorithm>
#include <array>

namespace scenes {

namespace {

constexpr double storey = 2.9; // metres

constexpr std::array<Point, 7> plaster{{{0.86, 0.80, 0.66},
                                        {0.90, 0.88, 0.84},
                                        {0.84, 0.72, 0.50},
                                        {0.80, 0.64, 0.56},
                                        {0.66, 0.72, 0.76},
                                        {0.62, 0.36, 0.28},
                                        {0.74, 0.78, 0.66}}};
constexpr std::array<Point, 5> tiling{
    {{0.62, 0.27, 0.17}, {0.50, 0.20, 0.15}, {0.42, 0.28, 0.20}, {0.32, 0.33, 0.37}, {0.68, 0.36, 0.22}}};
constexpr std::array<Point, 6> lacquer{{{0.75, 0.10, 0.10},
                                        {0.10, 0.20, 0.50},
                                        {0.85, 0.85, 0.86},
                                        {0.12, 0.12, 0.13},
                                        {0.55, 0.57, 0.60},
                                        {0.12, 0.35, 0.22}}};

template <std::size_t count>
Point pick(const std::array<Point, count>& colours, Random& random) {
    return colours[random.index(static_cast<std::uint32_t>(count))];
}

} // namespace

void Town::addPart(Shape shape, Material material, Point origin, Point u, Point v, Point colour,
                   double weight) {
    Surface part;
    part.shape = shape;
    part.material = material;
    part.origin = origin;
    part.u = u;
    part.v = v;
    part.colour = colour;
    part.weight = weight;
    if (shape == Shape::ellipsoid) {
        // 4 pi times the mean of the three products of half axes: exact for a sphere, approximate for a
        // tree's crown.
        part.area = 4.18879 * (u.x * u.y + u.y * u.z + u.z * u.x);
    } else if (shape == Shape::tube) {
        part.area = 3.14159 * (u.x + u.y) * v.z;
    } else {
        const Point n = cross(u, v);
        part.normal = normalised(n);
        part.area = length(n) * (shape == Shape::triangle ? 0.5 : 1.0);
    }
    parts_.push_back(part);
}

Town::Frame Town::frameOn(double x, double y, Point e1) const {
    return {{x, y, heightAt(x, y)}, e1, {-e1.y, e1.x, 0.0}};
}

void Town::addBox(const Frame& frame, const Box& box, Material front, Material left, Material rest,
                  Point colour, double weight) {
    const double a = box.halfA;
    const double b = box.halfB;
    const Point up{0.0, 0.0, box.high - box.low};
    addPart(Shape::quad, front, frame.at(-a, -b, box.low), frame.turned(2.0 * a, 0.0, 0.0), up, colour,
            weight);
    addPart(Shape::quad, left, frame.at(-a, b, box.low), frame.turned(0.0, -2.0 * b, 0.0), up, colour,
            weight);
    addPart(Shape::quad, rest, frame.at(a, b, box.low), frame.turned(-2.0 * a, 0.0, 0.0), up, colour, weight);
    addPart(Shape::quad, rest, frame.at(a, -b, box.low), frame.turned(0.0, 2.0 * b, 0.0), up, colour, weight);
    if (rest != Material::wall) {
        addPart(Shape::quad, rest == Material::glass ? Material::paint : rest, frame.at(-a, -b, box.high),
                frame.turned(2.0 * a, 0.0, 0.0), frame.turned(0.0, 2.0 * b, 0.0), colour, weight);
    }
}

void Town::addHouse(const Lot& lot) {
    const double width = lot.x1 - lot.x0;
    const double depth = lot.y1 - lot.y0;
    const double side = -lot.facing;
    const bool along = random_.chance(0.65);
    // Either the front (`along`) or the left gable (`across`) faces the street, slightly turned as real
    // houses are.
    const double askew = random_.uniform(-0.05, 0.05);
    const Point e1 = normalised(along ? Point{side, askew, 0.0} : Point{askew, side, 0.0});
    const double centreY = (lot.facing < 0.0 ? lot.y0 : lot.y1) + side * depth * random_.uniform(0.42, 0.5);
    const double shift = lot.driveX < lot.doorX ? 0.07 : -0.07;
    const Frame frame = frameOn(lot.doorX + shift * width, centreY, e1);

    const double halfX = clamp(0.3 * width, 2.0, random_.uniform(4.4, 5.8));
    const double halfY = clamp(0.24 * depth, 2.0, random_.uniform(4.0, 5.2));
    const double wallHeight = storey * (random_.chance(0.55) ? 2.0 : 1.0) + 0.4;
    const Box box{along ? halfX : halfY, along ? halfY : halfX, -0.6, wallHeight};
    const Point wall = pick(plaster, random_);
    const double age = random_.uniform(0.85, 1.1);
    const Point tiles = pick(tiling, random_) * age;
    addBox(frame, box, along ? Material::doorWall : Material::wall,
           along ? Material::wall : Material::doorWall, Material::wall, wall, 1.8);
    const double rise = box.halfB * random_.uniform(0.65, 1.0);
    addRoof(frame, box, rise, wall, tiles);

    const Frame stack{frame.at(random_.uniform(-0.5, 0.5) * box.halfA, 0.3 * box.halfB, 0.0), frame.e1,
                      frame.e2};
    addBox(stack, {0.35, 0.3, wallHeight + 0.5 * rise, wallHeight + rise + 0.7}, Material::stone,
           Material::stone, Material::stone, {0.45, 0.30, 0.25}, 2.5);
    shadeBox(frame, {box.halfA, box.halfB, 0.0, wallHeight + 0.5 * rise}, true);
}

void Town::addRoof(const Frame& frame, const Box& box, double rise, Point wall, Point tiles) {
    constexpr double over = 0.45; // metres that the roof overhangs
    const double a = box.halfA + over;
    const double b = box.halfB + over;
    const double drop = rise * over / box.halfB;
    const double eaves = box.high - drop;
    const double slope = rise + drop;
    addPart(Shape::quad, Material::roof, frame.at(-a, -b, eaves), frame.turned(2.0 * a, 0.0, 0.0),
            frame.turned(0.0, b, slope), tiles, 1.6);
    addPart(Shape::quad, Material::roof, frame.at(a, b, eaves), frame.turned(-2.0 * a, 0.0, 0.0),
            frame.turned(0.0, -b, slope), tiles, 1.6);
    addPart(Shape::triangle, Material::stone, frame.at(-box.halfA, box.halfB, box.high),
            frame.turned(0.0, -2.0 * box.halfB, 0.0), frame.turned(0.0, -box.halfB, rise), wall, 1.8);
    addPart(Shape::triangle, Material::stone, frame.at(box.halfA, -box.halfB, box.high),
            frame.turned(0.0, 2.0 * box.halfB, 0.0), frame.turned(0.0, box.halfB, rise), wall, 1.8);
}

void Town::addSpire(const Frame& frame, double half, double low, double high, Point tiles) {
    const std::array<Point, 4> corners{frame.at(-half, -half, low), frame.at(half, -half, low),
                                       frame.at(half, half, low), frame.at(-half, half, low)};
    const Point tip = frame.at(0.0, 0.0, high);
    for (std::size_t k = 0; k < corners.size(); ++k) {
        const Point from = corners[k];
        addPart(Shape::triangle, Material::roof, from, corners[(k + 1) % 4] - from, tip - from, tiles, 1.8);
    }
}

void Town::addChurch(double x, double y) {
    const Point stone{0.80, 0.74, 0.62};
    const Point copper{0.32, 0.48, 0.42};
    const Frame nave = frameOn(x + 3.0, y, {1.0, 0.0, 0.0});
    const Box hall{11.0, 5.5, -0.6, 8.5};
    addBox(nave, hall, Material::wall, Material::wall, Material::wall, stone, 1.8);
    addRoof(nave, hall, 6.0, stone, tiling[1]);
    shadeBox(nave, {hall.halfA, hall.halfB, 0.0, 11.5}, true);
    const Frame tower = frameOn(x - 11.0, y, {1.0, 0.0, 0.0});
    addBox(tower, {3.2, 3.2, -0.6, 19.0}, Material::wall, Material::doorWall, Material::wall, stone, 1.8);
    addSpire(tower, 3.6, 18.8, 33.0, copper);
    shadeBox(tower, {3.2, 3.2, 0.0, 19.0}, true);
    shadeBox(tower, {1.4, 1.4, 19.0, 28.0}, false);
}

void Town::addTree(double x, double y, double size) {
    const double h = heightAt(x, y);
    const Point foot{x, y, h - 0.1};
    const bool fir = random_.chance(0.2);
    const Point tint = mix({0.16, 0.30, 0.09}, {0.40, 0.46, 0.14}, random_.uniform()) *
                       (fir ? Point{0.6, 0.75, 0.9} : Point{1.0, 1.0, 1.0});
    addPart(Shape::tube, Material::bark, foot, {0.2 * size + 0.05, 0.14 * size + 0.04, 0.0},
            {0.0, 0.0, 2.6 * size}, {0.34, 0.26, 0.19}, 2.5);
    if (fir) {
        addPart(Shape::tube, Material::leaf, {x, y, h + 0.9 * size}, {2.0 * size, 0.05, 0.0},
                {0.0, 0.0, 8.0 * size}, tint, 1.3);
        shadeEllipsoid({x, y, h + 4.0 * size}, {1.3 * size, 1.3 * size, 3.6 * size});
        return;
    }
    const int lumps = 2 + static_cast<int>(random_.index(3));
    for (int k = 0; k < lumps; ++k) {
        const Point aside = random_.onCircle() * (k == 0 ? 0.0 : 1.3 * size);
        const double r = size * random_.uniform(1.5, 2.3) * (k == 0 ? 1.2 : 0.85);
        const Point centre{x + aside.x, y + aside.y, h + size * random_.uniform(4.0, 5.4)};
        const Point half{r, r, 0.9 * r};
        addPart(Shape::ellipsoid, Material::leaf, centre, half, {}, tint * random_.uniform(0.9, 1.1), 1.1);
        shadeEllipsoid(centre, half);
    }
}

void Town::addHedge(double x0, double y0, double x1, double y1) {
    const bool alongX = y0 == y1;
    const double half = 0.5 * (alongX ? x1 - x0 : y1 - y0);
    const Frame frame =
        frameOn(0.5 * (x0 + x1), 0.5 * (y0 + y1), alongX ? Point{1.0, 0.0, 0.0} : Point{0.0, 1.0, 0.0});
    const Box box{half, 0.35, -0.3, 1.2};
    addBox(frame, box, Material::hedge, Material::hedge, Material::hedge, {0.17, 0.29, 0.10}, 1.2);
    shadeBox(frame, box, false);
}

void Town::addCar(double x, double y, Point heading) {
    const Frame frame = frameOn(x, y, heading);
    const Point paint = pick(lacquer, random_);
    addBox(frame, {2.15, 0.88, 0.22, 0.82}, Material::paint, Material::paint, Material::paint, paint, 4.0);
    const Frame cabin{frame.at(-0.25, 0.0, 0.0), frame.e1, frame.e2};
    addBox(cabin, {1.15, 0.76, 0.82, 1.42}, Material::glass, Material::glass, Material::glass, paint, 4.0);
    shadeBox(frame, {2.15, 0.88, 0.0, 1.2}, false);
}

void Town::addLamp(double x, double y) {
    const double h = heightAt(x, y);
    addPart(Shape::tube, Material::metal, {x, y, h}, {0.08, 0.05, 0.0}, {0.0, 0.0, 4.6}, {0.28, 0.32, 0.30},
            8.0);
    addPart(Shape::ellipsoid, Material::metal, {x, y, h + 4.75}, {0.24, 0.24, 0.2}, {}, {0.95, 0.93, 0.80},
            8.0);
}

// Lowers the sun of every texel in the rectangle from low to high whose ray towards the sun is blocked.
template <class Blocked>
void Town::shade(Point low, Point high, double depthOfShade, Blocked blocked) {
    const int i0 = std::max(0, static_cast<int>((low.x + 0.5 * sizeX_) / texel));
    const int j0 = std::max(0, static_cast<int>((low.y + 0.5 * sizeY_) / texel));
    const int i1 = std::min(texelsX_ - 1, static_cast<int>((high.x + 0.5 * sizeX_) / texel));
    const int j1 = std::min(texelsY_ - 1, static_cast<int>((high.y + 0.5 * sizeY_) / texel));
    for (int j = j0; j <= j1; ++j) {
        for (int i = i0; i <= i1; ++i) {
            const double x = (i + 0.5) * texel - 0.5 * sizeX_;
            const double y = (j + 0.5) * texel - 0.5 * sizeY_;
            if (blocked(Point{x, y, low.z})) {
                std::uint8_t& light = sun_[texelAt(i, j)];
                light = static_cast<std::uint8_t>(light * (1.0 - depthOfShade));
            }
        }
    }
}

void Town::shadeBox(const Frame& frame, const Box& box, bool building) {
    const Point way{dot(sunDirection, frame.e1), dot(sunDirection, frame.e2), sunDirection.z};
    const auto blocked = [&](Point ground) {
        const Point from = ground - frame.centre;
        const std::array<double, 3> start{dot(from, frame.e1), dot(from, frame.e2), from.z};
        const std::array<double, 3> step{way.x, way.y, way.z};
        const std::array<double, 3> low{-box.halfA, -box.halfB, box.low};
        const std::array<double, 3> high{box.halfA, box.halfB, box.high};
        double enter = 0.0;
        double leave = 1.0e9;
        for (std::size_t k = 0; k < 3; ++k) {
            if (std::fabs(step[k]) < 1.0e-9) {
                if (start[k] < low[k] || start[k] > high[k]) {
                    return false;
                }
                continue;
            }
            const double t0 = (low[k] - start[k]) / step[k];
            const double t1 = (high[k] - start[k]) / step[k];
            enter = std::max(enter, std::min(t0, t1));
            leave = std::min(leave, std::max(t0, t1));
        }
        return enter < leave;
    };
    const double reach = box.halfA + box.halfB;
    const double throwX = -sunDirection.x / sunDirection.z * box.high;
    const double throwY = -sunDirection.y / sunDirection.z * box.high;
    const Point c = frame.centre;
    shade({c.x - reach, c.y - reach, c.z}, {c.x + reach + throwX, c.y + reach + throwY, 0.0}, 0.85, blocked);
    if (building) {
        const int cells = static_cast<int>(reach / texel) + 1;
        const int ci = static_cast<int>((c.x + 0.5 * sizeX_) / texel);
        const int cj = static_cast<int>((c.y + 0.5 * sizeY_) / texel);
        for (int j = std::max(0, cj - cells); j <= std::min(texelsY_ - 1, cj + cells); ++j) {
            for (int i = std::max(0, ci - cells); i <= std::min(texelsX_ - 1, ci + cells); ++i) {
                const Point from =
                    Point{(i + 0.5) * texel - 0.5 * sizeX_, (j + 0.5) * texel - 0.5 * sizeY_, c.z} - c;
                if (std::fabs(dot(from, frame.e1)) < box.halfA - 0.5 * texel &&
                    std::fabs(dot(from, frame.e2)) < box.halfB - 0.5 * texel) {
                    covered_[texelAt(i, j)] = 1;
                }
            }
        }
    }
}

void Town::shadeEllipsoid(Point centre, Point half) {
    // In coordinates divided by the half axes the crown is a unit sphere; the ray hits it when the sphere's
    // centre is nearer to the ray than 1.
    const Point inverse{1.0 / half.x, 1.0 / half.y, 1.0 / half.z};
    const Point way = normalised(sunDirection * inverse);
    const auto blocked = [&](Point point) {
        const Point to = (centre - point) * inverse;
        const double along = dot(to, way);
        return along > 0.0 && dot(to, to) - along * along < 1.0;
    };
    const double ground = heightAt(centre.x, centre.y);
    const double drop = (centre.z + half.z - ground + 1.0) / sunDirection.z;
    const Point low{centre.x - half.x, centre.y - half.y, ground};
    const Point high{centre.x + half.x - sunDirection.x * drop, centre.y + half.y - sunDirection.y * drop,
                     0.0};
    shade(low, high, 0.7, blocked);
}

} // namespace scenes
