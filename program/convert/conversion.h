// Runs the two passes of the stream, with the program's progress, interrupts and failures.
#pragma once

#include "source/source.h"
#include "stream/conversion.h"

#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>

namespace Tavrin::SplatProgram {

// The threads and the memory that a conversion may use.
struct Means {
    unsigned threads = 1;         // workers of a pass
    std::uint64_t memory = 0;     // bytes that a pass may allocate
    bool isMemoryStated = false;  // --max-memory was given and is less than the free memory
    std::uint64_t freeMemory = 0; // bytes that the machine has free
};

// Called now and then, by one thread at a time, with the number of splats that the pass has finished.
using PassProgress = std::function<void(std::uint64_t splats)>;

// Fills in the defaults: `threads` 0 means as many as this process may use, `maxMemory` 0 (bytes) means all
// free memory.
Means chooseMeans(unsigned threads, std::uint64_t maxMemory);

// The same for a run elsewhere, about whose memory nothing is known.
Means meansElsewhere(unsigned threads, std::uint64_t maxMemory);

// The first pass. Throws a Failure: Interrupted; InputRefused when the input cannot be read as the format
// that it claims; DoesNotFit when the memory is too small; ConversionFailed when the input changed meanwhile;
// DoesNotFit or OutputRefused when the input cannot be unpacked.
SplatStream::Measured measureSource(const std::string& name, const SplatSource::Source& source,
                                    const Means& means, const PassProgress& progress);

// Peak resident bytes of the process during a whole conversion. `means` must be those of measureSource.
// Throws a Failure (DoesNotFit) whose line begins with `name`.
std::uint64_t plannedMemory(const std::string& name, const SplatSource::Source& source,
                            const SplatStream::Measured& measured, const Means& means);

// The second pass. Writes the whole dataset into an empty folder. Throws as measureSource does. When a file
// cannot be written it throws a Failure: DoesNotFit on a full disk, otherwise ConversionFailed. After an
// interrupt it does not wait for a write that the disk holds up (program/system/apart.h): the pass then goes
// on in the background, shares `source` and `measured`, and does not call `progress` any more.
void writeDataset(const std::string& name, const std::shared_ptr<const SplatSource::Source>& source,
                  const std::shared_ptr<const SplatStream::Measured>& measured,
                  const std::filesystem::path& folder, const Means& means, const PassProgress& progress);

} // namespace Tavrin::SplatProgram
