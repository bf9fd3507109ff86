// The two passes of a conversion with the program's progress, interrupts and failures.
#pragma once

#include "source/source.h"
#include "stream/conversion.h"

#include <cstdint>
#include <filesystem>
#include <functional>
#include <string>

namespace Tavrin::SplatProgram {

// What a conversion may use.
struct Means {
    unsigned threads = 1;         // workers of a pass
    std::uint64_t memory = 0;     // bytes that a pass may allocate
    bool isMemoryStated = false;  // by --max-memory, and less than what is free
    std::uint64_t freeMemory = 0; // bytes that the machine has free
};

// Called now and then, by one thread at a time, with the splats that a pass has done.
using PassProgress = std::function<void(std::uint64_t splats)>;

// `threads` 0: as many as this process may use. `maxMemory` 0: as much as is free.
Means chooseMeans(unsigned threads, std::uint64_t maxMemory);

// The first pass. Throws a Failure: Interrupted; InputRefused when the input cannot be read as what it claims
// to be; DoesNotFit when the memory does not suffice; ConversionFailed when it was written to meanwhile.
SplatStream::Measured measureSource(const std::string& name, const SplatSource::Source& source,
                                    const Means& means, const PassProgress& progress);

// Bytes that the pass which needs more allocates at its peak. `means` are those that the scene was measured
// with.
std::uint64_t memoryOfPasses(const SplatSource::Source& source, const SplatStream::Measured& measured,
                             const Means& means);

// The second pass: the whole dataset into an empty folder. Throws as measureSource does, and a Failure
// when a file cannot be written: DoesNotFit where the disk is full, else ConversionFailed.
void writeDataset(const std::string& name, const SplatSource::Source& source,
                  const SplatStream::Measured& measured, const std::filesystem::path& folder,
                  const Means& means, const PassProgress& progress);

} // namespace Tavrin::SplatProgram
