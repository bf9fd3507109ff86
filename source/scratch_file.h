// A nameless file for data that a source unpacks, so that its memory stays bounded. The system removes it
// when the process ends, in whatever way.
#pragma once

#include <cstdint>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <system_error>

namespace Tavrin::SplatSource {

// The scratch folder cannot hold what a source unpacks. what() is one line: the folder and the system's
// error.
struct ScratchError : std::runtime_error {
    ScratchError(const std::string& text, const std::error_code& error)
        : std::runtime_error(text), code(error) {}
    std::error_code code; // of the system
};

class ScratchFile {
public:
    // Creates the file in `folder`, which exists. Throws ScratchError.
    explicit ScratchFile(const std::filesystem::path& folder);
    ~ScratchFile();
    ScratchFile(const ScratchFile&) = delete;
    ScratchFile& operator=(const ScratchFile&) = delete;

    // Writes size bytes at `offset`. Throws ScratchError.
    void write(std::uint64_t offset, const void* bytes, std::uint64_t size);

    // Reads size bytes from `offset`, all of which were written. Safe from several threads at once. Throws
    // ScratchError.
    void read(std::uint64_t offset, void* bytes, std::uint64_t size) const;

private:
    std::filesystem::path folder_;
    std::intptr_t handle_; // a descriptor, on Windows a HANDLE
};

} // namespace Tavrin::SplatSource
