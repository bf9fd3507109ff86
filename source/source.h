// Where the records of a conversion come from: one narrow interface over every kind of input.
#pragma once

#include "src/records.h"

#include <cstdint>
#include <stdexcept>
#include <string>

namespace Tavrin::SplatSource {

// An input that cannot be read as what it claims to be. The message is one line: the file, the place in it,
// what is wrong and what to do.
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

    // Records of the input, those that read leaves out among them.
    std::uint64_t count = 0;
    // Records are of the larger form.
    bool hasCoefficients = false;
    // What the header states, as the converter's header reader understands it: numbers in single precision.
    GaussionSplat::Params params;
    // A comment minx or maxx was seen: params.dataType follows from it where no comment states one.
    bool boundsSeen = false;

    // Writes the canonical form of the input's records [first, first + size) to `records`, in their order,
    // and returns how many there are: fewer than `size` only where records are dropped. `records` has room
    // for `size`; first + size is at most count. The same range gives the same records every time. Safe from
    // several threads at once. Throws SourceError or SourceChanged.
    virtual std::uint64_t read(std::uint64_t first, std::uint64_t size, float* records) const = 0;

    // The box of a scene whose header states no usable one holds the origin and the position of every record.
    // The converter's own scan of a file may step differently from its records. Then this is the number of
    // positions that the scan sees; otherwise it is 0, and the records' own positions count. readBoxPositions
    // writes positions [first, first + size), three floats each, to the start of `positions`, which has room
    // for records of the larger form.
    virtual std::uint64_t boxPositions() const { return 0; }
    virtual void readBoxPositions(std::uint64_t first, std::uint64_t size, float* positions) const;

    // Called where no usable bounds are stated, with the box of all records that read gives. May write it to
    // `stated` as the scene's bounds, so that the dataset has them. The default writes nothing.
    virtual void stateBox(const float (&)[3], const float (&)[3], GaussionSplat::Params&) const {}

    // Throws SourceChanged when a file of the source is no longer the one that was opened: its size, its time
    // of change or its identity differs.
    virtual void requireUnchanged() const = 0;
};

} // namespace Tavrin::SplatSource
