#include "source/merge.h"

#include "source/text.h"
#include "threads/crew.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>
#include <tuple>
#include <utility>

namespace Tavrin::SplatSource {
namespace {

using GaussionSplat::layoutWithCoefficients;
using GaussionSplat::layoutWithoutCoefficients;

constexpr std::array<const char*, 3> offsetKeys = {"offsetx", "offsety", "offsetz"};
constexpr double offsetTolerance = 1e-5;  // of a stated offset in single precision, scene units
constexpr std::uint64_t boxWindow = 4096; // records that the pass for the box reads at a time

// A whole number near `value` that single precision holds.
double wholeNear(double value) {
    return double{static_cast<float>(std::round(value))};
}

// Inserts 15 zero coefficients a channel into records without any. Works in place, from the last record on.
void insertCoefficients(std::uint64_t count, float* records) {
    using namespace GaussionSplat;
    constexpr std::size_t narrow = layoutWithoutCoefficients.floats;
    constexpr std::size_t wide = layoutWithCoefficients.floats;
    for (std::uint64_t i = count; i-- > 0;) {
        float record[narrow];
        std::memcpy(record, records + i * narrow, sizeof record);
        float* const to = records + i * wide;
        std::copy_n(record, coefficientsAt, to);
        std::fill_n(to + coefficientsAt, coefficientFloats, 0.0f);
        std::copy_n(record + coefficientsAt, narrow - coefficientsAt,
                    to + coefficientsAt + coefficientFloats);
    }
}

// Half the step to the next number of single precision, at the largest coordinate of a range.
double halfStep(double smallest, double largest) {
    const double reach = std::max(std::abs(smallest), std::abs(largest));
    if (!(reach < double{std::numeric_limits<float>::max()})) {
        return 0.0;
    }
    const auto at = static_cast<float>(reach);
    return (double{std::nextafter(at, INFINITY)} - double{at}) / 2;
}

// Widens the box by positions. Leaves out cropped ones, and those beyond single precision, which are dropped
// as invalid.
void widenBox(Box& box, const double* positions, std::uint64_t count, const std::optional<Box>& crop) {
    for (std::uint64_t i = 0; i < count; ++i) {
        const double* const at = positions + 3 * i;
        const bool isInside = isHeldWithin(at, crop);
        for (std::size_t axis = 0; isInside && axis < 3; ++axis) {
            box.min[axis] = std::min(box.min[axis], at[axis]);
            box.max[axis] = std::max(box.max[axis], at[axis]);
        }
    }
}

// True where single precision steps by more than a millimetre at an end of the range. False for an empty one.
bool reachesTooFar(double low, double high) {
    return low <= high && std::max(std::abs(low), std::abs(high)) >= largestExactCoordinate;
}

// The ends of the middle part of the values that is kept to half a millimetre: as large as possible, at least
// the median.
std::pair<double, double> middleOf(std::vector<double>& values) {
    std::pair<double, double> ends;
    for (const double left : {0.01, 0.05, 0.25, 0.5}) {
        ends = {percentile(values, left), percentile(values, 1.0 - left)};
        if (ends.second / 2 - ends.first / 2 < largestExactCoordinate) {
            break;
        }
    }
    return ends;
}

Box emptyBox() {
    constexpr double none = std::numeric_limits<double>::infinity();
    return {{none, none, none}, {-none, -none, -none}};
}

// Widens the box by another one.
void widenBox(Box& box, const Box& other, const Point& move) {
    for (std::size_t axis = 0; axis < 3; ++axis) {
        box.min[axis] = std::min(box.min[axis], other.min[axis] + move[axis]);
        box.max[axis] = std::max(box.max[axis], other.max[axis] + move[axis]);
    }
}

// The box of an input's positions without the cropped ones.
Box inputBox(const Input& input, const std::optional<Box>& crop, unsigned threads, const Pause& pause) {
    struct Worker {
        Box box = emptyBox();
        std::vector<double> positions = std::vector<double>(3 * boxWindow);
    };
    std::vector<Worker> workers(std::max(threads, 1u));
    SplatThreads::Crew crew([&](std::uint64_t) {
        if (pause) {
            pause();
        }
    });
    crew.share(threads, (input.count + boxWindow - 1) / boxWindow,
               [&](unsigned number, std::uint64_t window) {
                   Worker& worker = workers[number];
                   const std::uint64_t first = window * boxWindow;
                   const std::uint64_t size = std::min(boxWindow, input.count - first);
                   input.readPositions(first, size, worker.positions.data());
                   widenBox(worker.box, worker.positions.data(), size, crop);
                   crew.advance(size);
               });
    Box box = emptyBox();
    for (const Worker& worker : workers) {
        widenBox(box, worker.box, Point{});
    }
    return box;
}

} // namespace

Scene::Scene(std::vector<std::unique_ptr<Input>> inputs, const SceneOptions& options)
    : rules_(options.rules), pause_(options.open.pause), isStrict_(options.isStrict) {
    for (std::unique_ptr<Input>& input : inputs) {
        firsts_.push_back(count);
        count += input->count;
        hasCoefficients = hasCoefficients || input->hasCoefficients;
        for (const std::string& remark : input->remarks) {
            remarks.push_back(fmt::format("{}: {}", input->name, remark));
        }
        inputs_.push_back(
            std::make_unique<KeptSplats>(std::move(input), options.rules, options.scales, options.opacities));
    }
    moves_.resize(inputs_.size());
    settleParams(options);
    settleOffset(options);
}

void Scene::settleParams(const SceneOptions& options) {
    const Input& first = inputs_.front()->input();
    params = first.params;
    boundsSeen = first.boundsSeen;
    if (inputs_.size() > 1) {
        const GaussionSplat::Params none;
        params.minx = none.minx;
        params.miny = none.miny;
        params.minz = none.minz;
        params.maxx = none.maxx;
        params.maxy = none.maxy;
        params.maxz = none.maxz;
        boundsSeen = false;
        if (first.stated.dataType.empty()) {
            params.dataType = "ply";
        }
    }
    const std::string* named = &first.name;
    for (const auto& kept : inputs_) {
        const Input& input = kept->input();
        if (params.epsg == 0 && input.params.epsg != 0) {
            params.epsg = input.params.epsg;
            named = &input.name;
        }
        if (!options.epsg && input.params.epsg != 0 && input.params.epsg != params.epsg) {
            throw SourceError(fmt::format("{}: its EPSG code is {}, that of {} is {}: bring the inputs into "
                                          "one reference system, or give --epsg if a header is wrong",
                                          input.name, input.params.epsg, *named, params.epsg));
        }
    }
    params.epsg = options.epsg.value_or(params.epsg);
    params.source = options.source.value_or(params.source);
    params.dataType = options.dataType.value_or(params.dataType);
    isKindStated_ = options.dataType || !first.stated.dataType.empty();
}

Point Scene::statedOffset(std::size_t input, const SceneOptions& options) const {
    if (options.offset) {
        return *options.offset;
    }
    Point offset = {};
    const SceneComments& stated = inputs_[input]->input().stated;
    for (std::size_t axis = 0; axis < 3; ++axis) {
        const auto number = stated.numbers.find(offsetKeys[axis]);
        offset[axis] = number == stated.numbers.end() ? 0.0 : number->second.written;
    }
    return offset;
}

void Scene::settleOffset(const SceneOptions& options) {
    const Point base = statedOffset(0, options);
    Point offset = {params.offsetx, params.offsety, params.offsetz}; // the stated one, in single precision
    std::array<bool, 3> isHeld = {}; // differences too small to matter move nothing
    for (std::size_t axis = 0; axis < 3; ++axis) {
        if (options.offset) {
            offset[axis] = double{static_cast<float>(base[axis])};
        }
        isHeld[axis] = std::abs(offset[axis] - base[axis]) <= offsetTolerance;
        if (!isHeld[axis]) {
            offset[axis] = wholeNear(base[axis]);
            isOffsetCut = true;
        }
    }
    for (std::size_t i = 0; i < inputs_.size(); ++i) {
        const Point own = statedOffset(i, options);
        for (std::size_t axis = 0; axis < 3; ++axis) {
            moves_[i][axis] = own[axis] - (isHeld[axis] ? base[axis] : offset[axis]);
        }
        isExact = isExact && !inputs_[i]->input().isWide && moves_[i] == Point{};
    }
    if (!isExact && base == Point{}) {
        chooseOffset(options.open.threads, offset);
    }
    params.offsetx = offset[0];
    params.offsety = offset[1];
    params.offsetz = offset[2];
    moveBounds();
}

// If the positions of an axis are too far apart to keep both ends to half a millimetre, the offset suits the
// bulk.
void Scene::chooseOffset(unsigned threads, Point& offset) {
    const Box all = measureBox(threads);
    Box box = all;
    SampledAxes sample;
    for (std::size_t axis = 0; axis < 3; ++axis) {
        double& low = box.min[axis];
        double& high = box.max[axis];
        if (!reachesTooFar(low, high)) {
            continue;
        }
        if (high / 2 - low / 2 >= largestExactCoordinate) {
            sample = bulk ? sample : samplePositions();
            if (!sample[axis].empty()) {
                std::tie(low, high) = middleOf(sample[axis]);
            }
            bulk = box;
        }
        if (!reachesTooFar(low, high)) {
            continue;
        }
        offset[axis] = wholeNear(low / 2 + high / 2);
        isOffsetChosen = isOffsetChosen || offset[axis] != 0.0;
        for (Point& move : moves_) {
            move[axis] -= offset[axis];
        }
        low -= offset[axis];
        high -= offset[axis];
    }
    if (bulk) {
        bulk = box;
        remarks.push_back(fmt::format(
            "{}: splats lie too far apart for one offset, so it suits the bulk, which is off by at most "
            "{:.2g} mm; "
            "splats farther away are off by up to {:.2g} mm: drop them with --crop, or convert them "
            "separately",
            inputs_.front()->input().name, 1000 * errorWithin(box),
            1000 * errorWithin({{all.min[0] - offset[0], all.min[1] - offset[1], all.min[2] - offset[2]},
                                {all.max[0] - offset[0], all.max[1] - offset[1], all.max[2] - offset[2]}})));
    }
}

// A sample over all inputs, each in proportion to its splats, of the moved positions.
SampledAxes Scene::samplePositions() const {
    SampledAxes sample;
    for (std::size_t i = 0; i < inputs_.size(); ++i) {
        const Input& input = inputs_[i]->input();
        const double share = static_cast<double>(input.count) / static_cast<double>(count);
        const auto runs = static_cast<std::uint64_t>(share * mostSampleRuns);
        addSample(input, std::max<std::uint64_t>(runs, 1), rules_.crop, moves_[i], sample);
    }
    return sample;
}

double Scene::errorWithin(const Box& box) const {
    double error = 0.0;
    for (std::size_t axis = 0; !isExact && axis < 3; ++axis) {
        error = std::max(error, halfStep(box.min[axis], box.max[axis]));
    }
    return error;
}

Box Scene::measureBox(unsigned threads) const {
    Box box = emptyBox();
    for (std::size_t i = 0; i < inputs_.size(); ++i) {
        const Input& input = inputs_[i]->input();
        widenBox(box, inputBox(input, rules_.crop, threads, pause_), moves_[i]);
    }
    return box;
}

// Stated bounds move with the positions and are rounded outwards.
void Scene::moveBounds() {
    if (inputs_.size() > 1 || moves_[0] == Point{}) {
        return;
    }
    const SceneComments& stated = inputs_[0]->input().stated;
    const std::array<std::pair<const char*, double*>, 6> fields = {{{"minx", &params.minx},
                                                                    {"miny", &params.miny},
                                                                    {"minz", &params.minz},
                                                                    {"maxx", &params.maxx},
                                                                    {"maxy", &params.maxy},
                                                                    {"maxz", &params.maxz}}};
    for (std::size_t i = 0; i < fields.size(); ++i) {
        const auto number = stated.numbers.find(fields[i].first);
        if (number == stated.numbers.end()) {
            continue;
        }
        const double moved = number->second.written + moves_[0][i % 3];
        auto kept = static_cast<float>(moved);
        const bool isMinimum = i < 3;
        if (isMinimum ? double{kept} > moved : double{kept} < moved) {
            kept = std::nextafter(kept, isMinimum ? -INFINITY : INFINITY);
        }
        *fields[i].second = double{kept};
    }
}

std::uint64_t Scene::read(std::uint64_t first, std::uint64_t size, float* records) const {
    thread_local std::vector<double> positions;
    std::uint64_t kept = 0;
    const std::size_t floats = GaussionSplat::recordLayout(hasCoefficients).floats;
    while (size > 0) {
        const auto at =
            static_cast<std::size_t>(std::ranges::upper_bound(firsts_, first) - firsts_.begin() - 1);
        const KeptSplats& input = *inputs_[at];
        const std::uint64_t own = first - firsts_[at];
        const std::uint64_t part = std::min(size, input.input().count - own);
        const bool isMoved = moves_[at] != Point{};
        if (isMoved) {
            positions.resize(std::max<std::size_t>(positions.size(), 3 * part));
        }
        float* const to = records + kept * floats;
        const std::uint64_t there = input.read(own, part, to, isMoved ? positions.data() : nullptr);
        finish(input, moves_[at], there, to, isMoved ? positions.data() : nullptr);
        kept += there;
        first += part;
        size -= part;
    }
    return kept;
}

// Gives an input's records the form of the scene, and moves them to its offset.
void Scene::finish(const KeptSplats& input, const Point& move, std::uint64_t kept, float* records,
                   const double* positions) const {
    const std::size_t floats = GaussionSplat::recordLayout(input.input().hasCoefficients).floats;
    for (std::uint64_t i = 0; positions != nullptr && i < kept; ++i) {
        for (std::size_t axis = 0; axis < 3; ++axis) {
            records[i * floats + axis] = static_cast<float>(positions[3 * i + axis] + move[axis]);
        }
    }
    if (hasCoefficients && !input.input().hasCoefficients) {
        insertCoefficients(kept, records);
    }
}

std::uint64_t Scene::boxPositions() const {
    const bool isAsItLies =
        inputs_.size() == 1 && inputs_[0]->input().isCanonical && moves_[0] == Point{} && rules_.areNone();
    return isAsItLies ? inputs_[0]->input().boxPositions() : 0;
}

void Scene::readBoxPositions(std::uint64_t first, std::uint64_t size, float* positions) const {
    inputs_[0]->input().readBoxPositions(first, size, positions);
}

void Scene::stateBox(const float (&min)[3], const float (&max)[3], GaussionSplat::Params& stated) const {
    // The converter takes bounds whose x are further from 0 than these.
    constexpr float leastMin = 0.001f;
    constexpr float leastMax = 0.1f;
    if (hasCoefficients || !(min[0] <= max[0])) {
        return;
    }
    stated.minx = double{std::abs(min[0]) > leastMin ? min[0] : -std::nextafter(leastMin, 1.0f)};
    stated.miny = double{min[1]};
    stated.minz = double{min[2]};
    stated.maxx = double{std::abs(max[0]) > leastMax ? max[0] : std::nextafter(leastMax, 1.0f)};
    stated.maxy = double{max[1]};
    stated.maxz = double{max[2]};
    if (!isKindStated_) {
        stated.dataType = "ytr"; // as the converter calls scenes with bounds
    }
}

void Scene::requireUnchanged() const {
    for (const auto& input : inputs_) {
        input->input().requireUnchanged();
    }
}

std::vector<std::string> Scene::laterRemarks() const {
    std::vector<std::string> all;
    for (const auto& kept : inputs_) {
        for (const std::string& remark : kept->input().laterRemarks()) {
            all.push_back(fmt::format("{}: {}", kept->input().name, remark));
        }
    }
    return all;
}

Ledger Scene::ledger() const {
    Ledger sum;
    for (const auto& input : inputs_) {
        sum += input->ledger();
    }
    return sum;
}

void Scene::requireAccepted() const {
    for (const auto& input : inputs_) {
        input->requireUnits();
        const Ledger ledger = input->ledger();
        const std::uint64_t invalid = ledger.dropped[static_cast<std::size_t>(DropReason::invalid)];
        if (isStrict_ && invalid > 0) {
            throw SourceError(fmt::format("{}: {} ({}), the first of them record {}: repair them, or "
                                          "drop them by leaving out --strict",
                                          input->input().name,
                                          countOf(invalid, "splat is invalid", "splats are invalid"),
                                          invalidText(ledger), ledger.firstInvalid));
        }
    }
}

std::unique_ptr<Scene> openScene(const std::vector<std::filesystem::path>& paths,
                                 const SceneOptions& options) {
    std::vector<std::unique_ptr<Input>> inputs;
    inputs.reserve(paths.size());
    for (const std::filesystem::path& path : paths) {
        inputs.push_back(openSource(path, options.open));
    }
    return std::make_unique<Scene>(std::move(inputs), options);
}

} // namespace Tavrin::SplatSource
