#include "picture/crew.h"

#include <algorithm>
#include <utility>

namespace Tavrin::SplatPicture {
namespace {

struct Stopped {}; // thrown in a body to leave it when another worker has failed

} // namespace

Crew::Crew(unsigned threads, Progress progress) : threads_(threads), progress_(std::move(progress)) {}

void Crew::setShares(double from, double to) {
    from_ = from;
    to_ = to;
}

void Crew::pause(unsigned worker) {
    if (crew_ && crew_->isStopped()) {
        throw Stopped();
    }
    if (worker == 0 && progress_) {
        const auto done = static_cast<double>(begun_.load(std::memory_order_relaxed));
        const double share =
            from_ + (to_ - from_) * done / static_cast<double>(std::max<std::size_t>(items_, 1));
        reported_ = std::max(reported_, share);
        progress_(reported_);
    }
}

void Crew::run(std::size_t items, const Body& body) {
    items_ = items;
    begun_ = 0;
    crew_.emplace();
    crew_->share(threads_, items, [&](unsigned worker, std::uint64_t item) {
        ++begun_;
        pause(worker);
        body(worker, static_cast<std::size_t>(item));
    });
}

} // namespace Tavrin::SplatPicture
