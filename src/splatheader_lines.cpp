#include "src/splatheader_lines.h"

#include "src/platform.h"

#include <cstring>

namespace Tavrin::GaussionSplat {

LineReader::LineReader(const std::string& path)
    : file_(nativePath(path), std::ios::binary), buffer_(std::size_t{64} * 1024) {}

// Take what the stream's own buffer holds, after filling it if it is empty. False at the end of the file.
bool LineReader::refill() {
    if (file_.peek() == std::ifstream::traits_type::eof()) {
        ended_ = true;
        return false;
    }
    used_ = 0;
    filled_ = static_cast<std::size_t>(
        file_.readsome(buffer_.data(), static_cast<std::streamsize>(buffer_.size())));
    return filled_ > 0;
}

bool LineReader::next(std::string& line) {
    line.clear();
    for (bool isAny = false;; isAny = true) {
        if (used_ == filled_ && !refill()) {
            return isAny && !file_.bad();
        }
        const char* const begin = buffer_.data() + used_;
        const std::size_t size = filled_ - used_;
        const auto* const end = static_cast<const char*>(std::memchr(begin, '\n', size));
        const std::size_t taken = end != nullptr ? static_cast<std::size_t>(end - begin) : size;
        line.append(begin, taken);
        const std::size_t consumed = taken + (end != nullptr ? 1 : 0);
        used_ += consumed;
        position_ += static_cast<std::int64_t>(consumed);
        if (end != nullptr) {
            return true;
        }
    }
}

std::int64_t LineReader::position() {
    if (!ended_) {
        return position_;
    }
    file_.clear(); // a stream at its end has no position
    file_.seekg(0, std::ios::end);
    return file_.tellg();
}

} // namespace Tavrin::GaussionSplat
