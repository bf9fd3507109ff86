#include "program/compare/cell_readers.h"

#include <algorithm>

namespace Tavrin::SplatProgram {

namespace {
constexpr std::size_t budget = std::size_t{64} << 20; // bytes of all windows
constexpr std::size_t largestWindow = 1024;           // records
} // namespace

CellReaders::CellReaders(const SplatReader::Dataset& dataset)
    : m_coefficientSize(dataset.coefficientSize()), m_data(dataset.folder(), SplatReader::Format::dataFile) {
    if (m_coefficientSize > 0) {
        m_coefficients.emplace(dataset.folder(), SplatReader::Format::coefficientFile);
    }
    const std::size_t recordBytes = SplatReader::Format::recordSize + m_coefficientSize;
    const std::size_t share = budget / std::max<std::size_t>(dataset.cellCount(), 1) / recordBytes;
    m_windowRecords = std::clamp<std::size_t>(share, 1, largestWindow);
    m_windows.resize(dataset.cellCount());
    for (std::size_t cell = 0; cell < dataset.cellCount(); ++cell) {
        const SplatReader::LevelRange& range = dataset.range(cell, 0);
        m_windows[cell].next = range.offset / SplatReader::Format::recordSize;
        m_windows[cell].end = m_windows[cell].next + range.count;
        // A key that stands for several grid cells can come again, the second time without splats.
        m_cells.emplace(dataset.cellKey(cell), cell);
    }
}

std::optional<std::size_t> CellReaders::find(std::uint32_t key) {
    Remembered& entry = m_remembered[(key ^ key >> 11) % m_remembered.size()];
    if (entry.cellAndOne == 0 || entry.key != key) {
        const auto found = m_cells.find(key);
        if (found == m_cells.end()) {
            return std::nullopt;
        }
        entry = {key, found->second + 1};
    }
    return entry.cellAndOne - 1;
}

std::optional<SplatReader::RecordCursor::View> CellReaders::next(std::size_t cell) {
    Window& window = m_windows[cell];
    if (window.next == window.end) {
        return std::nullopt;
    }
    if (window.at == window.filled) {
        fill(window);
    }
    const std::size_t at = window.at++;
    return SplatReader::RecordCursor::View{
        window.next++, window.data.data() + at * SplatReader::Format::recordSize,
        m_coefficients ? window.coefficients.data() + at * m_coefficientSize : nullptr};
}

std::uint64_t CellReaders::unread(std::size_t cell) const {
    return m_windows[cell].end - m_windows[cell].next;
}

void CellReaders::fill(Window& window) {
    window.filled =
        static_cast<std::size_t>(std::min<std::uint64_t>(m_windowRecords, window.end - window.next));
    window.at = 0;
    window.data.resize(window.filled * SplatReader::Format::recordSize);
    m_data.read(window.next * SplatReader::Format::recordSize, window.data.data(), window.data.size());
    if (m_coefficients) {
        window.coefficients.resize(window.filled * m_coefficientSize);
        m_coefficients->read(window.next * m_coefficientSize, window.coefficients.data(),
                             window.coefficients.size());
    }
}

} // namespace Tavrin::SplatProgram
