#include "program/convert/conversion.h"

#include "plyconvert.h"
#include "program/convert/conversion_stages.h"
#include "program/system/child_process.h"
#include "program/system/exit_status.h"
#include "program/system/interrupt.h"
#include "program/system/platform.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <new>

namespace Tavrin::SplatProgram {
namespace {

// Exit statuses of the process that runs the converter, apart from those that the converter itself gives a
// process (255 and 123) and from a shell's (126, 127).
enum ConverterStatus {
    converterDone = 0,
    converterSawNoSplats = 64,
    converterSawNoFile = 65,
    converterThrew = 66,
    converterRanOutOfMemory = 67,
};

int statusOf(std::int32_t result) {
    switch (result) {
    case PLYCONVERT_DONE:
        return converterDone;
    case PLYCONVERT_NO_INPUT:
        return converterSawNoFile;
    default:
        return converterSawNoSplats;
    }
}

const std::string& lastOr(const std::vector<std::string>& lines, const std::string& otherwise) {
    return lines.empty() ? otherwise : lines.back();
}

// What the process said: the converter's ERROR line stands on its standard output, an exception's text and
// what a runtime library says of an abort on standard error.
std::string saidBy(const ChildProcess& child) {
    for (const std::string& line : child.outputLines()) {
        if (line.starts_with("ERROR(")) {
            return line;
        }
    }
    return lastOr(child.errorLines(), lastOr(child.outputLines(), "it said nothing"));
}

// An allocation that fails in one of the converter's threads ends the process by an abort, whose text names
// it.
bool saysOutOfMemory(const ChildProcess& child) {
    return std::ranges::any_of(child.errorLines(),
                               [](const std::string& line) { return line.find("bad alloc") != line.npos; });
}

[[noreturn]] void failAs(const ChildProcess& child, const std::string& input) {
    const ChildEnd& end = child.end();
    const auto fail = [&](const std::string& what) {
        throw Failure(ExitStatus::conversionFailed, fmt::format("{}: {}", input, what));
    };
    if (end.killer == "SIGKILL") {
        fail("the converter's process was killed: if nobody did, the machine ran out of memory");
    }
    if (end.status == converterRanOutOfMemory || saysOutOfMemory(child)) {
        fail("the converter ran out of memory: close other programs, or cut the scene into smaller files");
    }
    if (!end.killer.empty()) {
        fail(fmt::format("the converter's process was ended by {}: {}", end.killer, saidBy(child)));
    }
    switch (end.status) {
    case converterSawNoSplats:
        throw Failure(ExitStatus::inputRefused,
                      fmt::format("{}: the converter finds no splats declared in it", input));
    case converterSawNoFile:
        throw Failure(ExitStatus::inputRefused, fmt::format("{}: the file has vanished", input));
    case converterThrew:
        fail(fmt::format("the converter failed: {}", saidBy(child)));
        break;
    default:
        fail(fmt::format("the converter ended with status {}: {}", end.status, saidBy(child)));
    }
    std::abort(); // every case has thrown
}

} // namespace

int runConverter(const std::string& input, const std::string& folder) {
    try {
        // The process that started this one knows that both can be named.
        const std::string inputPath = converterPath(pathFromText(input)).value();
        const std::string folderPath = converterPath(pathFromText(folder)).value();
        return statusOf(plyConvert(inputPath.c_str(), folderPath.c_str()));
    } catch (const std::bad_alloc&) {
        return converterRanOutOfMemory;
    } catch (const std::exception& error) {
        fmt::print(stderr, "{}\n", error.what());
        return converterThrew;
    }
}

void convertInChild(const std::string& input, const std::filesystem::path& folder, const Plan* plan,
                    Progress& progress) {
    constexpr std::chrono::milliseconds patience(100);
    ChildProcess child({converterWord, input, textFromPath(folder)});
    ConversionStages stages(folder, plan);
    while (!child.waitFor(patience)) {
        throwIfInterrupted();
        if (progress.shown()) {
            stages.show(child.bytesRead(), progress);
        }
    }
    progress.clear();
    throwIfInterrupted();
    if (!child.end().killer.empty() || child.end().status != converterDone) {
        failAs(child, input);
    }
}

} // namespace Tavrin::SplatProgram
