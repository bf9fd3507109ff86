#include "scenes/town.h"

#include <algorithm>

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
    : sizeX(width), sizeY(depth), seed(townSeed), random(townSeed, 0x746f776eU),
      columns(std::max(1, static_cast<int>(width / blockLength + 0.5))),
      rows(std::max(1, static_cast<int>(depth / blockDepth + 0.5))), pitchX(width / columns),
      pitchY(depth / rows),
      lotsInRow(std::max(1, static_cast<int>((pitchX - 2.0 * pavementEnd) / lotWidth + 0.3))),
      texelsX(static_cast<int>(width / texel) + 1), texelsY(static_cast<int>(depth / texel) + 1),
      sun(static_cast<std::size_t>(texelsX) * static_cast<std::size_t>(texelsY), std::uint8_t{255}),
      covered(sun.size(), std::uint8_t{0}) {
    Surface ground;
    ground.shape = Shape::Ground;
    ground.material = Material::Ground;
    ground.area = sizeX * sizeY;
    parts.push_back(ground);
    layOut();
}

double Town::heightAt(double x, double y) const {
    return 4.5 * noise(x / 150.0 + 7.3, y / 150.0 + 2.1, seed) + 0.7 * noise(x / 37.0, y / 37.0, seed + 1);
}

Vec Town::normalAt(double x, double y) const {
    constexpr double step = 0.5;
    const double h = heightAt(x, y);
    return normalised({(h - heightAt(x + step, y)) / step, (h - heightAt(x, y + step)) / step, 1.0});
}

void Town::layOut() {
    const int churchColumn = columns / 2;
    const int churchRow = rows / 2;
    const bool large = columns * rows >= 6;
    for (int row = 0; row < rows; ++row) {
        for (int column = 0; column < columns; ++column) {
            Block block;
            block.firstLot = static_cast<std::uint32_t>(lots.size());
            if (large && column == churchColumn && row == churchRow) {
                block.use = Use::Church;
            } else if (large && ((column == 0 && row == rows - 1) || random.chance(0.06))) {
                block.use = Use::Park;
            }
            blocks.push_back(block);
            layOutBlock(column, row);
            layOutStreet(column, row);
        }
    }
}

void Town::layOutBlock(int column, int row) {
    const double x0 = -0.5 * sizeX + column * pitchX + pavementEnd;
    const double x1 = -0.5 * sizeX + (column + 1) * pitchX - pavementEnd;
    const double y0 = -0.5 * sizeY + row * pitchY + pavementEnd;
    const double y1 = -0.5 * sizeY + (row + 1) * pitchY - pavementEnd;
    const double middle = 0.5 * (y0 + y1);
    if (blocks.back().use == Use::Park) {
        layOutPark(x0, y0, x1, y1);
        return;
    }
    if (blocks.back().use == Use::Church) {
        addChurch(0.5 * (x0 + x1), middle);
        for (int k = 0; k < 10; ++k) {
            addTree(x0 + 3.0 + (x1 - x0 - 6.0) * k / 9.0, k % 2 == 0 ? y0 + 3.0 : y1 - 3.0, 0.9);
        }
        return;
    }
    const double step = (x1 - x0) / lotsInRow;
    for (int k = 0; k < 2 * lotsInRow; ++k) {
        const bool back = k >= lotsInRow;
        const int place = back ? k - lotsInRow : k;
        Lot lot;
        lot.x0 = x0 + place * step;
        lot.x1 = lot.x0 + step;
        lot.y0 = back ? middle : y0;
        lot.y1 = back ? y1 : middle;
        lot.facing = back ? 1.0 : -1.0;
        layOutLot(lot);
        lots.push_back(lot);
    }
}

void Town::layOutLot(Lot& lot) {
    const double width = lot.x1 - lot.x0;
    lot.driveX = random.chance(0.5) ? lot.x0 + 2.2 : lot.x1 - 2.2;
    lot.doorX = 0.5 * (lot.x0 + lot.x1);
    addHouse(lot);
    if (random.chance(0.6)) {
        const double y = lot.facing < 0.0 ? lot.y0 + 3.6 : lot.y1 - 3.6;
        addCar(lot.driveX, y, {0.0, lot.facing, 0.0});
    }
    const double behind = lot.facing < 0.0 ? lot.y1 : lot.y0;
    addHedge(lot.x0, lot.y0 + 1.0, lot.x0, lot.y1);
    addHedge(lot.x0, behind, lot.x1, behind);
    const int trees = 1 + static_cast<int>(random.index(3));
    for (int k = 0; k < trees; ++k) {
        // One draw a statement: the order in which arguments are evaluated is the compiler's.
        const double x = lot.x0 + random.uniform(0.15, 0.85) * width;
        const double y = behind + lot.facing * random.uniform(2.5, 5.5);
        addTree(x, y, random.uniform(0.5, 1.1));
    }
}

void Town::layOutPark(double x0, double y0, double x1, double y1) {
    const Vec centre{0.5 * (x0 + x1), 0.5 * (y0 + y1), 0.0};
    const int trees = static_cast<int>((x1 - x0) * (y1 - y0) / 55.0);
    for (int k = 0; k < trees; ++k) {
        const double x = random.uniform(x0 + 2.0, x1 - 2.0);
        const double y = random.uniform(y0 + 2.0, y1 - 2.0);
        const double away =
            squared((x - centre.x) / (0.32 * (x1 - x0))) + squared((y - centre.y) / (0.32 * (y1 - y0)));
        if (away > 1.0) {
            addTree(x, y, random.uniform(0.8, 1.5));
        }
    }
    for (int k = 0; k < 4; ++k) {
        addLamp(centre.x + (k % 2 == 0 ? -0.3 : 0.3) * (x1 - x0),
                centre.y + (k < 2 ? -0.3 : 0.3) * (y1 - y0));
    }
}

// Lamps, parked cars and trees along the two streets below and to the left of a block.
void Town::layOutStreet(int column, int row) {
    const double x0 = -0.5 * sizeX + column * pitchX;
    const double y0 = -0.5 * sizeY + row * pitchY;
    for (double along = 9.0; along < pitchX - 8.0; along += 18.0) {
        addLamp(x0 + along, y0 + streetHalf + 0.3);
        if (random.chance(0.55)) {
            addCar(x0 + along + random.uniform(3.0, 9.0), y0 + streetHalf - 1.2, {1.0, 0.0, 0.0});
        }
        if (row > 0 && random.chance(0.35)) {
            addCar(x0 + along + random.uniform(3.0, 9.0), y0 - streetHalf + 1.2, {-1.0, 0.0, 0.0});
        }
    }
    for (double along = 8.0; along < pitchY - 7.0; along += 12.0) {
        addTree(x0 + pavementEnd - 0.7, y0 + along, random.uniform(0.55, 0.75));
        if (column > 0 && random.chance(0.3)) {
            addCar(x0 - streetHalf + 1.2, y0 + along + random.uniform(2.0, 6.0), {0.0, 1.0, 0.0});
        }
    }
}

const Town::Block& Town::blockAt(double x, double y, double& localX, double& localY) const {
    const int column = std::clamp(static_cast<int>((x + 0.5 * sizeX) / pitchX), 0, columns - 1);
    const int row = std::clamp(static_cast<int>((y + 0.5 * sizeY) / pitchY), 0, rows - 1);
    localX = clamp(x + 0.5 * sizeX - column * pitchX, 0.0, pitchX);
    localY = clamp(y + 0.5 * sizeY - row * pitchY, 0.0, pitchY);
    return blocks[static_cast<std::size_t>(row) * static_cast<std::size_t>(columns) +
                  static_cast<std::size_t>(column)];
}

Ground Town::groundAt(double x, double y) const {
    double localX = 0.0;
    double localY = 0.0;
    const Block& block = blockAt(x, y, localX, localY);
    const double toX = toStreet(localX, pitchX);
    const double toY = toStreet(localY, pitchY);
    const double grain = noise(x * 1.7, y * 1.7, seed + 2);
    if (toX < streetHalf || toY < streetHalf) {
        const bool crossing = toX < streetHalf && toY < streetHalf;
        const double across = std::min(toX, toY);
        const double along = toX < toY ? localY : localX;
        const bool dash = along - 6.0 * std::floor(along / 6.0) < 3.0;
        // Striped crossings for walkers lie where a street meets the pavement of the one across.
        const double approach = std::max(toX, toY) - streetHalf;
        const bool stripe = across - 1.2 * std::floor(across / 1.2) < 0.6;
        if (!crossing &&
            ((approach > 0.3 && approach < 2.6 && stripe) || (approach > 3.0 && across < 0.18 && dash))) {
            return {Vec{0.86, 0.86, 0.84} * (0.9 + 0.1 * grain), 0.1, false};
        }
        return {Vec{0.27, 0.27, 0.29} * (0.85 + 0.3 * grain), 0.15, false};
    }
    if (toX < pavementEnd || toY < pavementEnd) {
        const bool kerb = std::min(toX, toY) < streetHalf + 0.25;
        return {(kerb ? Vec{0.70, 0.69, 0.66} : Vec{0.56, 0.54, 0.51}) * (0.9 + 0.2 * grain), 0.05, false};
    }
    return lotGround(block, x, y, localX, localY);
}

Ground Town::lotGround(const Block& block, double x, double y, double localX, double localY) const {
    const double patch = noise(x / 4.0, y / 4.0, seed + 3);
    const double blades = noise(x * 4.0, y * 4.0, seed + 4);
    const Vec lawn = mix({0.24, 0.40, 0.13}, {0.45, 0.50, 0.22}, patch) * (0.8 + 0.4 * blades);
    const double fromX = (localX - 0.5 * pitchX) / pitchX;
    const double fromY = (localY - 0.5 * pitchY) / pitchY;
    if (block.use == Use::Park) {
        const double away = squared(fromX / 0.24) + squared(fromY / 0.22) + 0.5 * (patch - 0.5);
        if (away < 0.75) {
            return {mix({0.10, 0.22, 0.26}, {0.22, 0.36, 0.38}, blades), 0.9, false};
        }
        if (away < 0.95) {
            return {Vec{0.70, 0.62, 0.46} * (0.85 + 0.3 * blades), 0.0, false};
        }
        return {lawn, 0.0, true};
    }
    if (block.use == Use::Church) {
        const bool square = std::fabs(fromX) < 0.36 && std::fabs(fromY) < 0.28;
        const double seams = std::floor(x / 1.5) + std::floor(y / 1.5);
        const bool odd = seams - 2.0 * std::floor(seams / 2.0) != 0.0;
        return square ? Ground{(odd ? Vec{0.66, 0.60, 0.52} : Vec{0.58, 0.53, 0.47}) * (0.9 + 0.2 * blades),
                               0.05, false}
                      : Ground{lawn, 0.0, true};
    }
    const double step = (pitchX - 2.0 * pavementEnd) / lotsInRow;
    const int place = std::clamp(static_cast<int>((localX - pavementEnd) / step), 0, lotsInRow - 1);
    const bool back = localY > 0.5 * pitchY;
    const Lot& lot = lots[block.firstLot + static_cast<std::uint32_t>(place + (back ? lotsInRow : 0))];
    const double fromStreet = lot.facing < 0.0 ? y - lot.y0 : lot.y1 - y;
    if (std::fabs(x - lot.driveX) < 1.5 && fromStreet < 0.6 * (lot.y1 - lot.y0)) {
        return {Vec{0.60, 0.55, 0.50} * (0.8 + 0.4 * blades), 0.05, false};
    }
    if (std::fabs(x - lot.doorX) < 0.6 && fromStreet < 0.5 * (lot.y1 - lot.y0)) {
        return {Vec{0.66, 0.58, 0.46} * (0.85 + 0.3 * blades), 0.0, false};
    }
    return {lawn, 0.0, true};
}

double Town::sunAt(double x, double y) const {
    const double fx = clamp((x + 0.5 * sizeX) / texel - 0.5, 0.0, texelsX - 1.0);
    const double fy = clamp((y + 0.5 * sizeY) / texel - 0.5, 0.0, texelsY - 1.0);
    const int i = std::min(static_cast<int>(fx), texelsX - 2);
    const int j = std::min(static_cast<int>(fy), texelsY - 2);
    const auto at = [this](int column, int row) { return sun[texelAt(column, row)] / 255.0; };
    const double u = clamp(fx - i, 0.0, 1.0);
    const double v = clamp(fy - j, 0.0, 1.0);
    const double low = at(i, j) + (at(i + 1, j) - at(i, j)) * u;
    const double high = at(i, j + 1) + (at(i + 1, j + 1) - at(i, j + 1)) * u;
    return low + (high - low) * v;
}

bool Town::coveredAt(double x, double y) const {
    const int i = std::clamp(static_cast<int>((x + 0.5 * sizeX) / texel), 0, texelsX - 1);
    const int j = std::clamp(static_cast<int>((y + 0.5 * sizeY) / texel), 0, texelsY - 1);
    return covered[texelAt(i, j)] != 0;
}

} // namespace scenes
