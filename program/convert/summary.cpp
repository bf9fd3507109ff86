#include "program/convert/summary.h"

#include "program/terminal/figures.h"

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include <cmath>

namespace Tavrin::SplatProgram {
namespace {

std::uint64_t splatsPerSecond(const Summary& summary) {
    return summary.seconds > 0.0
               ? static_cast<std::uint64_t>(std::llround(static_cast<double>(summary.read) / summary.seconds))
               : 0;
}

} // namespace

std::string summaryText(const Summary& summary) {
    std::string sizes = "data.bin " + bytesText(summary.dataBytes);
    if (summary.coefficientBytes > 0) {
        sizes += ", shcoef.bin " + bytesText(summary.coefficientBytes);
    }
    sizes += ", index.bin " + bytesText(summary.indexBytes);
    std::string loss;
    if (const std::uint64_t dropped = summary.ledger.droppedInAll(); dropped > 0) {
        loss = fmt::format("{} dropped", countText(dropped));
    }
    if (summary.leftOut > 0) {
        loss += fmt::format("{}{} left out", loss.empty() ? "" : ", ", countText(summary.leftOut));
    }
    if (!loss.empty()) {
        loss = fmt::format(" of {} ({})", countText(summary.read), loss);
    }
    std::string place;
    if (summary.largestError > 0.0 || summary.offset != std::array<double, 3>{}) {
        place = "; offset " + summary.place;
    }
    return fmt::format("{}: {}{} in {}{}; {}; {}, {} splats/s\n", summary.output,
                       countText(summary.written, "splat", "splats"), loss,
                       countText(summary.cells, "cell", "cells"), place, sizes, durationText(summary.seconds),
                       countText(splatsPerSecond(summary)));
}

std::string skippedText(const Summary& summary) {
    return fmt::format("{}: done already, {} in {}\n", summary.output,
                       countText(summary.written, "splat", "splats"),
                       countText(summary.cells, "cell", "cells"));
}

std::string summaryJson(const Summary& summary) {
    nlohmann::ordered_json json;
    json["input"] = summary.input;
    json["output"] = summary.output;
    json["splatsRead"] = summary.read;
    json["splatsWritten"] = summary.written;
    json["splatsLeftOut"] = summary.leftOut;
    json["read"] = summary.read;
    json["written"] = summary.written;
    json["dropped"] = nlohmann::ordered_json::object();
    for (std::size_t i = 0; i < SplatSource::dropReasons; ++i) {
        json["dropped"][SplatSource::nameOf(static_cast<SplatSource::DropReason>(i))] =
            summary.ledger.dropped[i];
    }
    json["leftOut"] = summary.leftOut;
    json["offset"] = summary.offset;
    json["largestPositionError"] = summary.largestError;
    json["cells"] = summary.cells;
    json["dataBytes"] = summary.dataBytes;
    json["shcoefBytes"] = summary.coefficientBytes;
    json["indexBytes"] = summary.indexBytes;
    json["metaBytes"] = summary.metaBytes;
    json["seconds"] = summary.seconds;
    json["splatsPerSecond"] = splatsPerSecond(summary);
    json["warnings"] = summary.warnings;
    if (summary.isSkipped) {
        json["skipped"] = true;
    }
    // Paths may contain bytes that are not UTF-8; they are replaced.
    return json.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace) + "\n";
}

} // namespace Tavrin::SplatProgram
