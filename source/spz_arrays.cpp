#include "source/spz_arrays.h"

#include "source/inflater.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>

namespace Tavrin::SplatSource {
namespace {

constexpr std::uint64_t pieceBytes = std::uint64_t{9} * 28 * 1024; // whole positions of three times 24 bits
// If nobody else unpacks, a reader unpacks this much more than it needs, so that others find it done.
constexpr std::uint64_t aheadBytes = 4 * pieceBytes;

constexpr std::uint32_t most24 =
    0x7fffff; // the bits of the largest signed 24-bit number; those of the smallest follow

// True if a coordinate is the largest or the smallest number of its bits.
bool reachesTheEnds(const std::uint8_t* bytes, std::uint64_t size) {
    bool does = false;
    for (std::uint64_t i = 0; i + 3 <= size; i += 3) {
        const std::uint32_t word =
            bytes[i] | std::uint32_t{bytes[i + 1]} << 8 | std::uint32_t{bytes[i + 2]} << 16;
        does = does | (word - most24 <= 1);
    }
    return does;
}

} // namespace

SpzArrays::SpzArrays(const RecordFile& file, const SpzHeader& header,
                     const std::filesystem::path& scratchFolder)
    : header_(header), scratch_(scratchFolder) {
    for (std::unique_ptr<SpzUnpacker>& unpacker : makeSpzUnpackers(file, header)) {
        auto lane = std::make_unique<Lane>();
        lane->start = unpacker->start();
        lane->end = unpacker->end();
        lane->stored = lane->unpacked = lane->start;
        lane->leavesSum = unpacker->leftSum().has_value();
        lane->sum = unpacker->leftSum().value_or(0);
        lane->unpacker = std::move(unpacker);
        lanes_.push_back(std::move(lane));
    }
}

SpzArrays::~SpzArrays() = default;

void SpzArrays::read(std::uint64_t first, std::uint64_t count, int arrays, std::uint8_t* bytes) const {
    require(first + count, arrays);
    for (int i = 0; i < arrays; ++i) {
        const std::uint64_t splatBytes = header_.bytesOf(SpzArray{i});
        scratch_.read(header_.startOf(SpzArray{i}) + first * splatBytes, bytes, count * splatBytes);
        bytes += count * splatBytes;
    }
}

// The end of what a lane must have stored for the first `arrays` arrays to hold the splats before `last`.
std::uint64_t SpzArrays::need(const Lane& lane, std::uint64_t last, int arrays) const {
    std::uint64_t end = lane.start;
    for (int i = 0; i < arrays; ++i) {
        const std::uint64_t start = header_.startOf(SpzArray{i});
        if (start >= lane.start && start < lane.end) {
            end = start + last * header_.bytesOf(SpzArray{i});
        }
    }
    return end;
}

// The lane that a reader should unpack now. First what it needs itself. If others unpack that, anything that
// is left, instead of waiting. If all it needs is stored, a little ahead. Null if there is nothing to unpack.
SpzArrays::Lane* SpzArrays::laneToUnpack(const std::vector<std::uint64_t>& needs, bool areThere) const {
    Lane* helped = nullptr;
    for (std::size_t i = 0; i < lanes_.size(); ++i) {
        Lane& lane = *lanes_[i];
        if (lane.isBusy || lane.unpacked == lane.end) {
            continue;
        }
        if (lane.unpacked < needs[i]) {
            return &lane;
        }
        if (!areThere || lane.unpacked < needs[i] + aheadBytes) {
            helped = &lane;
        }
    }
    return helped;
}

void SpzArrays::require(std::uint64_t last, int arrays) const {
    thread_local std::vector<std::uint64_t> needs;
    needs.clear();
    bool isStored = true;
    for (const std::unique_ptr<Lane>& lane : lanes_) {
        needs.push_back(need(*lane, last, arrays));
        isStored = isStored && lane->stored.load(std::memory_order_acquire) == lane->end;
    }
    if (isStored) {
        return;
    }
    std::unique_lock<std::mutex> guard(lock_);
    for (;;) {
        bool areThere = true;
        for (std::size_t i = 0; i < lanes_.size(); ++i) {
            areThere = areThere && lanes_[i]->stored.load(std::memory_order_relaxed) >= needs[i];
        }
        if (!areThere && failure_) {
            std::rethrow_exception(failure_);
        }
        Lane* const lane = failure_ ? nullptr : laneToUnpack(needs, areThere);
        if (lane != nullptr) {
            unpackPiece(*lane, guard);
        } else if (areThere) {
            return;
        } else {
            changed_.wait(guard);
        }
    }
}

// One thread at a time unpacks a lane. It stores its piece while another unpacks the next one.
void SpzArrays::unpackPiece(Lane& lane, std::unique_lock<std::mutex>& guard) const {
    thread_local std::vector<std::uint8_t> piece(pieceBytes);
    const std::uint64_t start = lane.unpacked;
    const std::uint64_t size = std::min(pieceBytes, lane.end - start);
    lane.isBusy = true;
    guard.unlock();
    try {
        lane.unpacker->read(piece.data(), size);
        guard.lock();
        lane.unpacked += size;
        lane.isBusy = false;
        guard.unlock();
        changed_.notify_all();
        store(lane, start, piece.data(), size);
        guard.lock();
    } catch (...) {
        if (!guard.owns_lock()) {
            guard.lock();
        }
        lane.isBusy = false;
        failure_ = failure_ ? failure_ : std::current_exception();
    }
    changed_.notify_all();
}

// Called without holding the lock.
void SpzArrays::store(Lane& lane, std::uint64_t start, const std::uint8_t* bytes, std::uint64_t size) const {
    scratch_.write(start, bytes, size);
    const std::uint64_t positionsEnd = header_.startOf(SpzArray::opacities);
    if (header_.version != 1 && start < positionsEnd &&
        reachesTheEnds(bytes, std::min(size, positionsEnd - start))) {
        isWrapped_ = true;
    }
    const std::uint32_t sum = lane.leavesSum ? sumOf(bytes, size) : 0;
    const std::lock_guard<std::mutex> guard(lock_);
    lane.ahead.push_back({.start = start, .end = start + size, .sum = sum});
    std::uint64_t stored = lane.stored;
    for (auto next = lane.ahead.begin(); next != lane.ahead.end();) {
        if (next->start == stored) {
            if (lane.leavesSum) {
                lane.sum = joinSums(lane.sum, next->sum, next->end - next->start);
            }
            stored = next->end;
            lane.ahead.erase(next);
            next = lane.ahead.begin();
        } else {
            ++next;
        }
    }
    if (lane.leavesSum && stored == lane.end) {
        lane.unpacker->requireSum(lane.sum);
    }
    lane.stored.store(stored, std::memory_order_release);
}

std::uint32_t SpzArrays::axesCode() const {
    return header_.isGzip ? finish().axesCode : lanes_.front()->unpacker->content.axesCode;
}

SpzContent SpzArrays::finish() const {
    require(header_.splats, spzArrays);
    SpzContent all;
    for (const std::unique_ptr<Lane>& lane : lanes_) {
        const SpzContent& content = lane->unpacker->content;
        all.axesCode = content.axesCode != 0 ? content.axesCode : all.axesCode;
        all.remarks.insert(all.remarks.end(), content.remarks.begin(), content.remarks.end());
    }
    if (isWrapped_) {
        all.remarks.push_back(
            fmt::format("positions reach the ends of their 24 bits ({:g} units from the origin): what lay "
                        "beyond was wrapped around when the file was written",
                        std::ldexp(1.0, 23 - header_.fractionBits)));
    }
    return all;
}

} // namespace Tavrin::SplatSource
