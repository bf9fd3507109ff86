// The threads that draw, and the share of the whole drawing that is done.
#pragma once

#include "threads/crew.h"

#include <atomic>
#include <cstddef>
#include <functional>
#include <optional>

namespace Tavrin::SplatPicture {

class Crew {
public:
    // Called now and then by the thread that calls run(), with the share of all work that is done, 0 to 1. An
    // exception from it ends the work.
    using Progress = std::function<void(double share)>;
    using Body = std::function<void(unsigned worker, std::size_t item)>;

    // `threads` is at least 1.
    explicit Crew(unsigned threads, Progress progress = {});

    unsigned size() const { return threads_; }

    // From now on run() reports its progress as shares between `from` and `to` of all work. The reported
    // share never decreases.
    void setShares(double from, double to);

    // Calls body(worker, item) once for each item below `items`, with workers numbered below size(), and
    // returns when all have ended. The caller is worker 0. If the system has too few threads, fewer workers
    // do the work. Rethrows the first exception of a body or of the progress function.
    void run(std::size_t items, const Body& body);

    // For a body with a long item: reports progress, and throws when another worker has failed. The caller's
    // thread may call it between two runs, as worker 0; then it reports progress alone.
    void pause(unsigned worker);

private:
    unsigned threads_;
    Progress progress_;
    double from_ = 0.0;
    double to_ = 1.0;
    double reported_ = 0.0;
    std::size_t items_ = 0;
    std::atomic<std::size_t> begun_ = 0;     // of these
    std::optional<SplatThreads::Crew> crew_; // of the last run()
};

} // namespace Tavrin::SplatPicture
