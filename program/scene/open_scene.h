// Opens the inputs of a command as one scene.
#pragma once

#include "program/system/exit_status.h"
#include "source/merge.h"
#include "stream/conversion.h"

#include <array>
#include <memory>
#include <string>
#include <vector>

namespace Tavrin::SplatProgram {

// Opens the files `names` (as the user named them) and merges them. The scene's remarks hold the warnings.
// Throws a Failure: InputRefused for a file that is not readable or not splats; ConversionFailed when a file
// changes meanwhile; DoesNotFit or OutputRefused when an input cannot be unpacked; Interrupted, which later
// reads throw, too (options.open.pause is replaced).
std::unique_ptr<SplatSource::Scene> openScene(const std::vector<std::string>& names,
                                              SplatSource::SceneOptions options);

// Opens one input by its header alone (see SplatSource::openHeader). Throws a Failure (InputRefused).
std::unique_ptr<SplatSource::Input> openHeader(const std::string& name);

// Call in a catch block. Rethrows an exception of `source` as a Failure: InputRefused for SourceError,
// `changed` for SourceChanged; for ScratchError DoesNotFit when the disk has no room to unpack an input, else
// OutputRefused. Rethrows any other exception as it is.
[[noreturn]] void rethrowAsFailure(ExitStatus changed);

// Call this when every record has been read. Throws a Failure (InputRefused) when scales or opacities turn
// out to be of the other kind (linear or not), or when there are invalid splats and --strict is set.
void requireAccepted(const SplatSource::Scene& scene);

// "12 splats are dropped: 7 invalid (6 positions, 1 rotation), 5 outside the crop"; empty if none is.
std::string droppedText(const SplatSource::Ledger& ledger);

// An offset with all digits that a dataset keeps: "500137, 5414436, 312".
std::string offsetNumbers(const std::array<double, 3>& offset);

// The offset and its effect on positions in `extent`: "(500137, 5414436, 312), chosen; positions are off by
// at most 0.06 mm".
std::string offsetText(const SplatSource::Scene& scene, const SplatSource::Box& extent);

// The box of the finite positions of a measured scene.
SplatSource::Box extentOf(const SplatStream::Measured& measured);

// The inputs for messages: the first name and how many more there are.
std::string namesText(const std::vector<std::string>& names);

} // namespace Tavrin::SplatProgram
