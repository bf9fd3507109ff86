// System functions of the child process: loading the shared object, limits and processor modes. A function
// that the system does not support throws std::runtime_error.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>

namespace child {

struct Library {
    void* handle = nullptr;
    std::int32_t (*convert)(const char*, const char*) = nullptr;

    void load(const std::string& path);
    void unload();
};

// The rounding mode and the handling of subnormals, in one value.
using FloatMode = std::uint64_t;
FloatMode floatMode();
void flushSubnormals();

void keepToOneProcessor();
void reportHardwareThreads(int count);
void limitThreads();
void limitAddressSpace(std::uint64_t bytes);
void limitFreeFiles(int count);
void holdOpen(const std::string& path);
void useOemFileFunctions();
void useUtf8Locale();

// The peak resident memory of the process in bytes; 0 if the system does not tell.
std::uint64_t peakMemory();

// A path as the 8-bit string that the library was given.
std::string narrowed(const std::filesystem::path& path);

} // namespace child
