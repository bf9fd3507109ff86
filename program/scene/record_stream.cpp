#include "program/scene/record_stream.h"

#include "program/system/exit_status.h"
#include "program/system/interrupt.h"
#include "program/system/platform.h"

#include <algorithm>
#include <fmt/format.h>

namespace Tavrin::SplatProgram {

namespace {
constexpr std::uint64_t windowBytes = 1 << 20;
} // namespace

RecordStream::RecordStream(const std::filesystem::path& path, std::uint64_t offset, std::uint64_t stride,
                           std::uint64_t count, std::uint64_t windowRecords)
    : m_path(path), m_offset(offset), m_stride(stride), m_count(count), m_windowRecords(windowRecords) {
    m_stream.rdbuf()->pubsetbuf(nullptr, 0); // windows are read straight into their place
    m_stream.open(path, std::ios::binary);
}

const std::byte* RecordStream::next() {
    if (m_position >= m_count) {
        return nullptr;
    }
    if (m_position >= m_windowFirst + m_windowCount) {
        m_windowCount = readAt(m_position, m_window);
        m_windowFirst = m_position;
    }
    const std::byte* record = m_window.data() + (m_position - m_windowFirst) * m_stride;
    ++m_position;
    return record;
}

std::uint64_t RecordStream::read(std::vector<std::byte>& records) {
    const std::uint64_t count = m_position < m_count ? readAt(m_position, records) : 0;
    m_position += count;
    return count;
}

void RecordStream::skip(std::uint64_t records) {
    m_position += std::min(records, m_count - m_position);
}

std::uint64_t RecordStream::readAt(std::uint64_t first, std::vector<std::byte>& records) {
    throwIfInterrupted();
    const std::uint64_t count = std::min({std::max<std::uint64_t>(windowBytes / m_stride, 1),
                                          std::max<std::uint64_t>(m_windowRecords, 1), m_count - first});
    records.resize(count * m_stride);
    const std::uint64_t at = m_offset + first * m_stride;
    m_stream.seekg(static_cast<std::streamoff>(at));
    m_stream.read(reinterpret_cast<char*>(records.data()), static_cast<std::streamsize>(records.size()));
    if (!m_stream) {
        throw Failure(
            ExitStatus::InputRefused,
            fmt::format("{}: the file ends or cannot be read inside the {} bytes from byte {} on: check the "
                        "file and the disk",
                        textFromPath(m_path), records.size(), at));
    }
    return count;
}

} // namespace Tavrin::SplatProgram
