// Runs conversions by the built shared object in a separate process.
#pragma once

#include "tests/support/process.h"

#include <cstdint>
#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace support {

// The outcome of one call of plyConvert. With neither a result nor an exception, the process ended inside the
// call.
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
    std::string childFailure; // why a step of the host failed; empty if none did
    bool endReached = false;  // the library was unloaded and the host ran to its end
};

// Collects the steps of a host (tests/blackbox/child_main.cpp lists them) and runs it.
class Host {
public:
    // The job file and the output of the process go to a new folder in `scratch`: "host" and a number.
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

// The files that a finished conversion left in the folder.
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

// The text after "key": on its line of the meta document, without the final comma. Empty if there is no such
// key.
std::string metaValue(const std::string& meta, const std::string& key);

} // namespace support
