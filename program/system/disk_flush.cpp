#include "program/system/disk_flush.h"

#include "program/system/platform.h"

#include <algorithm>

namespace Tavrin::SplatProgram {

DiskFlush::DiskFlush(std::vector<std::filesystem::path> paths) : paths_(std::move(paths)) {
    for (const std::filesystem::path& path : paths_) {
        std::error_code error;
        const std::uintmax_t size = std::filesystem::file_size(path, error); // an error for a folder
        bytes_ += error ? 0 : size;
    }
    end_ = std::async(std::launch::async, [this] { return run(); });
}

DiskFlush::~DiskFlush() {
    isUnwanted_ = true;
}

bool DiskFlush::waitFor(std::chrono::milliseconds patience) const {
    return end_.wait_for(patience) == std::future_status::ready;
}

double DiskFlush::share() const {
    return bytes_ == 0 ? 0.0 : std::min(1.0, static_cast<double>(done_.load()) / static_cast<double>(bytes_));
}

FlushEnd DiskFlush::end() {
    return end_.get();
}

FlushEnd DiskFlush::run() {
    for (const std::filesystem::path& path : paths_) {
        const std::error_code error = flushToDisk(path, [this](std::uint64_t bytes) {
            done_ += bytes;
            return !isUnwanted_;
        });
        if (error) {
            return {error, path};
        }
    }
    return {};
}

} // namespace Tavrin::SplatProgram
