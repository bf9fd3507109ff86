#include "scenes/splat.h"

#include <algorithm>
#include <array>

namespace scenes {

namespace {

constexpr double smallestTown = 60.0; // metres; a smaller scene shows a model of a town of this size
constexpr double largestArea = 1.0e6; // square metres; a larger scene shows larger houses
constexpr double nanometre = 1.0e-9;  // metres

// Metres of the scene in a metre of the town.
double townScale(double extentX, double extentY) {
    const double model = std::min(extentX, extentY) / smallestTown;
    if (model < 1.0) {
        return model;
    }
    return std::max(1.0, std::sqrt(extentX * extentY / largestArea));
}

struct Quaternion {
    double w = 1.0;
    double x = 0.0;
    double y = 0.0;
    double z = 0.0;
};

Quaternion operator*(Quaternion a, Quaternion b) {
    return {a.w * b.w - a.x * b.x - a.y * b.y - a.z * b.z, a.w * b.x + b.w * a.x + a.y * b.z - a.z * b.y,
            a.w * b.y + b.w * a.y + a.z * b.x - a.x * b.z, a.w * b.z + b.w * a.z + a.x * b.y - a.y * b.x};
}

// The shortest turn from z to a unit vector, not normalised: (1 + z.n, z x n).
Quaternion turnFromZ(Point n) {
    return n.z > -0.9999 ? Quaternion{1.0 + n.z, -n.y, n.x, 0.0} : Quaternion{0.0, 1.0, 0.0, 0.0};
}

double glossOf(Material material) {
    switch (material) {
    case Material::paint:
        return 0.7;
    case Material::glass:
        return 0.9;
    case Material::metal:
        return 0.5;
    case Material::roof:
        return 0.15;
    default:
        return 0.05;
    }
}

// Paints a wall with a row of windows in every storey and a door in the middle if it has one. `along` and
// `up` are metres from its lower left corner, which lies 0.6 m below the ground.
void paintWall(const Surface& wall, double along, double up, Point& colour, double& gloss) {
    constexpr double storey = 2.9;
    const double width = length(wall.u);
    const double height = wall.v.z - 0.6;
    const double above = up - 0.6;
    if (above < 0.35) {
        colour = colour * 0.62;
        return;
    }
    if (wall.material == Material::doorWall && std::fabs(along - 0.5 * width) < 0.65 && above < 2.3) {
        const bool frame = std::fabs(along - 0.5 * width) > 0.5 || above > 2.15;
        colour = frame ? Point{0.88, 0.87, 0.84} : Point{0.36, 0.22, 0.13};
        return;
    }
    const int columns = std::max(1, static_cast<int>(width / 2.6));
    const double pitch = width / columns;
    const double inColumn = along - pitch * std::floor(along / pitch) - 0.5 * pitch;
    const double inStorey = above - storey * std::floor(above / storey);
    const bool whole = storey * (std::floor(above / storey) + 1.0) <= height + 0.1;
    const double aside = std::fabs(inColumn);
    if (!whole || aside > 0.72 || inStorey < 0.85 || inStorey > 2.35) {
        return;
    }
    if (aside > 0.56 || inStorey < 1.0 || inStorey > 2.22) {
        colour = {0.92, 0.91, 0.88};
        return;
    }
    colour = {0.20, 0.26, 0.32};
    gloss = 0.9;
}

} // namespace

SplatSource::SplatSource(const SceneOptions& sceneOptions)
    : options_(sceneOptions), metre_(townScale(options_.extentX, options_.extentY)),
      town_(options_.extentX / metre_, options_.extentY / metre_, scramble(options_.seed)),
      low_{static_cast<float>(options_.centre.x - 0.5 * options_.extentX),
           static_cast<float>(options_.centre.y - 0.5 * options_.extentY)},
      high_{static_cast<float>(options_.centre.x + 0.5 * options_.extentX),
            static_cast<float>(options_.centre.y + 0.5 * options_.extentY)} {
    double sum = 0.0;
    for (const Surface& surface : town_.surfaces()) {
        sum += surface.area * surface.weight;
        upTo_.push_back(sum);
    }
    density_ = static_cast<double>(std::max<std::uint64_t>(options_.splats, 1)) / sum;
    for (double& share : upTo_) {
        share /= sum;
    }
}

const Surface& SplatSource::pick(std::uint64_t index, Random& random) const {
    const std::vector<Surface>& surfaces = town_.surfaces();
    const double draw = random.uniform();
    if (index < 2) {
        return surfaces.front(); // the ground's outermost corners
    }
    const double share = options_.order == Order::shuffled
                             ? draw
                             : (static_cast<double>(index) + draw) / static_cast<double>(options_.splats);
    const auto at = std::upper_bound(upTo_.begin(), upTo_.end(), share);
    return at == upTo_.end() ? surfaces.back() : surfaces[static_cast<std::size_t>(at - upTo_.begin())];
}

Point SplatSource::lit(Point colour, Point normal, double sun, double openness) const {
    const double facing = std::max(0.0, dot(normal, sunDirection));
    const Point sky = Point{0.42, 0.47, 0.56} * ((0.65 + 0.35 * normal.z) * openness);
    const Point light = sky + Point{0.74, 0.68, 0.58} * (facing * sun);
    return colour * light;
}

SplatSource::Sample SplatSource::sampleGround(const Surface& surface, std::uint64_t index,
                                              Random& random) const {
    Sample sample;
    double x = index == 0 ? -0.5 * town_.width() : 0.5 * town_.width();
    double y = index == 0 ? -0.5 * town_.depth() : 0.5 * town_.depth();
    if (index > 1) {
        // The ground under a house is invisible; a few draws find a visible place.
        for (int draws = 0; draws < 32; ++draws) {
            x = random.uniform(-0.5, 0.5) * town_.width();
            y = random.uniform(-0.5, 0.5) * town_.depth();
            if (!town_.coveredAt(x, y)) {
                break;
            }
        }
    }
    const Ground ground = town_.groundAt(x, y);
    sample.position = {x, y, town_.heightAt(x, y)};
    sample.normal = town_.normalAt(x, y);
    sample.gloss = ground.gloss;
    const double sun = town_.sunAt(x, y);
    sample.colour = lit(ground.colour, sample.normal, sun, 0.8 + 0.2 * sun);
    if (ground.grass) {
        sample.position.z += 0.05 * random.uniform();
        sample.normal = normalised(sample.normal + random.onSphere() * 0.35);
    }
    sample.spacing = std::sqrt(1.0 / (density_ * surface.weight));
    return sample;
}

SplatSource::Sample SplatSource::sampleFlat(const Surface& surface, Random& random) const {
    Sample sample;
    double a = random.uniform();
    double b = random.uniform();
    if (surface.shape == Shape::triangle && a + b > 1.0) {
        a = 1.0 - a;
        b = 1.0 - b;
    }
    sample.position = surface.origin + surface.u * a + surface.v * b;
    sample.normal = surface.normal;
    Point colour = surface.colour;
    sample.gloss = glossOf(surface.material);
    const double along = a * length(surface.u);
    const double up = b * length(surface.v);
    double openness = 1.0;
    switch (surface.material) {
    case Material::wall:
    case Material::doorWall:
        paintWall(surface, along, up, colour, sample.gloss);
        openness = 0.7 + 0.3 * std::min(1.0, up / 2.0);
        break;
    case Material::roof: {
        const double row = up - 0.7 * std::floor(up / 0.7);
        colour = colour * ((row < 0.2 ? 0.78 : 1.0) * (0.88 + 0.24 * random.uniform()));
        break;
    }
    case Material::hedge:
        colour = colour * (0.6 + 0.8 * random.uniform());
        sample.normal = normalised(sample.normal + random.onSphere() * 0.7);
        sample.position = sample.position + sample.normal * (0.1 * random.normal());
        break;
    case Material::glass:
        colour = {0.13, 0.16, 0.19};
        break;
    default:
        break;
    }
    sample.colour = lit(colour, sample.normal, 1.0, openness);
    sample.spacing = std::sqrt(1.0 / (density_ * surface.weight));
    return sample;
}

SplatSource::Sample SplatSource::sampleRound(const Surface& surface, Random& random) const {
    Sample sample;
    const Point way = random.onSphere();
    const Point half = surface.u;
    const bool leaf = surface.material == Material::leaf;
    const double lump =
        noise(2.1 * way.x + surface.origin.x, 2.1 * way.y + 1.3 * way.z + surface.origin.y, 5);
    const double depth = random.uniform();
    const double reach = leaf ? (0.82 + 0.3 * lump) * (1.0 - 0.3 * depth * depth) : 1.0;
    sample.position = surface.origin + way * half * reach;
    sample.normal = normalised(way * Point{1.0 / half.x, 1.0 / half.y, 1.0 / half.z});
    const double sun = leaf ? 0.75 + 0.5 * (lump - 0.5) : 1.0;
    const double openness = leaf ? clamp(0.75 + 0.35 * way.z, 0.35, 1.1) * (1.0 - 0.35 * depth * depth) : 1.0;
    const double speckle = leaf ? 0.75 + 0.5 * random.uniform() : 1.0;
    sample.colour = lit(surface.colour * speckle, sample.normal, sun, openness);
    if (leaf) {
        sample.normal = normalised(sample.normal + random.onSphere() * 0.9);
    }
    sample.gloss = glossOf(surface.material);
    sample.spacing = std::sqrt(1.0 / (density_ * surface.weight));
    return sample;
}

SplatSource::Sample SplatSource::sampleTube(const Surface& surface, Random& random) const {
    Sample sample;
    const Point way = random.onCircle();
    double t = random.uniform();
    if (surface.u.y < 0.3 * surface.u.x) {
        t = 1.0 - std::sqrt(t); // a cone has more of its area at the foot
    }
    const bool leaf = surface.material == Material::leaf;
    // A fir has tiers of branches that become narrower upwards.
    const double tier = 6.0 * t - std::floor(6.0 * t);
    const double radius = (surface.u.x + (surface.u.y - surface.u.x) * t) * (leaf ? 1.1 - 0.5 * tier : 1.0);
    sample.position = surface.origin + way * radius + Point{0.0, 0.0, surface.v.z * t};
    const double tilt = (surface.u.x - surface.u.y) / surface.v.z;
    sample.normal = normalised({way.x, way.y, tilt});
    const double speckle = 0.75 + 0.5 * random.uniform();
    sample.colour = lit(surface.colour * speckle, sample.normal, 0.9, leaf ? 1.0 - 0.45 * tier : 0.8);
    if (leaf) {
        sample.normal = normalised(sample.normal + random.onSphere() * 0.8);
    }
    sample.gloss = glossOf(surface.material);
    // On a thin pole the spacing by area would give discs wider than the pole.
    sample.spacing = std::min(std::sqrt(1.0 / (density_ * surface.weight)), 2.0 * std::max(radius, 0.05));
    return sample;
}

void SplatSource::writePosition(const Sample& sample, std::uint64_t index, Random& random,
                                float* record) const {
    const bool corner = index < 2;
    const Point off = sample.normal * (corner ? 0.0 : 0.06 * sample.spacing * random.normal());
    const Point p =
        (sample.position + off) * metre_ + Point{options_.centre.x, options_.centre.y, options_.centre.z};
    const float x = static_cast<float>(p.x);
    const float y = static_cast<float>(p.y);
    record[0] = std::clamp(x, low_[0], high_[0]);
    record[1] = std::clamp(y, low_[1], high_[1]);
    record[2] = static_cast<float>(p.z);
    for (int axis = 0; axis < 3; ++axis) {
        // The bounds in the header have digits down to a nanometre, so smaller coordinates become zero.
        if (std::fabs(record[axis]) < nanometre) {
            record[axis] = 0.0f;
        }
    }
    record[3] = options_.normals ? static_cast<float>(sample.normal.x) : 0.0f;
    record[4] = options_.normals ? static_cast<float>(sample.normal.y) : 0.0f;
    record[5] = options_.normals ? static_cast<float>(sample.normal.z) : 0.0f;
}

void SplatSource::writeShape(const Sample& sample, bool floater, Random& random, float* shape) const {
    // Opacity as a logit: most splats of a surface are nearly opaque, some are faint, floaters are fainter.
    const double kind = random.uniform();
    const double spread = random.normal();
    const double logit =
        floater ? -3.2 + 0.8 * spread : (kind < 0.86 ? 3.4 + 1.6 * spread : -0.8 + 1.5 * spread);
    shape[0] = static_cast<float>(logit);

    // Scales as natural logarithms of metres: a flat disc, two wide axes and one thin, in any order of axes.
    const double wide = naturalLog(sample.spacing * metre_ * 0.6) + (floater ? 0.9 : 0.0);
    const double stretch = 0.3 * random.normal();
    const double size = 0.25 * random.normal();
    const double flatness = random.uniform();
    const double thin = -1.4 - 2.6 * flatness + 0.4 * random.normal();
    const std::array<double, 3> logs{wide + size + stretch, wide + size - stretch, wide + size + thin};
    const std::uint32_t turn = random.index(3);

    // The disc's thin axis along the normal, turned at random about it, and the axes exchanged in a circle by
    // the turn x -> y -> z -> x; then any length and sign, as a trainer leaves them.
    const Point angle = random.onCircle();
    Quaternion q = turnFromZ(sample.normal) * Quaternion{angle.x, 0.0, 0.0, angle.y};
    for (std::uint32_t k = 0; k < turn; ++k) {
        q = q * Quaternion{0.5, 0.5, 0.5, 0.5};
    }
    for (std::uint32_t k = 0; k < 3; ++k) {
        shape[1 + k] = static_cast<float>(logs[(k + turn) % 3]);
    }
    const double norm = std::sqrt(q.w * q.w + q.x * q.x + q.y * q.y + q.z * q.z);
    const double wanted = clamp(0.88 + 0.17 * random.normal(), 0.4, 1.6);
    const double factor = random.chance(0.5) ? wanted / norm : -wanted / norm;
    shape[4] = static_cast<float>(q.w * factor);
    shape[5] = static_cast<float>(q.x * factor);
    shape[6] = static_cast<float>(q.y * factor);
    shape[7] = static_cast<float>(q.z * factor);
}

void SplatSource::writeCoefficients(const Sample& sample, Random& random, float* rest) const {
    // The colour depends on the direction by two effects: the reflection of the sun, by the surface's gloss,
    // and random errors of training. The errors decrease with each band and vary between splats.
    constexpr std::array<double, 3> faults{0.045, 0.025, 0.014};
    constexpr std::array<double, 3> reflection{0.16, 0.09, 0.04};
    const double draw = random.uniform();
    const double amount = 0.4 + 0.25 * draw / (1.05 - draw);
    const double cosine = dot(sample.normal, sunDirection);
    const Point mirrored = sample.normal * (2.0 * cosine) - sunDirection;
    const std::array<double, 15> basis = harmonics(mirrored * -1.0);
    for (int k = 0; k < 15; ++k) {
        const std::size_t band = k < 3 ? 0 : (k < 8 ? 1 : 2);
        const double shine =
            cosine > 0.0 ? sample.gloss * reflection[band] * basis[static_cast<std::size_t>(k)] : 0.0;
        const double common = random.normal();
        for (int channel = 0; channel < 3; ++channel) {
            const double own = 0.8 * common + 0.6 * random.normal();
            rest[channel * 15 + k] = static_cast<float>(shine + amount * faults[band] * own);
        }
    }
}

void SplatSource::splat(std::uint64_t index, float* record) const {
    Random random(options_.seed, index);
    const Surface& surface = pick(index, random);
    const bool floater = index > 1 && random.chance(0.012);
    Sample sample;
    switch (surface.shape) {
    case Shape::ground:
        sample = sampleGround(surface, index, random);
        break;
    case Shape::quad:
    case Shape::triangle:
        sample = sampleFlat(surface, random);
        break;
    case Shape::ellipsoid:
        sample = sampleRound(surface, random);
        break;
    case Shape::tube:
        sample = sampleTube(surface, random);
        break;
    }
    if (floater) {
        sample.position = sample.position + sample.normal * (3.0 * sample.spacing * random.uniform());
    }
    writePosition(sample, index, random, record);

    // The zeroth harmonic is the constant 0.28209479, and renderers add one half.
    const std::array<double, 3> colour{sample.colour.x, sample.colour.y, sample.colour.z};
    for (std::size_t channel = 0; channel < 3; ++channel) {
        const double value = colour[channel] + 0.025 * random.normal();
        record[6 + channel] = static_cast<float>((value - 0.5) / 0.28209479177387814);
    }
    if (options_.coefficients) {
        writeCoefficients(sample, random, record + 9);
        writeShape(sample, floater, random, record + 54);
    } else {
        writeShape(sample, floater, random, record + 9);
    }
}

} // namespace scenes
