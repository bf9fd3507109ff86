#include "picture/layer.h"

#include <algorithm>
#include <cmath>

namespace Tavrin::SplatPicture {

Layer::Layer(Canvas& canvas, std::size_t pairs)
    : canvas_(canvas), mostPairs_(std::max(pairs, static_cast<std::size_t>(canvas.stripCount()))) {}

void Layer::blend(const std::vector<Footprint>& footprints, std::size_t count, Crew& crew) {
    sort(footprints, count, crew);
    for (std::size_t first = 0; first < count;) {
        first = file(footprints, first);
        blendStrips(footprints, crew);
    }
}

// Each thread sorts a piece; then neighbours are merged until one piece is left.
void Layer::sort(const std::vector<Footprint>& footprints, std::size_t count, Crew& crew) {
    const auto before = [&footprints](const Key& one, const Key& other) {
        return one.depth < other.depth ||
               (one.depth == other.depth && footprints[one.index].number < footprints[other.index].number);
    };
    if (keys_.capacity() < count) { // exactly that: otherwise vectors double their capacity
        std::vector<Key>().swap(keys_);
        keys_.reserve(count);
    }
    keys_.resize(count);
    const std::size_t pieces = crew.size();
    const auto edge = [count](std::size_t piece, std::size_t of) { return count * std::min(piece, of) / of; };
    const auto at = [&](std::size_t piece) {
        return keys_.begin() + static_cast<std::ptrdiff_t>(edge(piece, crew.size()));
    };
    crew.run(pieces, [&](unsigned, std::size_t piece) {
        for (std::size_t i = edge(piece, pieces); i < edge(piece + 1, pieces); ++i) {
            keys_[i] = {footprints[i].depth, static_cast<std::uint32_t>(i)};
        }
        std::sort(at(piece), at(piece + 1), before);
    });
    for (std::size_t width = 1; width < pieces; width *= 2) {
        crew.run((pieces + 2 * width - 1) / (2 * width), [&](unsigned, std::size_t pair) {
            const std::size_t first = pair * 2 * width;
            std::inplace_merge(at(first), at(first + width), at(first + 2 * width), before);
        });
    }
}

Layer::Span Layer::spanOf(const Footprint& footprint) const {
    const double last = canvas_.stripCount();
    const double first = (footprint.x - footprint.reachX) / Canvas::stripWidth;
    const double end = (footprint.x + footprint.reachX) / Canvas::stripWidth;
    return {static_cast<int>(std::clamp(std::floor(first), 0.0, last)),
            static_cast<int>(std::clamp(std::floor(end) + 1.0, 0.0, last))};
}

std::size_t Layer::file(const std::vector<Footprint>& footprints, std::size_t first) {
    starts_.assign(static_cast<std::size_t>(canvas_.stripCount()) + 1, 0);
    std::size_t pairs = 0;
    std::size_t end = first;
    for (; end < keys_.size(); ++end) {
        const Span span = spanOf(footprints[keys_[end].index]);
        const auto more = static_cast<std::size_t>(std::max(0, span.end - span.first));
        if (pairs + more > mostPairs_) {
            break;
        }
        pairs += more;
        for (int strip = span.first; strip < span.end; ++strip) {
            ++starts_[static_cast<std::size_t>(strip) + 1];
        }
    }
    for (std::size_t strip = 1; strip < starts_.size(); ++strip) {
        starts_[strip] += starts_[strip - 1];
    }
    strips_.resize(pairs);
    std::vector<std::size_t> next(starts_);
    for (std::size_t i = first; i < end; ++i) {
        const Span span = spanOf(footprints[keys_[i].index]);
        for (int strip = span.first; strip < span.end; ++strip) {
            strips_[next[static_cast<std::size_t>(strip)]++] = keys_[i].index;
        }
    }
    return end;
}

void Layer::blendStrips(const std::vector<Footprint>& footprints, Crew& crew) {
    constexpr std::size_t lookEvery = 512; // footprints between two checks of the remaining light
    crew.run(static_cast<std::size_t>(canvas_.stripCount()), [&](unsigned worker, std::size_t item) {
        const auto strip = static_cast<int>(item);
        for (std::size_t i = starts_[item]; i < starts_[item + 1]; ++i) {
            if ((i - starts_[item]) % lookEvery == 0) {
                crew.pause(worker);
                if (!canvas_.isOpen(strip)) {
                    return;
                }
            }
            canvas_.blend(strip, footprints[strips_[i]]);
        }
    });
}

} // namespace Tavrin::SplatPicture
