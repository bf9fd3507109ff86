#include "program/system/apart.h"

#include <atomic>
#include <chrono>
#include <future>
#include <memory>
#include <optional>
#include <system_error>
#include <thread>

namespace Tavrin::SplatProgram {
namespace {

std::atomic<bool> leftBehind = false;

} // namespace

bool runApart(std::function<void()> work, const std::function<bool()>& isUnwanted) {
    using Clock = std::chrono::steady_clock;
    constexpr std::chrono::milliseconds look(10);
    constexpr std::chrono::milliseconds patience(100);
    const auto task = std::make_shared<std::packaged_task<void()>>(std::move(work));
    std::future<void> end = task->get_future();
    std::thread thread;
    try {
        thread = std::thread([task] { (*task)(); });
    } catch (const std::system_error&) {
        (*task)();
    }
    std::optional<Clock::time_point> asked;
    while (end.wait_for(look) != std::future_status::ready) {
        if (!asked && isUnwanted()) {
            asked = Clock::now();
        }
        if (asked && Clock::now() - *asked >= patience) {
            leftBehind = true;
            thread.detach();
            return false;
        }
    }
    if (thread.joinable()) {
        thread.join();
    }
    end.get();
    return true;
}

bool isWorkLeftBehind() {
    return leftBehind;
}

} // namespace Tavrin::SplatProgram
