#include "reader/files.h"

#include <algorithm>
#include <cstring>
#include <system_error>

namespace Tavrin::SplatReader {

std::string textOf(const std::filesystem::path& path) {
    const std::u8string text = path.u8string();
    return std::string(text.begin(), text.end());
}

DatasetFile::DatasetFile(const std::filesystem::path& folder, std::string_view name) : name_(name) {
    const std::filesystem::path path = folder / std::filesystem::path(name_);
    std::error_code error;
    const std::filesystem::file_status status = std::filesystem::status(path, error);
    if (!std::filesystem::is_regular_file(status)) {
        throw DatasetError({name_, 0, "a file",
                            !std::filesystem::exists(status) ? "none at " + textOf(path)
                                                             : "something else at " + textOf(path),
                            "file-missing"});
    }
    size_ = std::filesystem::file_size(path, error);
    stream_.open(path, std::ios::binary);
    if (error || !stream_) {
        throw DatasetError(
            {name_, 0, "a readable file", "one that cannot be opened at " + textOf(path), "file-missing"});
    }
}

void DatasetFile::read(std::uint64_t offset, std::byte* target, std::size_t count) {
    stream_.clear();
    stream_.seekg(static_cast<std::streamoff>(offset));
    stream_.read(reinterpret_cast<char*>(target), static_cast<std::streamsize>(count));
    const auto got = static_cast<std::size_t>(std::max<std::streamsize>(0, stream_.gcount()));
    if (got != count) {
        throw DatasetError({name_, offset + got, std::to_string(count - got) + " more bytes",
                            "the end of the file", "file-short"});
    }
}

SequentialReader::SequentialReader(DatasetFile& file, std::uint64_t offset, std::uint64_t length,
                                   std::size_t window)
    : file_(&file), end_(offset + length), windowOffset_(offset),
      buffer_(static_cast<std::size_t>(std::min<std::uint64_t>(window, std::max<std::uint64_t>(length, 1)))) {
}

const std::byte* SequentialReader::take(std::size_t count) {
    if (filled_ - at_ < count) {
        const std::size_t kept = filled_ - at_;
        std::memmove(buffer_.data(), buffer_.data() + at_, kept);
        windowOffset_ += at_;
        at_ = 0;
        filled_ = kept;
        const std::uint64_t next = windowOffset_ + kept;
        const auto wanted =
            static_cast<std::size_t>(std::min<std::uint64_t>(buffer_.size() - kept, end_ - next));
        if (kept + wanted < count) {
            throw DatasetError({file_->name(), next + wanted,
                                std::to_string(count - kept - wanted) + " more bytes", "the end of the range",
                                "file-short"});
        }
        file_->read(next, buffer_.data() + kept, wanted);
        filled_ += wanted;
    }
    const std::byte* taken = buffer_.data() + at_;
    at_ += count;
    return taken;
}

} // namespace Tavrin::SplatReader
