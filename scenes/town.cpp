#include "scenes/town.h"

#include <algorithm>
#include <cmath>

namespace scenes {

namespace {

constexpr double streetHalf = 3.6;   // metres from the middle of a street to its kerb
constexpr double pavementEnd = 5.4;  // metres from the middle of a street to the lots
constexpr double blockLength = 64.0; // metres that a block has along x, about
constexpr double blockDepth = 54.0;  // and along y
constexpr double lotWidth = 16.0;    // metres, about

double squared(double v) {
    return v * v;
}

// Distance from v to the nearest multiple of pitch, for v in [0, pitch].
double toStreet(double v, double pitch) {
    return std::min(v, pitch - v);
}

} // namespace

Town::Town(double width, double depth, std::uint64_t townSeed)
    : sizeX_(width), sizeY_(depth), seed_(townSeed), random_(townSeed, 0x746f776eu),
      columns_(std::max(1, static_cast<int>(std::lround(width / blockLength)))),
      rows_(std::max(1, static_cast<int>(std::lround(depth / blockDepth)))), pitchX_(width / columns_),
      pitchY_(depth / rows_),
      lotsInRow_(std::max(1, static_cast<int>((pitchX_ - 2.0 * pavementEnd) / lotWidth + 0.3))),
      texelsX_(static_cast<int>(width / texel) + 1), texelsY_(static_cast<int>(depth / texel) + 1),
      sun_(static_cast<std::size_t>(texelsX_) * static_cast<std::size_t>(texelsY_), std::uint8_t{255}),
      covered_(sun_.size(), std::uint8_t{0}) {
    Surface ground;
    ground.shape = Shape::ground;
    ground.material = Material::ground;
    ground.area = sizeX_ * sizeY_;
    parts_.push_back(ground);
    layOut();
}

double Town::heightAt(double x, double y) const {
    return 4.5 * noise(x / 150.0 + 7.3, y / 150.0 + 2.1, seed_) + 0.7 * noise(x / 37.0, y / 37.0, seed_ + 1);
}

Point Town::normalAt(double x, double y) const {
    constexpr double step = 0.5;
    const double h = heightAt(x, y);
    return normalised({(h - heightAt(x + step, y)) / step, (h - heightAt(x, y + step)) / step, 1.0});
}

void Town::layOut() {
    const int churchColumn = columns_ / 2;
    const int churchRow = rows_ / 2;
    const bool large = columns_ * rows_ >= 6;
    for (int row = 0; row < rows_; ++row) {
        for (int column = 0; column < columns_; ++column) {
            Block block;
            block.firstLot = static_cast<std::uint32_t>(lots_.size());
            if (large && column == churchColumn && row == churchRow) {
                block.use = Use::church;
            } else if (large && ((column == 0 && row == rows_ - 1) || random_.chance(0.06))) {
                block.use = Use::park;
            }
            blocks_.push_back(block);
            layOutBlock(column, row);
            layOutStreet(column, row);
        }
    }
}

void Town::layOutBlock(int column, int row) {
    const double x0 = -0.5 * sizeX_ + column * pitchX_ + pavementEnd;
    const double x1 = -0.5 * sizeX_ + (column + 1) * pitchX_ - pavementEnd;
    const double y0 = -0.5 * sizeY_ + row * pitchY_ + pavementEnd;
    const double y1 = -0.5 * sizeY_ + (row + 1) * pitchY_ - pavementEnd;
    const double middle = 0.5 * (y0 + y1);
    if (blocks_.back().use == Use::park) {
        layOutPark(x0, y0, x1, y1);
        return;
    }
    if (blocks_.back().use == Use::church) {
        addChurch(0.5 * (x0 + x1), middle);
        for (int k = 0; k < 10; ++k) {
            addTree(x0 + 3.0 + (x1 - x0 - 6.0) * k / 9.0, k % 2 == 0 ? y0 + 3.0 : y1 - 3.0, 0.9);
        }
        return;
    }
    const double step = (x1 - x0) / lotsInRow_;
    for (int k = 0; k < 2 * lotsInRow_; ++k) {
        const bool back = k >= lotsInRow_;
        const int place = back ? k - lotsInRow_ : k;
        Lot lot;
        lot.x0 = x0 + place * step;
        lot.x1 = lot.x0 + step;
        lot.y0 = back ? middle : y0;
        lot.y1 = back ? y1 : middle;
        lot.facing = back ? 1.0 : -1.0;
        layOutLot(lot);
        lots_.push_back(lot);
    }
}

void Town::layOutLot(Lot& lot) {
    const double width = lot.x1 - lot.x0;
    lot.driveX = random_.chance(0.5) ? lot.x0 + 2.2 : lot.x1 - 2.2;
    lot.doorX = 0.5 * (lot.x0 + lot.x1);
    addHouse(lot);
    if (random_.chance(0.6)) {
        const double y = lot.facing < 0.0 ? lot.y0 + 3.6 : lot.y1 - 3.6;
        addCar(lot.driveX, y, {0.0, lot.facing, 0.0});
    }
    const double behind = lot.facing < 0.0 ? lot.y1 : lot.y0;
    addHedge(lot.x0, lot.y0 + 1.0, lot.x0, lot.y1);
    addHedge(lot.x0, behind, lot.x1, behind);
    const int trees = 1 + static_cast<int>(random_.index(3));
    for (int k = 0; k < trees; ++k) {
        // One draw in each statement, since the order of evaluation of arguments is unspecified.
        const double x = lot.x0 + random_.uniform(0.15, 0.85) * width;
        const double y = behind + lot.facing * random_.uniform(2.5, 5.5);
        addTree(x, y, random_.uniform(0.5, 1.1));
    }
}

void Town::layOutPark(double x0, double y0, double x1, double y1) {
    const Point centre{0.5 * (x0 + x1), 0.5 * (y0 + y1), 0.0};
    const int trees = static_cast<int>((x1 - x0) * (y1 - y0) / 55.0);
    for (int k = 0; k < trees; ++k) {
        const double x = random_.uniform(x0 + 2.0, x1 - 2.0);
        const double y = random_.uniform(y0 + 2.0, y1 - 2.0);
        const double away =
            squared((x - centre.x) / (0.32 * (x1 - x0))) + squared((y - centre.y) / (0.32 * (y1 - y0)));
        if (away > 1.0) {
            addTree(x, y, random_.uniform(0.8, 1.5));
        }
    }
    for (int k = 0; k < 4; ++k) {
        addLamp(centre.x + (k % 2 == 0 ? -0.3 : 0.3) * (x1 - x0),
                centre.y + (k < 2 ? -0.3 : 0.3) * (y1 - y0));
    }
}

// Adds lamps, parked cars and trees along the two streets below and to the left of a block.
void Town::layOutStreet(int column, int row) {
    const double x0 = -0.5 * sizeX_ + column * pitchX_;
    const double y0 = -0.5 * sizeY_ + row * pitchY_;
    for (double along = 9.0; along < pitchX_ - 8.0; along += 18.0) {
        addLamp(x0 + along, y0 + streetHalf + 0.3);
        if (random_.chance(0.55)) {
            addCar(x0 + along + random_.uniform(3.0, 9.0), y0 + streetHalf - 1.2, {1.0, 0.0, 0.0});
        }
        if (row > 0 && random_.chance(0.35)) {
            addCar(x0 + along + random_.uniform(3.0, 9.0), y0 - streetHalf + 1.2, {-1.0, 0.0, 0.0});
        }
    }
    for (double along = 8.0; along < pitchY_ - 7.0; along += 12.0) {
        addTree(x0 + pavementEnd - 0.7, y0 + along, random_.uniform(0.55, 0.75));
        if (column > 0 && random_.chance(0.3)) {
            addCar(x0 - streetHalf + 1.2, y0 + along + random_.uniform(2.0, 6.0), {0.0, 1.0, 0.0});
        }
    }
}

const Town::Block& Town::blockAt(double x, double y, double& localX, double& localY) const {
    const int column = std::clamp(static_cast<int>((x + 0.5 * sizeX_) / pitchX_), 0, columns_ - 1);
    const int row = std::clamp(static_cast<int>((y + 0.5 * sizeY_) / pitchY_), 0, rows_ - 1);
    localX = clamp(x + 0.5 * sizeX_ - column * pitchX_, 0.0, pitchX_);
    localY = clamp(y + 0.5 * sizeY_ - row * pitchY_, 0.0, pitchY_);
    return blocks_[static_cast<std::size_t>(row) * static_cast<std::size_t>(columns_) +
                   static_cast<std::size_t>(column)];
}

Ground Town::groundAt(double x, double y) const {
    double localX = 0.0;
    double localY = 0.0;
    const Block& block = blockAt(x, y, localX, localY);
    const double toX = toStreet(localX, pitchX_);
    const double toY = toStreet(localY, pitchY_);
    const double grain = noise(x * 1.7, y * 1.7, seed_ + 2);
    if (toX < streetHalf || toY < streetHalf) {
        const bool crossing = toX < streetHalf && toY < streetHalf;
        const double across = std::min(toX, toY);
        const double along = toX < toY ? localY : localX;
        const bool dash = along - 6.0 * std::floor(along / 6.0) < 3.0;
        // Zebra crossings lie where a street meets the pavement of the crossing street.
        const double approach = std::max(toX, toY) - streetHalf;
        const bool stripe = across - 1.2 * std::floor(across / 1.2) < 0.6;
        if (!crossing &&
            ((approach > 0.3 && approach < 2.6 && stripe) || (approach > 3.0 && across < 0.18 && dash))) {
            return {Point{0.86, 0.86, 0.84} * (0.9 + 0.1 * grain), 0.1, false};
        }
        return {Point{0.27, 0.27, 0.29} * (0.85 + 0.3 * grain), 0.15, false};
    }
    if (toX < pavementEnd || toY < pavementEnd) {
        const bool kerb = std::min(toX, toY) < streetHalf + 0.25;
        return {(kerb ? Point{0.70, 0.69, 0.66} : Point{0.56, 0.54, 0.51}) * (0.9 + 0.2 * grain), 0.05,
                false};
    }
    return lotGround(block, x, y, localX, localY);
}

Ground Town::lotGround(const Block& block, double x, double y, double localX, double localY) const {
    const double patch = noise(x / 4.0, y / 4.0, seed_ + 3);
    const double blades = noise(x * 4.0, y * 4.0, seed_ + 4);
    const Point lawn = mix({0.24, 0.40, 0.13}, {0.45, 0.50, 0.22}, patch) * (0.8 + 0.4 * blades);
    const double fromX = (localX - 0.5 * pitchX_) / pitchX_;
    const double fromY = (localY - 0.5 * pitchY_) / pitchY_;
    if (block.use == Use::park) {
        const double away = squared(fromX / 0.24) + squared(fromY / 0.22) + 0.5 * (patch - 0.5);
        if (away < 0.75) {
            return {mix({0.10, 0.22, 0.26}, {0.22, 0.36, 0.38}, blades), 0.9, false};
        }
        if (away < 0.95) {
            return {Point{0.70, 0.62, 0.46} * (0.85 + 0.3 * blades), 0.0, false};
        }
        return {lawn, 0.0, true};
    }
    if (block.use == Use::church) {
        const bool square = std::fabs(fromX) < 0.36 && std::fabs(fromY) < 0.28;
        const double seams = std::floor(x / 1.5) + std::floor(y / 1.5);
        const bool odd = seams - 2.0 * std::floor(seams / 2.0) != 0.0;
        return square
                   ? Ground{(odd ? Point{0.66, 0.60, 0.52} : Point{0.58, 0.53, 0.47}) * (0.9 + 0.2 * blades),
                            0.05, false}
                   : Ground{lawn, 0.0, true};
    }
    const double step = (pitchX_ - 2.0 * pavementEnd) / lotsInRow_;
    const int place = std::clamp(static_cast<int>((localX - pavementEnd) / step), 0, lotsInRow_ - 1);
    const bool back = localY > 0.5 * pitchY_;
    const Lot& lot = lots_[block.firstLot + static_cast<std::uint32_t>(place + (back ? lotsInRow_ : 0))];
    const double fromStreet = lot.facing < 0.0 ? y - lot.y0 : lot.y1 - y;
    if (std::fabs(x - lot.driveX) < 1.5 && fromStreet < 0.6 * (lot.y1 - lot.y0)) {
        return {Point{0.60, 0.55, 0.50} * (0.8 + 0.4 * blades), 0.05, false};
    }
    if (std::fabs(x - lot.doorX) < 0.6 && fromStreet < 0.5 * (lot.y1 - lot.y0)) {
        return {Point{0.66, 0.58, 0.46} * (0.85 + 0.3 * blades), 0.0, false};
    }
    return {lawn, 0.0, true};
}

double Town::sunAt(double x, double y) const {
    const double fx = clamp((x + 0.5 * sizeX_) / texel - 0.5, 0.0, texelsX_ - 1.0);
    const double fy = clamp((y + 0.5 * sizeY_) / texel - 0.5, 0.0, texelsY_ - 1.0);
    const int i = std::min(static_cast<int>(fx), texelsX_ - 2);
    const int j = std::min(static_cast<int>(fy), texelsY_ - 2);
    const auto at = [this](int column, int row) { return sun_[texelAt(column, row)] / 255.0; };
    const double u = clamp(fx - i, 0.0, 1.0);
    const double v = clamp(fy - j, 0.0, 1.0);
    const double low = at(i, j) + (at(i + 1, j) - at(i, j)) * u;
    const double high = at(i, j + 1) + (at(i + 1, j + 1) - at(i, j + 1)) * u;
    return low + (high - low) * v;
}

bool Town::coveredAt(double x, double y) const {
    const int i = std::clamp(static_cast<int>((x + 0.5 * sizeX_) / texel), 0, texelsX_ - 1);
    const int j = std::clamp(static_cast<int>((y + 0.5 * sizeY_) / texel), 0, texelsY_ - 1);
    return covered_[texelAt(i, j)] != 0;
}

} // namespace scenes
