// A whole scene: inputs one after the other, what is dropped left out, all of it in one place.
#pragma once

#include "source/drop.h"
#include "source/open.h"

#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace Tavrin::SplatSource {

// What a user settles about the inputs.
struct SceneOptions {
    OpenOptions open{};
    DropRules rules{};
    ScaleValues scales = ScaleValues::told;
    OpacityValues opacities = OpacityValues::told;
    bool isStrict = false; // refuse invalid splats instead of dropping them
    // In place of what the headers say.
    std::optional<std::int32_t> epsg{};
    std::optional<Point> offset{};
    std::optional<std::string> source{};
    std::optional<std::string> dataType{};
};

// Largest error of a place, in the scene's units taken as metres, that needs no offset: half of the step that
// single precision takes is below half a millimetre up to this coordinate.
inline constexpr double largestExactCoordinate = 16384.0;

// Inputs in the order given, each with its own layout, degree and offset, moved in double to the offset of
// the dataset. The highest degree rules: missing coefficients are 0. params holds what the dataset states.
//
// Where no header states an offset and coordinates in double are too large for single precision, one is
// chosen: whole numbers that single precision holds. A stated offset that it does not hold is cut to whole
// numbers, and the rest moves into the positions.
class Scene final : public Source {
public:
    // At least one input. Throws SourceError when they cannot be one scene. Reads the positions of inputs
    // that have to be moved or hold more than single precision, on options.open.threads threads.
    Scene(std::vector<std::unique_ptr<Input>> inputs, const SceneOptions& options);

    std::uint64_t read(std::uint64_t first, std::uint64_t size, float* records) const override;
    std::uint64_t boxPositions() const override;
    void readBoxPositions(std::uint64_t first, std::uint64_t size, float* positions) const override;
    // A scene without coefficients states the box of its records where no header does, widened by the least
    // that makes the converter take it: its own scan steps by the wrong record size there.
    void stateBox(const float (&min)[3], const float (&max)[3], GaussionSplat::Params& params) const override;
    void requireUnchanged() const override;

    const std::vector<std::unique_ptr<KeptSplats>>& inputs() const { return inputs_; }

    // Of the records that were read so far.
    Ledger ledger() const;

    // To be called when every record has been read: throws SourceError when the values are linear and nobody
    // has said so, or splats are invalid and the options are strict.
    void requireAccepted() const;

    // Largest distance between a place of an input and position + offset of the dataset, per axis; 0 where
    // positions are kept bit for bit.
    double largestError = 0.0;
    bool isOffsetChosen = false;      // no header states the offset
    bool isOffsetCut = false;         // the stated one had to be cut to whole numbers
    std::vector<std::string> remarks; // of all inputs, each with the file's name

private:
    void settleParams(const SceneOptions& options);
    void settleOffset(const SceneOptions& options);
    void moveBounds();
    Box boxOf(unsigned threads) const;
    Point statedOffset(std::size_t input, const SceneOptions& options) const;
    void finish(const KeptSplats& input, const Point& move, std::uint64_t kept, float* records,
                const double* positions) const;

    std::vector<std::unique_ptr<KeptSplats>> inputs_;
    std::vector<std::uint64_t> firsts_; // number of each input's first record in the scene
    std::vector<Point> moves_;          // what is added to the positions of an input
    DropRules rules_;
    bool isStrict_;
    bool isKindStated_ = false; // the kind of data: by a comment or an option
};

// Opens the inputs and puts them together.
std::unique_ptr<Scene> openScene(const std::vector<std::filesystem::path>& paths,
                                 const SceneOptions& options);

} // namespace Tavrin::SplatSource
