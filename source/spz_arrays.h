// The unpacked arrays of an SPZ file. They are unpacked as far as somebody asks for them, by whoever asks,
// and kept in a scratch file.
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
    // `file` must outlive the object, and `scratchFolder` exists. Unpacks nothing. Throws SourceError and
    // ScratchError.
    SpzArrays(const RecordFile& file, const SpzHeader& header, const std::filesystem::path& scratchFolder);
    ~SpzArrays();
    SpzArrays(const SpzArrays&) = delete;
    SpzArrays& operator=(const SpzArrays&) = delete;

    // Writes what the first `arrays` arrays hold of splats [first, first + count), one array after the other.
    // Safe from several threads at once: while one unpacks, others read what is there. Throws SourceError
    // when the file is damaged, and ScratchError; then so does every later call that needs what is missing.
    void read(std::uint64_t first, std::uint64_t count, int arrays, std::uint8_t* bytes) const;

    // The code of the axes as the file states it, known or not; 0 when it states none. Unpacks everything
    // where it stands behind the arrays. Throws as read does.
    std::uint32_t axesCode() const;

    // Unpacks what is left and returns what was found beside the arrays, remarks on positions among it.
    // Throws as read does.
    SpzContent finish() const;

private:
    // A piece that is in the scratch file.
    struct Piece {
        std::uint64_t start = 0;
        std::uint64_t end = 0;
        std::uint32_t sum = 0; // where the unpacker leaves it
    };

    // Bytes that one unpacker gives, and how far they are there.
    struct Lane {
        std::unique_ptr<SpzUnpacker> unpacker;
        std::uint64_t start = 0;
        std::uint64_t end = 0;
        std::atomic<std::uint64_t> stored = 0; // all before this is in the scratch file; changes under lock_
        std::uint64_t unpacked = 0;            // all before this is unpacked
        bool isBusy = false;                   // somebody unpacks
        bool leavesSum = false;                // the unpacker leaves the checksum to this class
        std::uint32_t sum = 0;                 // of all before `stored`, then
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
    mutable std::exception_ptr failure_;          // the first; unpacking ends with it
    mutable std::atomic<bool> isWrapped_ = false; // a position reaches the ends of its bits
};

} // namespace Tavrin::SplatSource
