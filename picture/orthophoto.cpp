#include "picture/orthophoto.h"

#include "picture/layer.h"

#include <algorithm>
#include <atomic>
#include <limits>

namespace Tavrin::SplatPicture {
namespace {

namespace Reader = SplatReader;

constexpr float mostAlpha = 1.0f; // an opaque splat lets nothing through

// The position of a splat in the order of covers().
struct Place {
    double depth = -std::numeric_limits<double>::infinity();
    std::uint64_t number = 0;

    bool operator<(const Place& other) const {
        return depth < other.depth || (depth == other.depth && number < other.number);
    }
};

Place placeOf(const Footprint& footprint) {
    return {footprint.depth, footprint.number};
}

// Draws the picture stripe by stripe. If more splats reach into a stripe than the memory holds, the stripe is
// drawn in slabs: first the topmost splats, as many as fit, then the next ones.
class Drawer {
public:
    Drawer(const Survey& survey, const Orthophoto& picture, Crew& crew);

    bool draw(Sink& sink);

private:
    void drawStripe();
    // Collects splats in the order of covers(), starting at `from`. True if they are the last ones. Otherwise
    // `to` is the first one for the next slab.
    bool collect(const std::vector<std::size_t>& parts, const Place& from, Place& to);
    void collectPart(unsigned worker, const Part& part, const Place& from, const Place* to);
    bool reachesStripe(const Reader::Dataset& dataset, const Reader::Record& record) const;
    bool footprintOf(const Reader::Dataset& dataset, const Reader::Record& record,
                     Footprint& footprint) const;
    void colour(unsigned worker, const Part& part, std::vector<Footprint>& found);
    bool meetsStripe(const Box& box) const;

    const Survey& survey_;
    const Orthophoto& picture_;
    Crew& crew_;
    std::uint64_t rowBytes_;
    Canvas canvas_;
    Layer layer_;
    std::size_t capacity_; // footprints
    std::vector<Footprint> footprints_;
    std::atomic<std::size_t> count_ = 0; // of footprints_
    std::vector<RecordFiles> files_;
    std::vector<std::vector<Footprint>> found_; // found by each worker in its current part
    std::array<double, 15> basis_ = harmonics({0.0, 0.0, -1.0});
    double mostReach_ = reachOf(1.0); // standard deviations
    double blurringMargin_ = blurringMargin();
    int top_ = 0; // of the stripe
    int rows_ = 0;
    double share_ = 0.0; // share of the work that one stripe makes up
    bool isDrawn_ = false;
};

constexpr std::size_t mostPairs = std::size_t{8} << 20;

// The number of footprints for the memory that canvas, stripe and pairs leave; at least four parts.
std::size_t capacityOf(const Orthophoto& picture) {
    const std::uint64_t pixels = std::uint64_t{stripeRows} * static_cast<std::uint64_t>(picture.grid.width);
    const std::uint64_t rest = pixels * 20 + mostPairs * sizeof(std::uint32_t);
    const std::uint64_t left = picture.memory > rest ? picture.memory - rest : 0;
    return std::max<std::uint64_t>(left / Layer::footprintBytes, 4 * Part::most);
}

Drawer::Drawer(const Survey& survey, const Orthophoto& picture, Crew& crew)
    : survey_(survey), picture_(picture), crew_(crew),
      rowBytes_(4 * static_cast<std::uint64_t>(picture.grid.width)),
      canvas_(picture.grid.width, std::min(stripeRows, picture.grid.height), mostAlpha),
      layer_(canvas_, mostPairs), capacity_(capacityOf(picture)), found_(crew.size()) {
    // Reserved once, so it is never copied; the system maps pages when they are touched.
    footprints_.reserve(capacity_);
    for (unsigned worker = 0; worker < crew.size(); ++worker) {
        files_.emplace_back(*survey.datasets);
    }
    const int stripes = (picture.grid.height + stripeRows - 1) / stripeRows;
    share_ = (1.0 - surveyShare) / stripes;
}

bool Drawer::draw(Sink& sink) {
    const PixelGrid& grid = picture_.grid;
    std::vector<std::uint8_t> stripe(rowBytes_ *
                                     static_cast<std::uint64_t>(std::min(stripeRows, grid.height)));
    for (top_ = 0; top_ < grid.height; top_ += stripeRows) {
        rows_ = std::min(stripeRows, grid.height - top_);
        const auto strips = static_cast<std::size_t>(canvas_.stripCount());
        crew_.run(strips,
                  [this](unsigned, std::size_t strip) { canvas_.clear(static_cast<int>(strip), top_); });
        const double begun = surveyShare + share_ * (top_ / stripeRows);
        crew_.setShares(begun, begun + 0.9 * share_);
        drawStripe();
        crew_.setShares(begun + 0.9 * share_, begun + share_);
        crew_.run(strips, [&](unsigned, std::size_t strip) {
            canvas_.store(static_cast<int>(strip), rows_, picture_.background, stripe.data());
        });
        sink.write(crew_, stripe.data(), rows_);
    }
    return isDrawn_;
}

bool Drawer::meetsStripe(const Box& box) const {
    if (box.isEmpty()) {
        return false;
    }
    const PixelGrid& grid = picture_.grid;
    const double margin = blurringMargin() + 1.0; // one pixel for rounding
    const double left = (box.minX - grid.left()) / grid.pixel - margin;
    const double right = (box.maxX - grid.left()) / grid.pixel + margin;
    const double upper = (grid.top() - box.maxY) / grid.pixel - margin;
    const double lower = (grid.top() - box.minY) / grid.pixel + margin;
    return left < grid.width && right > 0.0 && upper < top_ + rows_ && lower > top_;
}

void Drawer::drawStripe() {
    std::vector<std::size_t> parts;
    for (std::size_t i = 0; i < survey_.parts.size(); ++i) {
        if (meetsStripe(survey_.parts[i].box)) {
            parts.push_back(i);
        }
    }
    Place from;
    for (bool isLast = parts.empty(); !isLast;) {
        Place to;
        isLast = collect(parts, from, to);
        isDrawn_ = isDrawn_ || count_ > 0;
        layer_.blend(footprints_, count_, crew_);
        from = to;
    }
}

bool Drawer::collect(const std::vector<std::size_t>& parts, const Place& from, Place& to) {
    const auto before = [](const Footprint& one, const Footprint& other) { return covers(one, other); };
    bool isCut = false;
    count_ = 0;
    for (std::size_t next = 0; next < parts.size();) {
        // As many parts as fit even if all of their splats are found.
        std::size_t room = count_;
        std::size_t end = next;
        while (end < parts.size() && room + survey_.parts[parts[end]].count <= capacity_) {
            room += survey_.parts[parts[end++]].count;
        }
        if (end < parts.size() && room - count_ < capacity_ / 8) { // leave the lower half to the next slab
            const auto middle = footprints_.begin() + static_cast<std::ptrdiff_t>(count_ / 2);
            std::nth_element(footprints_.begin(), middle,
                             footprints_.begin() + static_cast<std::ptrdiff_t>(count_.load()), before);
            to = placeOf(*middle);
            isCut = true;
            count_ = count_ / 2;
            continue;
        }
        footprints_.resize(std::max(footprints_.size(), room));
        crew_.run(end - next, [&](unsigned worker, std::size_t item) {
            collectPart(worker, survey_.parts[parts[next + item]], from, isCut ? &to : nullptr);
        });
        next = end;
    }
    return !isCut;
}

void Drawer::collectPart(unsigned worker, const Part& part, const Place& from, const Place* to) {
    const Reader::Dataset& dataset = (*survey_.datasets)[part.dataset];
    const std::byte* data = files_[worker].data(part.dataset, part.first, part.count);
    std::vector<Footprint>& found = found_[worker];
    found.clear();
    Footprint footprint;
    for (std::uint32_t i = 0; i < part.count; ++i, data += Reader::Format::recordSize) {
        const Reader::Record record = Reader::loadRecord(data);
        // The cheapest test first, since most splats lie in other slabs or stripes.
        const Place place = {-(record.position[2] + dataset.meta().offset[2]),
                             survey_.firstNumbers[part.dataset] + part.first + i};
        if (place < from || (to != nullptr && !(place < *to)) || !reachesStripe(dataset, record)) {
            continue;
        }
        footprint.number = place.number;
        if (footprintOf(dataset, record, footprint)) {
            found.push_back(footprint);
        }
    }
    colour(worker, part, found);
    const std::size_t at = count_.fetch_add(found.size());
    std::copy(found.begin(), found.end(), footprints_.begin() + static_cast<std::ptrdiff_t>(at));
}

// False when the splat cannot reach into the stripe, whatever its rotation.
bool Drawer::reachesStripe(const Reader::Dataset& dataset, const Reader::Record& record) const {
    const PixelGrid& grid = picture_.grid;
    const Reader::Dequantiser& values = dataset.dequantiser();
    const double largest = std::max({values.scale(0, record.scale[0]), values.scale(1, record.scale[1]),
                                     values.scale(2, record.scale[2])});
    const double most = mostReach_ * largest / grid.pixel + blurringMargin_ + 1.0; // a pixel for rounding
    const double y = (grid.top() - (record.position[1] + dataset.meta().offset[1])) / grid.pixel;
    return y + most > top_ && y - most < top_ + rows_;
}

// False when the splat does not reach into the stripe.
bool Drawer::footprintOf(const Reader::Dataset& dataset, const Reader::Record& record,
                         Footprint& footprint) const {
    const PixelGrid& grid = picture_.grid;
    const Point& offset = dataset.meta().offset;
    const Reader::Splat splat = dataset.dequantiser().splat(record);
    View view;
    DownwardCamera(grid.left(), grid.top(), grid.pixel)
        .see({record.position[0] + offset[0], record.position[1] + offset[1], record.position[2] + offset[2]},
             view);
    if (!project(splat, view, footprint)) {
        return false;
    }
    for (std::size_t channel = 0; channel < 3; ++channel) {
        footprint.colour[channel] = static_cast<float>(splat.colour[channel]);
    }
    return footprint.x + footprint.reachX > 0.0 && footprint.x - footprint.reachX < grid.width &&
           footprint.y + footprint.reachY > top_ && footprint.y - footprint.reachY < top_ + rows_;
}

// Adds the coefficients for the downward direction. Most functions of the basis are 0 there, and their
// coefficients are not unpacked.
void Drawer::colour(unsigned worker, const Part& part, std::vector<Footprint>& found) {
    const Reader::Dataset& dataset = (*survey_.datasets)[part.dataset];
    const std::uint32_t size = dataset.coefficientSize();
    if (size == 0 || found.empty()) {
        return;
    }
    const std::uint64_t base = survey_.firstNumbers[part.dataset];
    const std::uint64_t first = found.front().number - base;
    const auto count = static_cast<std::uint32_t>(found.back().number - base - first + 1);
    const std::byte* const bytes = files_[worker].coefficients(first, count);
    for (Footprint& footprint : found) {
        const std::byte* const record = bytes + (footprint.number - base - first) * size;
        for (std::size_t k = 0; k < basis_.size(); ++k) {
            if (basis_[k] == 0.0) {
                continue;
            }
            const Point values = dataset.dequantiser().coefficient(record, k);
            for (std::size_t channel = 0; channel < 3; ++channel) {
                footprint.colour[channel] += static_cast<float>(basis_[k] * values[channel]);
            }
        }
        for (float& channel : footprint.colour) {
            channel = channel > 0.0f ? channel : 0.0f; // also 0 for NaN
        }
    }
}

} // namespace

bool drawOrthophoto(const Survey& survey, const Orthophoto& picture, Crew& crew, Sink& sink) {
    return Drawer(survey, picture, crew).draw(sink);
}

} // namespace Tavrin::SplatPicture
