// Reads index.bin as a stream of level ranges; for the reader's own files. Its memory does not depend on any
// count.
#pragma once

#include "reader/files.h"
#include "reader/format.h"
#include "reader/record.h"

#include <cstdint>

namespace Tavrin::SplatReader {

class IndexStream {
public:
    struct Range {
        std::uint64_t entry; // number of the entry
        std::uint64_t keyAt; // byte offset of the entry's key
        std::uint32_t key;
        std::uint32_t level;
        std::uint64_t rangeAt; // byte offset of this range
        std::uint32_t count;
        std::uint64_t offset;
        std::uint32_t size;
    };

    // Reads the first `entries` entries.
    IndexStream(DatasetFile& file, std::uint32_t levels, std::uint64_t entries)
        : reader_(file, 0, file.size()), levels_(levels), entries_(entries) {}

    bool next(Range& range) {
        if (level_ == levels_) {
            level_ = 0;
            ++entry_;
        }
        if (entry_ == entries_) {
            return false;
        }
        if (level_ == 0) {
            keyAt_ = reader_.offset();
            key_ = loadUnsigned<std::uint32_t>(reader_.take(Format::indexKeySize));
        }
        const std::uint64_t at = reader_.offset();
        const std::byte* bytes = reader_.take(Format::indexLevelSize);
        range = {entry_,
                 keyAt_,
                 key_,
                 level_++,
                 at,
                 loadUnsigned<std::uint32_t>(bytes),
                 loadUnsigned<std::uint64_t>(bytes + 4),
                 loadUnsigned<std::uint32_t>(bytes + 12)};
        return true;
    }

private:
    SequentialReader reader_;
    std::uint32_t levels_;
    std::uint64_t entries_;
    std::uint64_t entry_ = 0;
    std::uint32_t level_ = 0;
    std::uint64_t keyAt_ = 0;
    std::uint32_t key_ = 0;
};

} // namespace Tavrin::SplatReader
