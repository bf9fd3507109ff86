#include "program/scene/record_stream.h"

#include "program/system/exit_status.h"
#include "program/system/interrupt.h"
#include "program/system/platform.h"

#include <fmt/format.h>

#include <algorithm>

namespace Tavrin::SplatProgram {

namespace {
constexpr std::uint64_t windowBytes = 1 << 20;
} // namespace

RecordStream::RecordStream(const std::filesystem::path& path, std::uint64_t offset, std::uint64_t stride,
                           std::uint64_t count, std::uint64_t windowRecords)
    : path_(path), offset_(offset), stride_(stride), count_(count), windowRecords_(windowRecords) {
    stream_.rdbuf()->pubsetbuf(nullptr, 0); // no buffer: windows are read directly into `records`
    stream_.open(path, std::ios::binary);
}

const std::byte* RecordStream::next() {
    if (position_ >= count_) {
        return nullptr;
    }
    if (position_ >= windowFirst_ + windowCount_) {
        windowCount_ = readAt(position_, window_);
        windowFirst_ = position_;
    }
    const std::byte* record = window_.data() + (position_ - windowFirst_) * stride_;
    ++position_;
    return record;
}

std::uint64_t RecordStream::read(std::vector<std::byte>& records) {
    const std::uint64_t count = position_ < count_ ? readAt(position_, records) : 0;
    position_ += count;
    return count;
}

void RecordStream::skip(std::uint64_t records) {
    position_ += std::min(records, count_ - position_);
}

std::uint64_t RecordStream::readAt(std::uint64_t first, std::vector<std::byte>& records) {
    throwIfInterrupted();
    const std::uint64_t count = std::min({std::max<std::uint64_t>(windowBytes / stride_, 1),
                                          std::max<std::uint64_t>(windowRecords_, 1), count_ - first});
    records.resize(count * stride_);
    const std::uint64_t at = offset_ + first * stride_;
    stream_.seekg(static_cast<std::streamoff>(at));
    stream_.read(reinterpret_cast<char*>(records.data()), static_cast<std::streamsize>(records.size()));
    if (!stream_) {
        throw Failure(
            ExitStatus::inputRefused,
            fmt::format("{}: the file ends or cannot be read within the {} bytes from byte {} on: check the "
                        "file and the disk",
                        textFromPath(path_), records.size(), at));
    }
    return count;
}

} // namespace Tavrin::SplatProgram
