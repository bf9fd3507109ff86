// The two stages of place. The log has lines between them.
#pragma once

#include "stream/conversion.h"

namespace Tavrin::SplatStream {

// data.bin and shcoef.bin.
void placeRecords(const SplatSource::Source& source, const Measured& measured,
                  const std::filesystem::path& folder, const Settings& settings);

// index.bin.
void writeIndex(const Measured& measured, const std::filesystem::path& folder);

} // namespace Tavrin::SplatStream
