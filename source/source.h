// The interface to the records of a conversion, for every kind of input.
#pragma once

#include "src/records.h"

#include <cstdint>
#include <stdexcept>
#include <string>

namespace Tavrin::SplatSource {

// An input that is not valid in its format. The message is one line: the file, the place in it, what is wrong
// and what to do.
struct SourceError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// An input that was cut, replaced or written to since it was opened, or that the system fails to read. The
// message is one line.
struct SourceChanged : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// A scene as a sequence of canonical vertex records (src/records.h): the larger form with coefficients, the
// smaller without. Opening a source reads headers alone. Records are read on demand and not kept.
struct Source {
    Source() = default;
    Source(const Source&) = delete;
    Source& operator=(const Source&) = delete;
    virtual ~Source() = default;

    // The number of records of the input, including those that read drops.
    std::uint64_t count = 0;
    // Records have the larger form.
    bool hasCoefficients = false;
    // What the header states, as the converter reads it: numbers in single precision.
    GaussionSplat::Params params;
    // A comment minx or maxx was seen. params.dataType follows from it unless a comment states one.
    bool boundsSeen = false;

    // Writes the canonical form of the input's records [first, first + size) to `records`, in their order,
    // and returns their number, which is below `size` only if records are dropped. `records` has room for
    // `size`; first + size is at most count. The same range gives the same records every time. Thread-safe.
    // Throws SourceError or SourceChanged.
    virtual std::uint64_t read(std::uint64_t first, std::uint64_t size, float* records) const = 0;

    // If the header states no usable box, it is the box of the origin and all positions. The converter's own
    // scan of a file may step differently from its records. If so, boxPositions is the number of positions
    // that the scan sees, and readBoxPositions writes the positions [first, first + size) of them, three
    // floats each, to the start of `positions`, which has room for records of the larger form. Otherwise
    // boxPositions is 0, and the records' own positions count.
    virtual std::uint64_t boxPositions() const { return 0; }
    virtual void readBoxPositions(std::uint64_t first, std::uint64_t size, float* positions) const;

    // Called with the box of all records that read gives, if no usable bounds are stated. May write it to the
    // parameters as the scene's bounds, so that the dataset has them. The default writes nothing.
    virtual void stateBox(const float (&)[3], const float (&)[3], GaussionSplat::Params&) const {}

    // Throws SourceChanged when a file of the source is no longer the one that was opened: its size, its time
    // of change or its identity differs.
    virtual void requireUnchanged() const = 0;
};

} // namespace Tavrin::SplatSource
