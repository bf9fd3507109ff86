// A whole scene: its inputs one after the other, without dropped splats, all moved to one offset.
#pragma once

#include "source/bulk.h"
#include "source/drop.h"
#include "source/open.h"

#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace Tavrin::SplatSource {

// What the user chooses about the inputs.
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

// Largest coordinate that needs no offset, in the scene's units taken as metres. Up to it, half a step of
// single precision is below half a millimetre.
inline constexpr double largestExactCoordinate = 16384.0;

// Inputs in the order given, each with its own layout, degree and offset. Positions are moved in double
// precision to the offset of the dataset. The scene has the highest degree of all inputs; missing
// coefficients are 0. params holds what the dataset states.
//
// If no header states an offset and coordinates in double are too large for single precision, one is chosen.
// It consists of whole numbers that single precision holds, and keeps every position to half a millimetre. If
// positions lie too far apart for that, it does so for their bulk. A stated offset that single precision does
// not hold is cut to whole numbers; the rest moves into the positions.
class Scene final : public Source {
public:
    // `inputs` has at least one. If an offset may have to be chosen, reads all positions, on
    // options.open.threads threads. Throws SourceError when the inputs cannot be one scene.
    Scene(std::vector<std::unique_ptr<Input>> inputs, const SceneOptions& options);

    std::uint64_t read(std::uint64_t first, std::uint64_t size, float* records) const override;
    std::uint64_t boxPositions() const override;
    void readBoxPositions(std::uint64_t first, std::uint64_t size, float* positions) const override;
    // A scene without coefficients and without a stated box states the box of its records, because the
    // converter's own scan would step by the wrong record size. The box is widened by the least that makes
    // the converter accept it.
    void stateBox(const float (&min)[3], const float (&max)[3], GaussionSplat::Params& params) const override;
    void requireUnchanged() const override;

    const std::vector<std::unique_ptr<KeptSplats>>& inputs() const { return inputs_; }

    // What is added to the positions of an input, in the scene's units.
    const Point& moveOf(std::size_t input) const { return moves_[input]; }

    // Counts the records read so far.
    Ledger ledger() const;

    // Call when every record has been read. Throws SourceError when values look linear and the options do not
    // say what they are, or when splats are invalid and the options are strict.
    void requireAccepted() const;

    // The largest distance on an axis between a position of an input and position + offset of the dataset,
    // for positions in `box`, which is in the scene's coordinates. 0 if positions are kept bit for bit.
    double errorWithin(const Box& box) const;

    // The box of the scene's positions without the cropped ones, before other splats are dropped. Reads all
    // positions.
    Box measureBox(unsigned threads) const;

    // No position is moved, and single precision holds them all.
    bool isExact = true;
    // The box of the bulk of the positions, by a sample. Set if positions are too far apart for one offset,
    // which then suits the bulk.
    std::optional<Box> bulk;
    bool isOffsetChosen = false;      // no header states the offset
    bool isOffsetCut = false;         // the stated one had to be cut to whole numbers
    std::vector<std::string> remarks; // of all inputs, each with the file's name

    // The inputs' later remarks, in the same form. Call when every record has been read. Throws as read does.
    std::vector<std::string> laterRemarks() const;

private:
    void settleParams(const SceneOptions& options);
    void settleOffset(const SceneOptions& options);
    void moveBounds();
    void chooseOffset(unsigned threads, Point& offset);
    SampledAxes samplePositions() const;
    Point statedOffset(std::size_t input, const SceneOptions& options) const;
    void finish(const KeptSplats& input, const Point& move, std::uint64_t kept, float* records,
                const double* positions) const;

    std::vector<std::unique_ptr<KeptSplats>> inputs_;
    std::vector<std::uint64_t> firsts_; // number of each input's first record in the scene
    std::vector<Point> moves_;          // what is added to the positions of an input
    DropRules rules_;
    Pause pause_; // may be empty
    bool isStrict_;
    bool isKindStated_ = false; // the kind of data: by a comment or an option
};

// Opens the inputs and merges them.
std::unique_ptr<Scene> openScene(const std::vector<std::filesystem::path>& paths,
                                 const SceneOptions& options);

} // namespace Tavrin::SplatSource
