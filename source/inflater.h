// Unpacks gzip and zstd data from a part of a file, one buffer at a time.
#pragma once

#include "source/record_file.h"

#include <cstdint>
#include <memory>

namespace Tavrin::SplatSource {

// The first gzip member of a file.
class GzipReader {
public:
    // The file must outlive the object. Throws SourceError from all functions when the data is damaged.
    explicit GzipReader(const RecordFile& file);
    ~GzipReader();
    GzipReader(const GzipReader&) = delete;
    GzipReader& operator=(const GzipReader&) = delete;

    // Writes at most size unpacked bytes. There are fewer only at the end of the member. Its checksum and
    // length have then been checked.
    std::uint64_t read(std::uint8_t* bytes, std::uint64_t size);

    bool isAtEnd() const;
    // Throws SourceError when there is more to unpack.
    void requireEnd();
    std::uint64_t bytesRead() const; // of the file, up to the end of the member

private:
    struct State;
    std::unique_ptr<State> state_;
};

// Consecutive zstd frames in [at, at + packed) of a file.
class ZstdReader {
public:
    // As GzipReader.
    ZstdReader(const RecordFile& file, std::uint64_t at, std::uint64_t packed);
    ~ZstdReader();
    ZstdReader(const ZstdReader&) = delete;
    ZstdReader& operator=(const ZstdReader&) = delete;

    // Writes at most size unpacked bytes; fewer only at the end.
    std::uint64_t read(std::uint8_t* bytes, std::uint64_t size);
    // Throws SourceError when there is more to unpack or a frame is not whole.
    void requireEnd();

private:
    struct State;
    std::unique_ptr<State> state_;
};

} // namespace Tavrin::SplatSource
