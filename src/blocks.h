// Cuts a file into blocks and reads the records of a block, for both parallel passes.
#pragma once

#include <cstdint>
#include <fstream>
#include <string>

namespace Tavrin::GaussionSplat {

// Records of one block, the unit of work of both parallel passes: 2,000,000. Only tests set it, to get
// several blocks in a small scene.
extern std::uint64_t blockSplats;

// Records of a window. A window of the larger records is 254 KB and stays in the second-level cache between
// the read and the work. The bytes are those of one read of the whole block.
inline constexpr std::uint64_t windowRecords = 1024;

// Call body(first, count) for each block of a file of vertexCount records, in file order. There are none for
// zero or less.
template <typename Body>
void forEachBlock(std::int64_t vertexCount, Body body) {
    std::uint64_t remaining = vertexCount > 0 ? static_cast<std::uint64_t>(vertexCount) : 0;
    for (std::uint64_t first = 0; remaining > 0;) {
        const std::uint64_t count = remaining < blockSplats ? remaining : blockSplats;
        body(first, count);
        first += count;
        remaining -= count;
    }
}

// The number of blocks of such a file.
inline std::uint64_t countBlocks(std::int64_t vertexCount) {
    const std::uint64_t records = vertexCount > 0 ? static_cast<std::uint64_t>(vertexCount) : 0;
    return records / blockSplats + (records % blockSplats != 0 ? 1 : 0);
}

// Reads pieces of one file. A short read or an impossible position is no error: bytes that cannot be read are
// zeros.
struct RecordReader {
    explicit RecordReader(const std::string& path);

    bool isOpen() const { return file_.is_open(); }

    // Fill destination with the bytes of the file at [offset, offset + length).
    void read(std::uint64_t offset, void* destination, std::uint64_t length);

private:
    std::ifstream file_;
};

} // namespace Tavrin::GaussionSplat
