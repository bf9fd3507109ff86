// Flushes files to the disk in the background.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <future>
#include <string>
#include <system_error>
#include <vector>

namespace Tavrin::SplatProgram {

// The result of a flush.
struct FlushEnd {
    std::error_code error;      // none when everything is on the disk
    std::filesystem::path path; // the file or folder that failed
};

class DiskFlush {
public:
    // Starts at once, in a thread of its own, and flushes in this order. List a folder after the files in it.
    explicit DiskFlush(std::vector<std::filesystem::path> paths);
    DiskFlush(const DiskFlush&) = delete;
    DiskFlush& operator=(const DiskFlush&) = delete;
    // Stops the flush. The remaining files are left to the system.
    ~DiskFlush();

    // Waits for the end, at most for `patience`. True when the flush has ended.
    bool waitFor(std::chrono::milliseconds patience) const;

    // The share of the bytes of all files that is on the disk, 0 to 1.
    double share() const;

    // Waits for the end and returns the result. To be called once.
    FlushEnd end();

private:
    FlushEnd run();

    std::vector<std::filesystem::path> paths_;
    std::uint64_t bytes_ = 0; // of all files
    std::atomic<std::uint64_t> done_ = 0;
    std::atomic<bool> isUnwanted_ = false;
    std::future<FlushEnd> end_;
};

} // namespace Tavrin::SplatProgram
