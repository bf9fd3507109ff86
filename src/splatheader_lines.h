// The lines of a file's header, read without limit on their length.
#pragma once

#include <cstddef>
#include <cstdint>
#include <fstream>
#include <string>
#include <vector>

namespace Tavrin::GaussionSplat {

// Reads a binary file line by line. A line ends at a line feed only; the last one may end with the file. A
// read error counts as the end of the file, and the partial line before it is dropped.
//
// std::getline does the same, but it also takes a lack of memory for the end of the file. Here that is an
// exception.
class LineReader {
public:
    explicit LineReader(const std::string& path);

    bool isOpen() const { return file_.is_open(); }

    // Get the next line without its line feed; false at the end. Throws std::bad_alloc when a line does not
    // fit into memory.
    bool next(std::string& line);

    // Bytes up to the end of the last line. This is the size of the file once next has returned false, or
    // when the last line had no line feed.
    std::int64_t position();

private:
    bool refill();

    std::ifstream file_;
    std::vector<char> buffer_;
    std::size_t used_ = 0;   // bytes of buffer_ handed out
    std::size_t filled_ = 0; // bytes of buffer_ in use
    std::int64_t position_ = 0;
    bool ended_ = false; // the file has no more than buffer_
};

} // namespace Tavrin::GaussionSplat
