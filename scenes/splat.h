// Turns a town into splats. Each splat is computed from its index alone, so a file of any length can be
// written piece by piece.
#pragma once

#include "scenes/scenes.h"
#include "scenes/town.h"

#include <vector>

namespace scenes {

class SplatSource {
public:
    explicit SplatSource(const SceneOptions& options);

    // Writes record `index` (recordFloats(options.coefficients) floats) to `record`.
    void splat(std::uint64_t index, float* record) const;

private:
    // A point on a surface with its appearance, in metres of the town.
    struct Sample {
        Point position;
        Point normal;
        Point colour; // lit
        double gloss = 0.0;
        double spacing = 0.0; // metres between neighbours on this surface
    };

    const Surface& pick(std::uint64_t index, Random& random) const;
    Sample sampleGround(const Surface& surface, std::uint64_t index, Random& random) const;
    Sample sampleFlat(const Surface& surface, Random& random) const;
    Sample sampleRound(const Surface& surface, Random& random) const;
    Sample sampleTube(const Surface& surface, Random& random) const;
    Point lit(Point colour, Point normal, double sun, double openness) const;
    void writePosition(const Sample& sample, std::uint64_t index, Random& random, float* record) const;
    void writeShape(const Sample& sample, bool floater, Random& random, float* shape) const;
    void writeCoefficients(const Sample& sample, Random& random, float* rest) const;

    SceneOptions options_;
    double metre_; // metres of the scene in a metre of the town
    Town town_;
    std::vector<double> upTo_; // cumulative share of the splats, up to and including each surface
    double density_;           // splats a square metre of weight 1
    std::array<float, 2> low_;
    std::array<float, 2> high_;
};

} // namespace scenes
