#include "src/blocks.h"

#include "src/platform.h"

#include <cstring>

namespace Tavrin::GaussionSplat {

std::uint64_t blockSplats = 2'000'000;

RecordReader::RecordReader(const std::string& path) {
    file_.rdbuf()->pubsetbuf(nullptr, 0); // windows are read straight into their place
    file_.open(nativePath(path), std::ios::binary);
}

void RecordReader::read(std::uint64_t offset, void* destination, std::uint64_t length) {
    // Clear the flags: an earlier window may have met the end of the file. An offset beyond the range of
    // stream positions becomes negative, and the seek fails.
    file_.clear();
    file_.seekg(static_cast<std::streamoff>(offset));
    std::uint64_t got = 0;
    if (file_.read(static_cast<char*>(destination), static_cast<std::streamsize>(length)) || file_.eof()) {
        got = static_cast<std::uint64_t>(file_.gcount());
    }
    std::memset(static_cast<char*>(destination) + got, 0, length - got);
}

} // namespace Tavrin::GaussionSplat
