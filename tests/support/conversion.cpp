#include "tests/support/conversion.h"

#include "tests/support/files.h"

#include <atomic>
#include <sstream>
#include <stdexcept>

namespace support {

namespace fs = std::filesystem;

namespace {

void applyLine(HostReport& report, const std::string& key, const std::string& value) {
    if (key == "call") {
        report.calls.emplace_back().hardwareThreads = static_cast<unsigned>(std::stoul(value));
        return;
    }
    if (key == "child-failed") {
        report.childFailure = value;
        return;
    }
    if (key == "end") {
        report.endReached = true;
        return;
    }
    CallReport& call = report.calls.back();
    if (key == "result") {
        call.result = std::stoi(value);
    } else if (key == "exception") {
        call.exception = value;
    } else if (key == "what") {
        call.what = value;
    } else if (key == "category") {
        call.category = value;
    } else if (key == "code") {
        call.code = std::stoi(value);
    } else if (key == "path1") {
        call.path1 = value;
    } else if (key == "path2") {
        call.path2 = value;
    } else if (key == "peak-memory") {
        call.peakMemory = std::stoull(value);
    } else if (key == "float-mode") {
        call.floatModeKept = value == "kept";
    } else if (key == "locale") {
        call.localeKept = value == "kept";
    }
}

} // namespace

Host::Host(fs::path scratch) : scratch_(std::move(scratch)) {
    step("library", pathBytes(PLYCONVERT_LIBRARY));
}

Host& Host::step(const std::string& name, const std::string& value) {
    steps_ += name + (value.empty() ? "" : " " + value) + '\n';
    return *this;
}

Host& Host::convert(const std::string& input, const std::string& output) {
    return step("input", input).step("output", output).step("convert");
}

Host& Host::convert(const fs::path& input, const fs::path& output) {
    return convert(pathBytes(input), pathBytes(output));
}

Host& Host::environment(const std::string& name, const std::string& value) {
    environment_[name] = value;
    return *this;
}

HostReport Host::run() {
    static std::atomic<int> number{0};
    const fs::path folder = scratch_ / ("host" + std::to_string(number++));
    fs::create_directories(folder);
    const fs::path job = folder / "job";
    writeFile(job, steps_);
    HostReport report;
    report.process = runProcess({{BLACKBOX_CHILD, textOf(job)}, environment_, folder});
    std::istringstream lines(readFile(folder / "job.report"));
    for (std::string line; std::getline(lines, line);) {
        const std::size_t blank = line.find(' ');
        applyLine(report, line.substr(0, blank), line.substr(blank + 1));
    }
    return report;
}

HostReport convertOnce(const fs::path& scratch, const fs::path& input, const fs::path& output) {
    return Host(scratch).convert(input, output).run();
}

DatasetFiles readDataset(const fs::path& folder) {
    DatasetFiles files;
    files.data = readFile(folder / "data.bin");
    files.index = readFile(folder / "index.bin");
    files.meta = withPlainLineEnds(readFile(folder / "converted_from_ply.ytr"));
    files.log = withPlainLineEnds(readFile(folder / "log.txt"));
    files.hasCoefficients = fs::exists(folder / "shcoef.bin");
    if (files.hasCoefficients) {
        files.coefficients = readFile(folder / "shcoef.bin");
    }
    return files;
}

std::string withoutGuid(const std::string& meta) {
    constexpr std::size_t digits = 32;
    const std::string before = "\n\t\"guid\": \"";
    const std::size_t start = meta.find(before) + before.size();
    const std::string guid = meta.substr(std::min(start, meta.size()), digits);
    if (meta.find(before) == meta.npos || guid.find_first_not_of("0123456789abcdef") != guid.npos ||
        meta.compare(start + digits, 3, "\",\n") != 0) {
        throw std::runtime_error("the meta document holds no guid:\n" + meta);
    }
    std::string blanked = meta;
    blanked.replace(start, digits, digits, '?');
    return blanked;
}

std::string metaValue(const std::string& meta, const std::string& key) {
    const std::string before = "\n\t\"" + key + "\": ";
    const std::size_t at = meta.find(before);
    if (at == meta.npos) {
        return {};
    }
    std::string value = meta.substr(at + before.size(), meta.find('\n', at + 1) - at - before.size());
    if (value.ends_with(',')) {
        value.pop_back();
    }
    return value;
}

} // namespace support
