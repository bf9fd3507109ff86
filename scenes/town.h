// The town of a scene: its streets, lots, houses, trees, cars and lamps. Its unit is the metre of the town;
// the ground rectangle is centred on the origin and z points up.
#pragma once

#include "scenes/math.h"

#include <cstdint>
#include <vector>

namespace scenes {

// The direction of the sun, as a unit vector from the ground.
inline constexpr Point sunDirection{-0.48, -0.36, 0.8};

enum class Shape : std::uint8_t {
    ground,    // the whole ground rectangle
    quad,      // origin + a u + b v, a and b in [0, 1]
    triangle,  // the same with a + b <= 1
    ellipsoid, // centre origin, half axes in u
    tube,      // upright, from origin to height v.z, radius u.x at the foot and u.y at the top
};

enum class Material : std::uint8_t {
    ground,
    wall,
    doorWall,
    roof,
    leaf,
    bark,
    hedge,
    paint,
    glass,
    metal,
    stone
};

struct Surface {
    Shape shape = Shape::quad;
    Material material = Material::stone;
    Point origin;
    Point u;
    Point v;
    Point normal; // unit, of quads and triangles
    Point colour;
    double area = 0.0;   // square metres
    double weight = 1.0; // splats for each square metre, relative to the ground
};

// The ground's appearance at a point.
struct Ground {
    Point colour;
    double gloss = 0.0; // 0 matt to 1 mirror
    bool grass = false;
};

class Town {
public:
    // width and depth in metres of the town, at least 60 each.
    Town(double width, double depth, std::uint64_t seed);

    const std::vector<Surface>& surfaces() const { return parts_; }
    double width() const { return sizeX_; }
    double depth() const { return sizeY_; }

    double heightAt(double x, double y) const;
    Point normalAt(double x, double y) const;
    Ground groundAt(double x, double y) const;
    // The share of the sunlight that reaches the ground, 0 to 1.
    double sunAt(double x, double y) const;
    // True under a building, where the ground is invisible.
    bool coveredAt(double x, double y) const;

private:
    enum class Use : std::uint8_t { houses, park, church };

    // A local coordinate frame: e1 and e2 are horizontal unit vectors, e1 x e2 = z.
    struct Frame {
        Point centre;
        Point e1;
        Point e2;
        Point at(double a, double b, double c) const {
            return {centre.x + e1.x * a + e2.x * b, centre.y + e1.y * a + e2.y * b, centre.z + c};
        }
        Point turned(double a, double b, double c) const {
            return {e1.x * a + e2.x * b, e1.y * a + e2.y * b, c};
        }
    };
    // A parcel of land; facing is -1 or 1, the side of y where its street lies.
    struct Lot {
        double x0 = 0.0;
        double x1 = 0.0;
        double y0 = 0.0;
        double y1 = 0.0;
        double facing = -1.0;
        double driveX = 0.0; // middle of the driveway
        double doorX = 0.0;  // middle of the garden path
    };
    struct Block {
        Use use = Use::houses;
        std::uint32_t firstLot = 0;
    };
    struct Box {
        double halfA = 0.0;
        double halfB = 0.0;
        double low = 0.0;
        double high = 0.0;
    };

    void layOut();
    void layOutBlock(int column, int row);
    void layOutLot(Lot& lot);
    void layOutPark(double x0, double y0, double x1, double y1);
    void layOutStreet(int column, int row);
    void addHouse(const Lot& lot);
    void addChurch(double x, double y);
    void addRoof(const Frame& frame, const Box& box, double rise, Point wall, Point tiles);
    void addSpire(const Frame& frame, double half, double low, double high, Point tiles);
    void addTree(double x, double y, double size);
    void addHedge(double x0, double y0, double x1, double y1);
    void addCar(double x, double y, Point heading);
    void addLamp(double x, double y);
    // Adds the four sides, front (-e2) and left (-e1) in materials of their own, and a top unless it is a
    // wall.
    void addBox(const Frame& frame, const Box& box, Material front, Material left, Material rest,
                Point colour, double weight);
    void addPart(Shape shape, Material material, Point origin, Point u, Point v, Point colour, double weight);
    void shadeBox(const Frame& frame, const Box& box, bool building);
    void shadeEllipsoid(Point centre, Point half);
    template <class Blocked>
    void shade(Point low, Point high, double depthOfShade, Blocked blocked);
    Frame frameOn(double x, double y, Point e1) const;
    const Block& blockAt(double x, double y, double& localX, double& localY) const;
    Ground lotGround(const Block& block, double x, double y, double localX, double localY) const;

    double sizeX_;
    double sizeY_;
    std::uint64_t seed_;
    Random random_;
    int columns_;
    int rows_;
    double pitchX_;
    double pitchY_;
    int lotsInRow_;
    std::vector<Block> blocks_;
    std::vector<Lot> lots_;
    std::vector<Surface> parts_;

    std::size_t texelAt(int column, int row) const {
        return static_cast<std::size_t>(row) * static_cast<std::size_t>(texelsX_) +
               static_cast<std::size_t>(column);
    }

    // Rasters over the ground rectangle, row by row: sun (255 is full) and buildings (1 is covered).
    static constexpr double texel = 0.5; // metres
    int texelsX_;
    int texelsY_;
    std::vector<std::uint8_t> sun_;
    std::vector<std::uint8_t> covered_;
};

} // namespace scenes
