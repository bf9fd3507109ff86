#include "source/drop.h"

#include "source/ply_layout.h"
#include "source/text.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <cstring>

namespace Tavrin::SplatSource {
namespace {

constexpr std::array<const char*, dropReasons> reasonNames = {"invalid", "crop", "opacity", "scale"};

enum Wrong : std::size_t { inPosition, inScale, inOpacity, inColour, inCoefficient, inNormal, inRotation };
constexpr std::array<std::array<const char*, 2>, 7> wrongNames = {{{"position", "positions"},
                                                                   {"scale", "scales"},
                                                                   {"opacity", "opacities"},
                                                                   {"colour", "colours"},
                                                                   {"coefficient", "coefficients"},
                                                                   {"normal", "normals"},
                                                                   {"rotation", "rotations"}}};

std::uint32_t bitsOf(const float* value) {
    std::uint32_t bits;
    std::memcpy(&bits, value, sizeof bits);
    return bits;
}

bool areFinite(const float* values, std::size_t count) {
    return std::all_of(values, values + count, [](float value) { return std::isfinite(value); });
}

// The sign bit is set if one of the values is not finite: an exponent of all ones carries into it.
template <std::size_t count>
std::uint32_t carriesOf(const float* values) {
    std::uint32_t carries = 0;
    for (std::size_t i = 0; i < count; ++i) {
        carries |= (bitsOf(values + i) & 0x7F800000u) + 0x00800000u;
    }
    return carries;
}

// True if certainly no record is invalid: every value is finite, no opacity is NaN, and no rotation is zero.
template <const GaussionSplat::RecordLayout& layout>
bool areSoundRecords(std::uint64_t size, const float* records) {
    std::uint32_t carries = 0;
    bool hasZero = false;
    for (std::uint64_t i = 0; i < size; ++i) {
        const float* const record = records + i * layout.floats;
        carries |= carriesOf<layout.opacity>(record);
        // Full opacity is infinite as a logit, so only NaN, whose bits lie above infinity, carries here.
        carries |= (bitsOf(record + layout.opacity) & 0x7FFFFFFFu) + 0x007FFFFFu;
        carries |= carriesOf<layout.floats - layout.scale>(record + layout.scale);
        const float* const rotation = record + layout.rotation;
        const std::uint32_t bits =
            bitsOf(rotation) | bitsOf(rotation + 1) | bitsOf(rotation + 2) | bitsOf(rotation + 3);
        hasZero = hasZero | ((bits & 0x7FFFFFFFu) == 0);
    }
    return (carries >> 31) == 0 && !hasZero;
}
static_assert(GaussionSplat::layoutWithCoefficients.scale ==
              GaussionSplat::layoutWithCoefficients.opacity + 1);

} // namespace

const char* nameOf(DropReason reason) {
    return reasonNames[static_cast<std::size_t>(reason)];
}

std::uint64_t Ledger::droppedInAll() const {
    std::uint64_t sum = 0;
    for (const std::uint64_t count : dropped) {
        sum += count;
    }
    return sum;
}

Ledger& Ledger::operator+=(const Ledger& other) {
    read += other.read;
    kept += other.kept;
    std::ranges::transform(dropped, other.dropped, dropped.begin(), std::plus<>());
    std::ranges::transform(invalid, other.invalid, invalid.begin(), std::plus<>());
    firstInvalid = std::min(firstInvalid, other.firstInvalid);
    return *this;
}

std::string invalidText(const Ledger& ledger) {
    std::string text;
    for (std::size_t i = 0; i < ledger.invalid.size(); ++i) {
        if (ledger.invalid[i] > 0) {
            text +=
                (text.empty() ? "" : ", ") + countOf(ledger.invalid[i], wrongNames[i][0], wrongNames[i][1]);
        }
    }
    return text;
}

KeptSplats::KeptSplats(std::unique_ptr<Input> input, const DropRules& rules, ScaleValues scales,
                       OpacityValues opacities)
    : input_(std::move(input)), layout_(GaussionSplat::recordLayout(input_->hasCoefficients)), rules_(rules),
      scales_(scales), opacities_(opacities) {
    const double least = rules.minOpacity.value_or(0.0);
    leastLogit_ = std::log(least / (1.0 - least));
    mostScale_ = std::log(rules.maxScale.value_or(INFINITY));
    isAllCounted_ = input_->count == 0;
}

std::uint64_t KeptSplats::read(std::uint64_t first, std::uint64_t size, float* records,
                               double* positions) const {
    thread_local std::vector<double> ownPositions;
    const bool needsPositions = rules_.crop && input_->isWide;
    if (positions == nullptr && needsPositions) {
        ownPositions.resize(std::max<std::size_t>(ownPositions.size(), 3 * size));
        positions = ownPositions.data();
    }
    input_->readWide(first, size, records, positions);
    makeUnits(size, records);
    lookAtUnits(size, records);
    std::vector<Finding> findings;
    const bool areAllKept = rules_.areNone() && areSound(size, records);
    const std::uint64_t kept = areAllKept ? size : drop(first, size, records, positions, findings);
    count(first, size, findings);
    return kept;
}

void KeptSplats::makeUnits(std::uint64_t size, float* records) const {
    if (scales_ != ScaleValues::linear && opacities_ != OpacityValues::linear) {
        return;
    }
    for (std::uint64_t i = 0; i < size; ++i) {
        float* const record = records + i * layout_.floats;
        for (std::size_t axis = 0; scales_ == ScaleValues::linear && axis < 3; ++axis) {
            float& scale = record[layout_.scale + axis];
            scale = static_cast<float>(std::log(static_cast<double>(scale)));
        }
        if (opacities_ == OpacityValues::linear) {
            float& opacity = record[layout_.opacity];
            const double linear = opacity;
            opacity = static_cast<float>(std::log(linear / (1.0 - linear)));
        }
    }
}

void KeptSplats::lookAtUnits(std::uint64_t size, const float* records) const {
    constexpr auto relaxed = std::memory_order_relaxed;
    const bool isScaleTold = scales_ != ScaleValues::told || hasNegativeScale_.load(relaxed);
    const bool isOpacityTold = opacities_ != OpacityValues::told || hasFarOpacity_.load(relaxed);
    if (!input_->hasOpenUnits || (isScaleTold && isOpacityTold)) {
        return;
    }
    for (std::uint64_t i = 0; i < size; ++i) {
        const float* const record = records + i * layout_.floats;
        const float opacity = record[layout_.opacity];
        if (opacity < 0.0f || opacity > 1.0f) {
            hasFarOpacity_.store(true, relaxed);
        } else if (opacity > 0.0f) {
            hasOpacity_.store(true, relaxed);
        }
        for (std::size_t axis = 0; axis < 3; ++axis) {
            const float scale = record[layout_.scale + axis];
            // The constant for flat splats is not a value of the file.
            if (scale < 0.0f && scale != flatScale) {
                hasNegativeScale_.store(true, relaxed);
            } else if (scale > 0.0f) {
                hasScale_.store(true, relaxed);
            }
        }
        if (hasFarOpacity_.load(relaxed) && hasNegativeScale_.load(relaxed)) {
            return;
        }
    }
}

bool KeptSplats::areSound(std::uint64_t size, const float* records) const {
    return input_->hasCoefficients ? areSoundRecords<GaussionSplat::layoutWithCoefficients>(size, records)
                                   : areSoundRecords<GaussionSplat::layoutWithoutCoefficients>(size, records);
}

std::optional<KeptSplats::Finding> KeptSplats::judge(const float* record, const double* position) const {
    using namespace GaussionSplat;
    const auto invalid = [](Wrong wrong) { return Finding{0, DropReason::invalid, wrong}; };
    const float* const scale = record + layout_.scale;
    const float* const rotation = record + layout_.rotation;
    if (!areFinite(record + positionAt, 3)) {
        return invalid(inPosition);
    }
    // A negative infinity is the logarithm of 0.
    if (std::any_of(scale, scale + 3, [](float s) { return std::isnan(s) || s == INFINITY; })) {
        return invalid(inScale);
    }
    if (std::isnan(record[layout_.opacity])) {
        return invalid(inOpacity);
    }
    if (!areFinite(record + colourAt, 3)) {
        return invalid(inColour);
    }
    if (input_->hasCoefficients && !areFinite(record + coefficientsAt, coefficientFloats)) {
        return invalid(inCoefficient);
    }
    if (!areFinite(record + normalAt, 3)) {
        return invalid(inNormal);
    }
    if (!areFinite(rotation, 4) || std::all_of(rotation, rotation + 4, [](float r) { return r == 0.0f; })) {
        return invalid(inRotation);
    }
    for (std::size_t axis = 0; rules_.crop && axis < 3; ++axis) {
        const double at = position == nullptr ? double{record[axis]} : position[axis];
        if (!(at >= rules_.crop->min[axis] && at <= rules_.crop->max[axis])) {
            return Finding{0, DropReason::crop, 0};
        }
    }
    if (rules_.minOpacity && record[layout_.opacity] < leastLogit_) {
        return Finding{0, DropReason::opacity, 0};
    }
    if (rules_.maxScale && *std::max_element(scale, scale + 3) > mostScale_) {
        return Finding{0, DropReason::scale, 0};
    }
    return std::nullopt;
}

// Moves the kept records together.
std::uint64_t KeptSplats::drop(std::uint64_t first, std::uint64_t size, float* records, double* positions,
                               std::vector<Finding>& findings) const {
    std::uint64_t kept = 0;
    for (std::uint64_t i = 0; i < size; ++i) {
        const float* const record = records + i * layout_.floats;
        const double* const position = positions == nullptr ? nullptr : positions + 3 * i;
        if (std::optional<Finding> finding = judge(record, position)) {
            finding->record = first + i;
            findings.push_back(*finding);
            continue;
        }
        if (kept < i) {
            std::memcpy(records + kept * layout_.floats, record, layout_.floats * sizeof(float));
            if (position != nullptr) {
                std::copy_n(position, 3, positions + 3 * kept);
            }
        }
        ++kept;
    }
    return kept;
}

void KeptSplats::countPart(const Part& part, const std::vector<Finding>& findings) const {
    ledger_.read += part.end - part.first;
    ledger_.kept += part.end - part.first;
    const auto begin = std::ranges::lower_bound(findings, part.first, {}, &Finding::record);
    for (auto finding = begin; finding != findings.end() && finding->record < part.end; ++finding) {
        --ledger_.kept;
        ++ledger_.dropped[static_cast<std::size_t>(finding->reason)];
        if (finding->reason == DropReason::invalid) {
            ++ledger_.invalid[finding->wrong];
            ledger_.firstInvalid = std::min(ledger_.firstInvalid, finding->record);
        }
    }
}

// Counts the records of a range that were not counted before.
void KeptSplats::count(std::uint64_t first, std::uint64_t size, const std::vector<Finding>& findings) const {
    if (size == 0 || isAllCounted_.load(std::memory_order_relaxed)) {
        return;
    }
    const std::lock_guard<std::mutex> guard(lock_);
    Part whole = {first, first + size};
    // Parts that touch the range are merged with it.
    auto begin = std::ranges::lower_bound(counted_, first, {}, &Part::end);
    auto end = begin;
    std::uint64_t at = first;
    for (; end != counted_.end() && end->first <= first + size; ++end) {
        if (at < end->first) {
            countPart({at, end->first}, findings);
        }
        at = std::max(at, end->end);
        whole.first = std::min(whole.first, end->first);
        whole.end = std::max(whole.end, end->end);
    }
    if (at < first + size) {
        countPart({at, first + size}, findings);
    }
    counted_.insert(counted_.erase(begin, end), whole);
    if (whole.first == 0 && whole.end == input_->count) {
        isAllCounted_ = true;
    }
}

Ledger KeptSplats::ledger() const {
    const std::lock_guard<std::mutex> guard(lock_);
    return ledger_;
}

void KeptSplats::requireUnits() const {
    if (!input_->hasOpenUnits) {
        return;
    }
    if (scales_ == ScaleValues::told && hasScale_ && !hasNegativeScale_) {
        throw SourceError(input_->name + ": no scale is negative, so they look like linear values, where "
                                         "logarithms are expected: give --scale linear, or --scale log if "
                                         "they are logarithms");
    }
    if (opacities_ == OpacityValues::told && hasOpacity_ && !hasFarOpacity_) {
        throw SourceError(input_->name + ": every opacity lies between 0 and 1, so they look like linear "
                                         "values, where logits are expected: give --opacity linear, or "
                                         "--opacity logit if they are logits");
    }
}

} // namespace Tavrin::SplatSource
