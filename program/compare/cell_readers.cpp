#include "program/compare/cell_readers.h"

#include <algorithm>

namespace Tavrin::SplatProgram {

namespace {
constexpr std::size_t budget = std::size_t{64} << 20; // bytes of all windows
constexpr std::size_t largestWindow = 1024;           // records
} // namespace

CellReaders::CellReaders(const SplatReader::Dataset& dataset)
    : coefficientSize_(dataset.coefficientSize()), data_(dataset.folder(), SplatReader::Format::dataFile) {
    if (coefficientSize_ > 0) {
        coefficients_.emplace(dataset.folder(), SplatReader::Format::coefficientFile);
    }
    const std::size_t recordBytes = SplatReader::Format::recordSize + coefficientSize_;
    const std::size_t share = budget / std::max<std::size_t>(dataset.cellCount(), 1) / recordBytes;
    windowRecords_ = std::clamp<std::size_t>(share, 1, largestWindow);
    windows_.resize(dataset.cellCount());
    for (std::size_t cell = 0; cell < dataset.cellCount(); ++cell) {
        const SplatReader::LevelRange& range = dataset.range(cell, 0);
        windows_[cell].next = range.offset / SplatReader::Format::recordSize;
        windows_[cell].end = windows_[cell].next + range.count;
        // Several grid cells can share a key. The index then repeats the key without splats; the first entry
        // counts.
        cells_.emplace(dataset.cellKey(cell), cell);
    }
}

std::optional<std::size_t> CellReaders::find(std::uint32_t key) {
    Remembered& entry = remembered_[(key ^ key >> 11) % remembered_.size()];
    if (entry.cellAndOne == 0 || entry.key != key) {
        const auto found = cells_.find(key);
        if (found == cells_.end()) {
            return std::nullopt;
        }
        entry = {key, found->second + 1};
    }
    return entry.cellAndOne - 1;
}

std::optional<SplatReader::RecordCursor::View> CellReaders::next(std::size_t cell) {
    Window& window = windows_[cell];
    if (window.next == window.end) {
        return std::nullopt;
    }
    if (window.at == window.filled) {
        fill(window);
    }
    const std::size_t at = window.at++;
    return SplatReader::RecordCursor::View{
        window.next++, window.data.data() + at * SplatReader::Format::recordSize,
        coefficients_ ? window.coefficients.data() + at * coefficientSize_ : nullptr};
}

std::uint64_t CellReaders::unread(std::size_t cell) const {
    return windows_[cell].end - windows_[cell].next;
}

void CellReaders::fill(Window& window) {
    window.filled =
        static_cast<std::size_t>(std::min<std::uint64_t>(windowRecords_, window.end - window.next));
    window.at = 0;
    window.data.resize(window.filled * SplatReader::Format::recordSize);
    data_.read(window.next * SplatReader::Format::recordSize, window.data.data(), window.data.size());
    if (coefficients_) {
        window.coefficients.resize(window.filled * coefficientSize_);
        coefficients_->read(window.next * coefficientSize_, window.coefficients.data(),
                            window.coefficients.size());
    }
}

} // namespace Tavrin::SplatProgram
