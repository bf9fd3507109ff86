// Bringing files to the disk itself while the caller does other things.
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

// How a flush ended.
struct FlushEnd {
    std::error_code error;      // none when everything is on the disk
    std::filesystem::path path; // what the error is about
};

class DiskFlush {
public:
    // Begins at once, in a thread of its own and in this order: a folder comes after the files in it.
    explicit DiskFlush(std::vector<std::filesystem::path> paths);
    DiskFlush(const DiskFlush&) = delete;
    DiskFlush& operator=(const DiskFlush&) = delete;
    // Gives up what is not yet on the disk.
    ~DiskFlush();

    // Waits for the end, at most that long. True when it has come.
    bool waitFor(std::chrono::milliseconds patience) const;

    // Of the bytes of all files, 0 to 1.
    double share() const;

    // Waits for the end. Once.
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
