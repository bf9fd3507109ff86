// Conversions by the built shared object in a process of its own.
#pragma once

#include "tests/support/process.h"

#include <cstdint>
#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace support {

// One call of plyConvert as its host saw it. Neither a result nor an exception: the process ended inside it.
struct CallReport {
    unsigned hardwareThreads = 0;
    std::optional<std::int32_t> result;
    std::string exception; // filesystem_error, system_error, invalid_argument, out_of_range, bad_alloc
    std::string what;
    std::string category; // of the error code, for the first two
    int code = 0;
    std::string path1; // for filesystem_error
    std::string path2;
    std::uint64_t peakMemory =
        0; // bytes of resident memory at most until the call returned; 0: not known here
    bool floatModeKept = false;
    bool localeKept = false;
};

struct HostReport {
    ProcessResult process;
    std::vector<CallReport> calls;
    std::string childFailure; // why the host could not do a step; empty when it could
    bool endReached = false;  // the library was unloaded and the host went on to its end
};

// Builds up a host's steps (tests/blackbox/child_main.cpp lists them) and runs it.
class Host {
public:
    // The job and what the process writes go to a folder of their own, "host" and a number, in scratch.
    explicit Host(std::filesystem::path scratch);

    Host& step(const std::string& name, const std::string& value = {});
    Host& convert(const std::string& input, const std::string& output);
    Host& convert(const std::filesystem::path& input, const std::filesystem::path& output);
    Host& environment(const std::string& name, const std::string& value);

    HostReport run();

private:
    std::filesystem::path scratch_;
    std::string steps_;
    std::map<std::string, std::string> environment_;
};

// One conversion by an ordinary host.
HostReport convertOnce(const std::filesystem::path& scratch, const std::filesystem::path& input,
                       const std::filesystem::path& output);

// What a finished conversion left in the folder.
struct DatasetFiles {
    std::string data;
    std::string coefficients;
    std::string index;
    std::string meta; // line ends as LF
    std::string log;  // likewise
    bool hasCoefficients = false;
};
DatasetFiles readDataset(const std::filesystem::path& folder);

// The meta document with the digits of its guid replaced by question marks. Throws std::runtime_error unless
// it holds a guid of 32 lowercase hexadecimal digits on its own line.
std::string withoutGuid(const std::string& meta);

// The text that follows "key": on the meta document's line, without the comma at its end. Empty when there is
// no such key.
std::string metaValue(const std::string& meta, const std::string& key);

} // namespace support
