#include "picture/crew.h"

#include <algorithm>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

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
    if (stopped_.load(std::memory_order_relaxed)) {
        throw Stopped();
    }
    if (worker == 0 && progress_) {
        const auto done = static_cast<double>(std::min(items_, next_.load(std::memory_order_relaxed)));
        const double share =
            from_ + (to_ - from_) * done / static_cast<double>(std::max<std::size_t>(items_, 1));
        reported_ = std::max(reported_, share);
        progress_(reported_);
    }
}

void Crew::work(unsigned worker, const Body& body) noexcept {
    try {
        for (std::size_t item = next_++; item < items_; item = next_++) {
            pause(worker);
            body(worker, item);
        }
    } catch (const Stopped&) { // the failure is another worker's
    } catch (...) {
        const std::lock_guard lock(mutex_);
        if (!stopped_.exchange(true)) {
            failure_ = std::current_exception();
        }
    }
}

void Crew::run(std::size_t items, const Body& body) {
    items_ = items;
    next_ = 0;
    std::vector<std::thread> others;
    try {
        for (unsigned worker = 1; worker < std::min<std::size_t>(threads_, items); ++worker) {
            others.emplace_back([this, worker, &body] { work(worker, body); });
        }
    } catch (const std::system_error&) { // fewer threads do the work
    }
    work(0, body);
    for (std::thread& other : others) {
        other.join();
    }
    stopped_ = false;
    if (failure_) {
        std::rethrow_exception(std::exchange(failure_, nullptr));
    }
}

} // namespace Tavrin::SplatPicture
