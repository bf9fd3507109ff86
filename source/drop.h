// Decides which splats of an input are dropped, and counts them.
#pragma once

#include "source/input.h"

#include <array>
#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace Tavrin::SplatSource {

enum class DropReason { invalid, crop, opacity, scale };
inline constexpr std::size_t dropReasons = 4;
const char* nameOf(DropReason reason); // "invalid", "crop", "opacity", "scale"

// What the user asks to drop. Invalid splats are always dropped.
struct DropRules {
    std::optional<Box> crop{};          // in the file's coordinates; its faces are inside
    std::optional<double> minOpacity{}; // 0 to 1, of the opacity itself
    std::optional<double> maxScale{};   // linear, above 0

    bool areNone() const { return !crop && !minOpacity && !maxScale; }
};

enum class ScaleValues { told, linear, logarithms }; // told: the values tell
enum class OpacityValues { told, linear, logits };

// read = kept + all that was dropped.
struct Ledger {
    std::uint64_t read = 0;
    std::uint64_t kept = 0;
    std::array<std::uint64_t, dropReasons> dropped{};
    // The invalid splats by the first fault: position, scale, opacity, colour, coefficient, normal, rotation.
    std::array<std::uint64_t, 7> invalid{};
    std::uint64_t firstInvalid = UINT64_MAX; // record; UINT64_MAX when there is none

    std::uint64_t droppedInAll() const;
    Ledger& operator+=(const Ledger& other);
};

// "12 positions, 1 rotation": what is wrong with invalid splats.
std::string invalidText(const Ledger& ledger);

// An input without the splats that are dropped. Scales become logarithms and opacities logits.
class KeptSplats {
public:
    KeptSplats(std::unique_ptr<Input> input, const DropRules& rules, ScaleValues scales,
               OpacityValues opacities);

    const Input& input() const { return *input_; }

    // Reads the kept records of [first, first + size) in the input's form, as Input::readWide does, and
    // returns their number.
    std::uint64_t read(std::uint64_t first, std::uint64_t size, float* records, double* positions) const;

    // Counts the records read so far, each once however often it was read.
    Ledger ledger() const;

    // Call when every record has been read. Throws SourceError if the values look linear, that is if no scale
    // is negative or no opacity lies outside 0 to 1, and the caller has not said what they are.
    void requireUnits() const;

private:
    struct Part { // records that are counted: [first, end)
        std::uint64_t first;
        std::uint64_t end;
    };
    struct Finding {
        std::uint64_t record;
        DropReason reason;
        std::size_t wrong; // of Ledger::invalid
    };

    void makeUnits(std::uint64_t size, float* records) const;
    void lookAtUnits(std::uint64_t size, const float* records) const;
    bool areSound(std::uint64_t size, const float* records) const;
    std::optional<Finding> judge(const float* record, const double* position) const;
    std::uint64_t drop(std::uint64_t first, std::uint64_t size, float* records, double* positions,
                       std::vector<Finding>& findings) const;
    void count(std::uint64_t first, std::uint64_t size, const std::vector<Finding>& findings) const;
    void countPart(const Part& part, const std::vector<Finding>& findings) const;

    std::unique_ptr<Input> input_;
    GaussionSplat::RecordLayout layout_;
    DropRules rules_;
    ScaleValues scales_;
    OpacityValues opacities_;
    double leastLogit_ = 0.0;
    double mostScale_ = 0.0; // logarithm

    // What the values tell about their units: linear files have no negative scale and no opacity outside 0
    // to 1.
    mutable std::atomic<bool> hasNegativeScale_ = false;
    mutable std::atomic<bool> hasScale_ = false; // one that is not 0
    mutable std::atomic<bool> hasFarOpacity_ = false;
    mutable std::atomic<bool> hasOpacity_ = false;

    mutable std::mutex lock_;
    mutable std::vector<Part> counted_; // in order, neither touching nor overlapping
    mutable std::atomic<bool> isAllCounted_ = false;
    mutable Ledger ledger_;
};

} // namespace Tavrin::SplatSource
