// The unpacked arrays of an SPZ file. A thread that asks for a part unpacks as far as that part, and the
// result is kept in a scratch file.
#pragma once

#include "source/record_file.h"
#include "source/scratch_file.h"
#include "source/spz_container.h"

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <exception>
#include <filesystem>
#include <memory>
#include <mutex>
#include <vector>

namespace Tavrin::SplatSource {

class SpzArrays {
public:
    // `file` must outlive the object; `scratchFolder` exists. Unpacks nothing. Throws SourceError and
    // ScratchError.
    SpzArrays(const RecordFile& file, const SpzHeader& header, const std::filesystem::path& scratchFolder);
    ~SpzArrays();
    SpzArrays(const SpzArrays&) = delete;
    SpzArrays& operator=(const SpzArrays&) = delete;

    // Writes the part of splats [first, first + count) in the first `arrays` arrays, one array after the
    // other. Thread-safe: while one thread unpacks, others read what is stored. Throws SourceError when the
    // file is damaged, and ScratchError. Later calls that need what is missing then throw the same.
    void read(std::uint64_t first, std::uint64_t count, int arrays, std::uint8_t* bytes) const;

    // The code of the axes as the file states it, known or not; 0 if it states none. Unpacks everything if
    // the code comes after the arrays. Throws as read does.
    std::uint32_t axesCode() const;

    // Unpacks what is left and returns what the file holds besides the arrays, with remarks on positions.
    // Throws as read does.
    SpzContent finish() const;

private:
    // A piece in the scratch file.
    struct Piece {
        std::uint64_t start = 0;
        std::uint64_t end = 0;
        std::uint32_t sum = 0; // if the unpacker leaves it
    };

    // The bytes that one unpacker gives, and how many of them are done.
    struct Lane {
        std::unique_ptr<SpzUnpacker> unpacker;
        std::uint64_t start = 0;
        std::uint64_t end = 0;
        std::atomic<std::uint64_t> stored = 0; // end of what is in the scratch file; written under lock_
        std::uint64_t unpacked = 0;            // end of what is unpacked
        bool isBusy = false;                   // a thread unpacks
        bool leavesSum = false;                // the unpacker leaves the checksum to this class
        std::uint32_t sum = 0;                 // then that of everything before `stored`
        std::vector<Piece> ahead;              // pieces that were stored out of order
    };

    void require(std::uint64_t last, int arrays) const;
    std::uint64_t need(const Lane& lane, std::uint64_t last, int arrays) const;
    Lane* laneToUnpack(const std::vector<std::uint64_t>& needs, bool areThere) const;
    void unpackPiece(Lane& lane, std::unique_lock<std::mutex>& guard) const;
    void store(Lane& lane, std::uint64_t start, const std::uint8_t* bytes, std::uint64_t size) const;

    SpzHeader header_;
    mutable ScratchFile scratch_;
    std::vector<std::unique_ptr<Lane>> lanes_;
    mutable std::mutex lock_;
    mutable std::condition_variable changed_;
    mutable std::exception_ptr failure_;          // the first one; it ends the unpacking
    mutable std::atomic<bool> isWrapped_ = false; // a position is the largest or smallest number of its bits
};

} // namespace Tavrin::SplatSource
