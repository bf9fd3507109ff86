#include "program/tiles/input_file.h"

#include "program/system/platform.h"

#include <fmt/format.h>

#include <chrono>
#include <filesystem>

namespace Tavrin::SplatProgram {
namespace {

namespace fs = std::filesystem;
using std::chrono::nanoseconds;

std::int64_t since1970(std::chrono::sys_time<nanoseconds> time) {
    return time.time_since_epoch().count();
}

} // namespace

std::optional<InputFile> lookAtInput(const std::string& name) {
    const fs::path path = pathFromText(name);
    std::error_code error;
    InputFile file;
    file.name = name;
    file.path = textFromPath(resolvedPath(fs::absolute(path, error), error));
    if (error || !fs::is_regular_file(path, error)) {
        return std::nullopt;
    }
    file.bytes = fs::file_size(path, error);
    const fs::file_time_type time = error ? fs::file_time_type() : fs::last_write_time(path, error);
    if (error) {
        return std::nullopt;
    }
    file.changed =
        since1970(std::chrono::time_point_cast<nanoseconds>(std::chrono::file_clock::to_sys(time)));
    return file;
}

std::string timeText(std::int64_t nanosecondsSince1970) {
    const std::chrono::sys_time<nanoseconds> time{nanoseconds(nanosecondsSince1970)};
    const auto midnight = std::chrono::floor<std::chrono::days>(time);
    const std::chrono::year_month_day date{midnight};
    const std::chrono::hh_mm_ss<nanoseconds> clock{time - midnight};
    return fmt::format("{:04}-{:02}-{:02}T{:02}:{:02}:{:02}.{:09}Z", static_cast<int>(date.year()),
                       static_cast<unsigned>(date.month()), static_cast<unsigned>(date.day()),
                       clock.hours().count(), clock.minutes().count(), clock.seconds().count(),
                       clock.subseconds().count());
}

std::int64_t timeNow() {
    return since1970(std::chrono::time_point_cast<nanoseconds>(std::chrono::system_clock::now()));
}

} // namespace Tavrin::SplatProgram
