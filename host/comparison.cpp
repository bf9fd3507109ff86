#include "comparison.h"

#include "cell_readers.h"
#include "record_stream.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <fmt/format.h>

namespace Tavrin::SplatProgram {
namespace {

using SplatReader::Dequantiser;
namespace Format = SplatReader::Format;

enum Attribute : std::size_t { normal, colour, opacity, scale, rotation, coefficients, attributeCount };
constexpr std::array<const char*, attributeCount> names = {"normal", "colour",   "opacity",
                                                           "scale",  "rotation", "coefficients"};

// What single precision adds to half a step: the converter works in it.
constexpr double relativeSlack = 2e-6;
constexpr double stepSlack = 1e-3;

class Comparer {
public:
    Comparer(const SplatReader::Dataset& dataset, const SplatLayout& layout, SplatReader::Findings& findings)
        : m_back(dataset.dequantiser()), m_meta(dataset.meta()), m_layout(layout), m_findings(findings) {
        for (const char* name : names) {
            m_errors.push_back({name});
        }
        m_hasCoefficients = layout.hasCoefficients() && dataset.coefficientSize() > 0;
    }

    void compare(const std::byte* source, std::uint64_t number,
                 const SplatReader::RecordCursor::View& stored) {
        m_number = number;
        m_at = stored.index * Format::recordSize;
        m_file = Format::dataFile;
        if (std::memcmp(source, stored.data, 3 * sizeof(float)) != 0) {
            difference("position", positionText(source), positionText(stored.data));
            return; // another splat, or a broken one: the rest says nothing
        }
        std::array<float, 62> values{};
        std::memcpy(values.data(), source, m_layout.recordBytes());
        const SplatReader::Record record = SplatReader::loadRecord(stored.data);
        SplatReader::Splat splat = m_back.splat(record);
        const float* tail = values.data() + m_layout.scaleFloat();
        for (std::size_t axis = 0; axis < 3; ++axis) {
            checkRanged(normal, m_meta.normal(), axis, values[3 + axis], splat.normal[axis],
                        m_back.normalStep(axis), record.normal[axis]);
            check(colour, storedColour(values[6 + axis]), splat.colour[axis], Dequantiser::colourStep(),
                  record.colour[axis]);
            checkRanged(scale, m_meta.scaleRange(), axis, std::exp(double{tail[axis]}), splat.scale[axis],
                        m_back.scaleStep(axis), record.scale[axis]);
        }
        // Byte 0 comes back as 0, so the whole step lies below it.
        check(opacity, 1.0 / (std::exp(-double{tail[-1]}) + 1.0), splat.opacity,
              Dequantiser::opacityStep() * (record.opacity == 0 ? 2.0 : 1.0), record.opacity);
        checkRotation({tail[4], tail[5], tail[6], tail[3]}, record.rotation, splat);
        if (m_hasCoefficients) {
            checkCoefficients(values.data() + 9, stored, splat);
        }
    }

    std::vector<AttributeError> errors() const { return m_errors; }

private:
    static std::string positionText(const std::byte* record) {
        return fmt::format("({}, {}, {})", SplatReader::loadFloat(record), SplatReader::loadFloat(record + 4),
                           SplatReader::loadFloat(record + 8));
    }

    static float storedColour(float coefficient) {
        const float value = coefficient * Format::colourGain + 0.5F;
        return value < 0.0F ? 0.0F : value > 1.0F ? 1.0F : value;
    }

    void difference(const char* name, const std::string& expected, const std::string& found) {
        m_findings.error(
            name == std::string_view("position") ? "against-position" : "against-value", m_file, m_at,
            fmt::format("{} {}, as splat {} of the source has it", name, expected, m_number), found);
    }

    // `step` 0: kept without loss.
    void check(Attribute attribute, double expected, double found, double step, std::uint32_t quantised) {
        AttributeError& error = m_errors[attribute];
        if (!std::isfinite(expected)) {
            ++error.skipped;
            if (quantised != 0) {
                difference(names[attribute], "stored as 0, having no finite value,",
                           fmt::format("step {}", quantised));
            }
            return;
        }
        const double distance = std::fabs(found - expected);
        ++error.values;
        error.squares += distance * distance;
        error.largest = std::max(error.largest, distance);
        if (step > 0.0) {
            error.largestSteps = std::max(error.largestSteps, distance / step);
        }
        if (distance > step * (0.5 + stepSlack) + std::fabs(expected) * relativeSlack) {
            difference(names[attribute], fmt::format("{:.9g} within {:.3g}", expected, step / 2),
                       fmt::format("{:.9g}", found));
        }
    }

    // Beside an infinite value in its range nothing of an attribute is kept.
    void checkRanged(Attribute attribute, const SplatReader::Range& range, std::size_t axis, double expected,
                     double found, double step, std::uint32_t quantised) {
        if (range.finite(axis) || !std::isfinite(expected)) {
            check(attribute, expected, found, step, quantised);
        } else {
            ++m_errors[attribute].skipped;
        }
    }

    // `q` in the packing's order: x, y, z, w.
    void checkRotation(std::array<float, 4> q, std::uint32_t word, const SplatReader::Splat& splat) {
        double length = 0.0;
        for (const float c : q) {
            length += double{c} * c;
        }
        length = std::sqrt(length);
        // The converter squares in single precision, whose range ends far below and above.
        constexpr double smallest = 1e-18;
        constexpr double largest = 1e18;
        if (!(length > smallest && length < largest)) {
            ++m_errors[rotation].skipped;
            return;
        }
        const std::size_t dropped = SplatReader::unpackRotationWord(word).largest;
        const double sign = q[dropped] >= 0.0F ? 1.0 : -1.0;
        for (std::size_t i = 0; i < 4; ++i) {
            const double expected = sign * q[i] / length;
            const double found = splat.rotation[(i + 1) % 4];
            if (i != dropped) {
                check(rotation, expected, found, Dequantiser::rotationStep(), 0);
            }
            if (std::fabs(q[i]) > std::fabs(q[dropped]) * (1.0F + static_cast<float>(relativeSlack))) {
                difference("rotation", fmt::format("with component {} as the largest", i),
                           fmt::format("component {}", dropped));
            }
        }
    }

    void checkCoefficients(const float* source, const SplatReader::RecordCursor::View& stored,
                           SplatReader::Splat& splat) {
        m_back.coefficients(stored.coefficients, splat);
        const std::uint64_t size =
            m_meta.packed() ? Format::packedCoefficientSize : Format::rawCoefficientSize;
        m_file = Format::coefficientFile;
        for (std::size_t i = 0; i < splat.coefficients.size(); ++i) {
            const std::size_t channel = i / Format::coefficientsPerChannel;
            const std::size_t k = i % Format::coefficientsPerChannel;
            m_at = stored.index * size + (m_meta.packed() ? 4 * k : 4 * (3 * k + channel));
            if (!m_meta.packed()) {
                check(coefficients, source[i], splat.coefficients[i], 0.0, 0);
                continue;
            }
            const auto word = SplatReader::unpackCoefficientWord(
                SplatReader::loadUnsigned<std::uint32_t>(stored.coefficients + 4 * k));
            checkRanged(coefficients, m_meta.coefficients(), channel, source[i], splat.coefficients[i],
                        m_back.coefficientStep(channel), word.channel[channel]);
        }
    }

    const Dequantiser& m_back;
    const SplatReader::Meta& m_meta;
    SplatLayout m_layout;
    SplatReader::Findings& m_findings;
    bool m_hasCoefficients = false;
    std::vector<AttributeError> m_errors;
    std::uint64_t m_number = 0;
    std::uint64_t m_at = 0;
    std::string_view m_file;
};

// False when the dataset cannot have been made of the source, so that comparing splats would say nothing.
bool checkOrigin(const SplatReader::Dataset& dataset, const SplatFile& source,
                 SplatReader::Findings& findings) {
    const SplatReader::Meta& meta = dataset.meta();
    const bool sameCount = meta.totalSplats == source.records;
    const bool sameForm = meta.hasCoefficients() == source.layout.hasCoefficients();
    if (!sameCount) {
        findings.error("against-count", Format::metaFile, 0,
                       fmt::format("\"totalSplats\" {}, the records of the source", source.records),
                       std::to_string(meta.totalSplats));
    }
    if (!sameForm) {
        findings.error("against-form", Format::metaFile, 0,
                       source.layout.hasCoefficients() ? "\"Quality\", as the source has coefficients"
                                                       : "\"Portable\", as the source has no coefficients",
                       fmt::format("\"{}\"", meta.fileType.substr(0, 60)));
    }
    return sameCount && sameForm;
}

void checkTotals(const SplatReader::Dataset& dataset, const Comparison& result, const CellReaders& cells,
                 SplatReader::Findings& findings) {
    for (std::size_t cell = 0; cell < dataset.cellCount(); ++cell) {
        if (cells.unread(cell) > 0) {
            findings.error(
                "against-count", Format::indexFile, 0,
                fmt::format("cell {} with as many splats as the source has there", dataset.cellKey(cell)),
                fmt::format("{} more", cells.unread(cell)));
        }
    }
    if (result.leftOut != dataset.leftOut()) {
        findings.error("against-count", Format::indexFile, 0,
                       fmt::format("{} splats of the source in no cell", dataset.leftOut()),
                       std::to_string(result.leftOut));
    }
}

} // namespace

double AttributeError::rms() const {
    return values == 0 ? 0.0 : std::sqrt(squares / static_cast<double>(values));
}

Comparison compareWithSource(const SplatReader::Dataset& dataset, const SplatFile& source,
                             SplatReader::Findings& findings, const ScanProgress& progress) {
    constexpr std::uint64_t progressEvery = 65536;
    Comparison result;
    if (!checkOrigin(dataset, source, findings)) {
        return result;
    }
    Comparer comparer(dataset, source.layout, findings);
    CellReaders cells(dataset);
    RecordStream stream(source.path, source.bodyAt, source.layout.recordBytes(), source.records);
    while (const std::byte* record = stream.next()) {
        const std::uint64_t number = result.splats++;
        const std::uint32_t key =
            dataset.grid().keyAt(SplatReader::loadFloat(record), SplatReader::loadFloat(record + 4));
        const std::optional<std::size_t> cell = cells.find(key);
        if (!cell) {
            ++result.leftOut;
        } else if (const auto stored = cells.next(*cell)) {
            ++result.found;
            comparer.compare(record, number, *stored);
        } else {
            findings.error("against-count", Format::indexFile, 0,
                           fmt::format("splat {} of the source in cell {}", number, key),
                           "no more splats there");
        }
        if (number % progressEvery == 0) {
            progress(static_cast<double>(number) / static_cast<double>(source.records));
        }
    }
    checkTotals(dataset, result, cells, findings);
    result.attributes = comparer.errors();
    return result;
}

} // namespace Tavrin::SplatProgram
