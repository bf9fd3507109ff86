// Opening the inputs of a command as one scene.
#pragma once

#include "source/merge.h"

#include <array>
#include <memory>
#include <string>
#include <vector>

namespace Tavrin::SplatProgram {

// Every input is a readable file of splats, named as the user did. Throws a Failure: InputRefused;
// ConversionFailed when a file is written to meanwhile; DoesNotFit when there is no room to unpack one, and
// OutputRefused when it cannot be unpacked for another reason. What deserves a warning is in the scene's
// remarks.
std::unique_ptr<SplatSource::Scene> openScene(const std::vector<std::string>& names,
                                              const SplatSource::SceneOptions& options);

// To be called when every record has been read: throws a Failure (InputRefused) for values that are not what
// they are taken for, and for invalid splats where they are not wanted.
void requireAccepted(const SplatSource::Scene& scene);

// "12 splats are dropped: 7 invalid (6 positions, 1 rotation), 5 outside the crop"; empty when none is.
std::string droppedText(const SplatSource::Ledger& ledger);

// An offset as a dataset keeps it, all digits of it: "500137, 5414436, 312".
std::string offsetNumbers(const std::array<double, 3>& offset);

// What to say of the offset: "(500137, 5414436, 312), chosen; positions are off by at most 0.06 mm".
std::string offsetText(const SplatSource::Scene& scene);

// The inputs as one word for messages: the first, and how many more there are.
std::string namesText(const std::vector<std::string>& names);

} // namespace Tavrin::SplatProgram
