#include "program/tiles/done_record.h"

#include "plyconvert.h"
#include "program/system/partial_file.h"
#include "program/system/platform.h"
#include "reader/verify.h"

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include <fstream>

namespace Tavrin::SplatProgram {
namespace {

namespace fs = std::filesystem;
using Json = nlohmann::ordered_json;

constexpr int recordVersion = 1;
constexpr std::int64_t millisecond = 1'000'000; // nanoseconds
constexpr std::int64_t second = 1000 * millisecond;

std::string dumped(const Json& json) {
    return json.dump(-1, ' ', false, Json::error_handler_t::replace);
}

// The part of the record that must be equal for a dataset to count as done.
Json makingJson(const Making& making) {
    Json json;
    json["program"] =
        fmt::format("{}.{}.{}", PLYCONVERT_VERSION_MAJOR, PLYCONVERT_VERSION_MINOR, PLYCONVERT_VERSION_PATCH);
    json["inputs"] = Json::array();
    for (const InputFile& input : making.inputs) {
        json["inputs"].push_back(
            {{"path", input.path}, {"bytes", input.bytes}, {"changed", timeText(input.changed)}});
    }
    json["options"] = Json::object();
    for (const auto& [name, word] : making.options) {
        json["options"][name] = word;
    }
    return json;
}

// True if the input was written so shortly before the run that a later write could get the same time.
bool isFresh(const InputFile& input, std::int64_t started) {
    const bool countsSeconds = input.changed % second == 0;
    return input.changed + (countsSeconds ? 2 * second : 20 * millisecond) >= started;
}

bool isFresh(const Making& making) {
    for (const InputFile& input : making.inputs) {
        if (isFresh(input, making.started)) {
            return true;
        }
    }
    return false;
}

Json resultJson(const Summary& summary) {
    return {{"read", summary.read},
            {"written", summary.written},
            {"dropped", summary.ledger.dropped},
            {"leftOut", summary.leftOut},
            {"offset", summary.offset},
            {"largestPositionError", summary.largestError},
            {"cells", summary.cells},
            {"dataBytes", summary.dataBytes},
            {"shcoefBytes", summary.coefficientBytes},
            {"indexBytes", summary.indexBytes},
            {"metaBytes", summary.metaBytes}};
}

Summary summaryFrom(const Json& json) {
    Summary summary;
    summary.read = json.at("read").get<std::uint64_t>();
    summary.written = json.at("written").get<std::uint64_t>();
    summary.ledger.read = summary.read;
    summary.ledger.dropped = json.at("dropped").get<decltype(summary.ledger.dropped)>();
    summary.leftOut = json.at("leftOut").get<std::uint64_t>();
    summary.offset = json.at("offset").get<std::array<double, 3>>();
    summary.largestError = json.at("largestPositionError").get<double>();
    summary.cells = json.at("cells").get<std::uint64_t>();
    summary.dataBytes = json.at("dataBytes").get<std::uint64_t>();
    summary.coefficientBytes = json.at("shcoefBytes").get<std::uint64_t>();
    summary.indexBytes = json.at("indexBytes").get<std::uint64_t>();
    summary.metaBytes = json.at("metaBytes").get<std::uint64_t>();
    return summary;
}

// True if the dataset passes the quick verification and has the guid and the sizes of the record.
bool stands(const fs::path& folder, const DoneTile& done) {
    const SplatReader::VerifyReport report = SplatReader::verifyDataset(folder);
    const Summary& summary = done.summary;
    return report.sound() && report.meta && report.meta->guid == done.guid &&
           report.splatsHeld == summary.written && report.cells == summary.cells &&
           report.dataBytes == summary.dataBytes && report.coefficientBytes == summary.coefficientBytes &&
           report.indexBytes == summary.indexBytes && report.metaBytes == summary.metaBytes;
}

} // namespace

fs::path doneRecordPath(const fs::path& folder) {
    return folder.parent_path() / pathFromText(textFromPath(folder.filename()) + ".done.json");
}

std::optional<DoneTile> findDone(const fs::path& folder, const Making& making, bool isStrict,
                                 bool allowLoss) {
    std::ifstream file(doneRecordPath(folder), std::ios::binary);
    if (!file) {
        return std::nullopt;
    }
    DoneTile done;
    try {
        const Json json = Json::parse(file);
        // Compared as text, since bytes of a path that are not UTF-8 were replaced when the record was
        // written.
        if (json.at("recordVersion") != recordVersion ||
            dumped(json.at("making")) != dumped(Json::parse(dumped(makingJson(making))))) {
            return std::nullopt;
        }
        done.guid = json.at("guid").get<std::string>();
        done.summary = summaryFrom(json.at("result"));
    } catch (const Json::exception&) {
        return std::nullopt; // not a record
    }
    constexpr auto invalid = static_cast<std::size_t>(SplatSource::DropReason::invalid);
    const bool endsDifferently =
        (isStrict && done.summary.ledger.dropped[invalid] > 0) || (!allowLoss && done.summary.leftOut > 0);
    return !endsDifferently && stands(folder, done) ? std::optional(done) : std::nullopt;
}

void forgetDone(const fs::path& folder) {
    const fs::path path = doneRecordPath(folder);
    std::ifstream file(path, std::ios::binary);
    const Json json = Json::parse(file, nullptr, false);
    file.close();
    if (json.is_object() && json.contains("recordVersion") && json.contains("making")) {
        std::error_code ignored; // if the record stays, its guid is no longer that of the dataset
        fs::remove(path, ignored);
    }
}

void recordDone(const fs::path& folder, const Making& making, const Summary& summary) {
    const SplatReader::VerifyReport report = SplatReader::verifyDataset(folder);
    if (isFresh(making) || !report.meta) {
        return; // later runs could not rely on such a record
    }
    Json json;
    json["recordVersion"] = recordVersion;
    json["making"] = makingJson(making);
    json["guid"] = report.meta->guid;
    json["result"] = resultJson(summary);
    writeWholeFile(doneRecordPath(folder), dumped(json) + "\n");
}

} // namespace Tavrin::SplatProgram
