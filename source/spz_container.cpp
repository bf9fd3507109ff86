#include "source/spz_container.h"

#include "source/inflater.h"
#include "source/source.h"

#include <algorithm>
#include <array>
#include <optional>

namespace Tavrin::SplatSource {
namespace {

constexpr std::uint32_t magic = 0x5053474e; // "NGSP"
constexpr std::uint64_t gzipHeaderBytes = 16;
constexpr std::uint64_t plainHeaderBytes = 32;
constexpr std::uint64_t tableEntryBytes = 16;
constexpr std::uint64_t mostExtensionBytes = std::uint64_t{1} << 20;
constexpr std::uint64_t deflateRatio = 1032; // the largest ratio of deflate
constexpr std::uint64_t zstdRatio = 32768;   // the largest ratio of zstd
constexpr std::uint32_t axesExtension = 0xadbe0003;
constexpr std::uint8_t extensionsFlag = 0x02;
constexpr std::uint64_t mostSplats = 0x7fffffff;

[[noreturn]] void refuse(const RecordFile& file, const std::string& what) {
    throw SourceError(file.name() + ": " + what);
}

[[noreturn]] void refuseDamaged(const RecordFile& file, const std::string& what) {
    refuse(file, "the SPZ file is damaged: " + what + ": copy or export it again");
}

// The fields that both headers have at the same places.
SpzHeader commonHeader(const RecordFile& file, const std::uint8_t* bytes, bool isGzip) {
    if (numberAt<std::uint32_t>(bytes) != magic) {
        refuse(file, isGzip ? "a gzip file, but not one with splats: unpack it first"
                            : "not an SPZ file: it does not start as one");
    }
    SpzHeader header;
    header.isGzip = isGzip;
    header.version = numberAt<std::uint32_t>(bytes + 4);
    header.splats = numberAt<std::uint32_t>(bytes + 8);
    header.degree = bytes[12];
    header.fractionBits = bytes[13];
    header.hasExtensions = (bytes[14] & extensionsFlag) != 0;
    const bool isKnown = isGzip ? header.version >= 1 && header.version <= 4 : header.version == 4;
    if (!isKnown) {
        refuse(file, "SPZ version " + std::to_string(header.version) +
                         (isGzip ? " in gzip" : " without gzip") +
                         " is not known: versions 1 to 3 in gzip and 4 with zstd streams are read");
    }
    if (header.splats == 0) {
        refuse(file, "the SPZ file has no splats");
    }
    if (header.splats > mostSplats || header.degree > 4 || header.fractionBits > 30) {
        refuseDamaged(file, "its header states " + std::to_string(header.splats) + " splats of degree " +
                                std::to_string(header.degree) + " with " +
                                std::to_string(header.fractionBits) + " fractional bits");
    }
    return header;
}

// Refuses a count whose arrays need more bytes than the file can unpack to.
void requirePlausible(const RecordFile& file, const SpzHeader& header, std::uint64_t ratio) {
    if (header.arrayBytes() / ratio > file.size()) {
        refuseDamaged(file, std::to_string(header.splats) + " splats do not fit into " +
                                std::to_string(file.size()) + " bytes");
    }
}

SpzHeader readGzipHeader(const RecordFile& file) {
    GzipReader gzip(file);
    std::array<std::uint8_t, gzipHeaderBytes> bytes;
    if (gzip.read(bytes.data(), bytes.size()) != bytes.size()) {
        refuseDamaged(file, "it ends within its header");
    }
    const SpzHeader header = commonHeader(file, bytes.data(), true);
    requirePlausible(file, header, deflateRatio);
    return header;
}

SpzHeader readPlainHeader(const RecordFile& file) {
    std::array<std::uint8_t, plainHeaderBytes> bytes;
    if (file.size() < bytes.size()) {
        refuseDamaged(file, "it ends within its header");
    }
    file.read(0, bytes.data(), bytes.size());
    SpzHeader header = commonHeader(file, bytes.data(), false);
    header.streams = bytes[15];
    header.tableAt = numberAt<std::uint32_t>(bytes.data() + 16);
    const int expected = header.degree > 0 ? spzArrays : spzArrays - 1;
    if (header.streams != expected) {
        refuseDamaged(file, std::to_string(header.streams) + " streams for degree " +
                                std::to_string(header.degree) + ", which has " + std::to_string(expected));
    }
    const std::uint64_t tableBytes = tableEntryBytes * static_cast<std::uint64_t>(header.streams);
    if (header.tableAt < plainHeaderBytes || header.tableAt + tableBytes > file.size()) {
        refuseDamaged(file, "its table of streams would start at byte " + std::to_string(header.tableAt));
    }
    requirePlausible(file, header, zstdRatio);
    return header;
}

// Reads the extension records: type, length and payload, up to the end of the zone. Skips unknown types.
void readExtensions(const RecordFile& file, const std::vector<std::uint8_t>& zone, SpzContent& content) {
    std::size_t at = 0;
    while (at + 8 <= zone.size()) {
        const auto type = numberAt<std::uint32_t>(zone.data() + at);
        const auto length = numberAt<std::uint32_t>(zone.data() + at + 4);
        at += 8;
        if (length > zone.size() - at) {
            refuseDamaged(file, "an extension record of " + std::to_string(length) + " bytes where " +
                                    std::to_string(zone.size() - at) + " are left");
        }
        if (type == axesExtension && length >= 4) {
            content.axesCode = numberAt<std::uint32_t>(zone.data() + at);
        }
        at += length;
    }
}

// One gzip member around the header, all arrays and the extension records.
class GzipUnpacker final : public SpzUnpacker {
public:
    GzipUnpacker(const RecordFile& file, const SpzHeader& header)
        : SpzUnpacker(0, header.arrayBytes()), file_(file), header_(header), gzip_(file) {
        std::array<std::uint8_t, gzipHeaderBytes> bytes;
        gzip_.read(bytes.data(), bytes.size());
        gzip_.leaveSum();
        headerSum_ = sumOf(bytes.data(), bytes.size());
    }

    std::optional<std::uint32_t> leftSum() const override { return headerSum_; }

    void requireSum(std::uint32_t sum) const override {
        gzip_.requireSum(joinSums(sum, restSum_, restBytes_));
    }

    void read(std::uint8_t* bytes, std::uint64_t size) override {
        const std::uint64_t got = gzip_.read(bytes, size);
        at_ += got;
        if (got < size) {
            refuseDamaged(file_, std::to_string(header_.splats) + " splats need " + std::to_string(end()) +
                                     " bytes, and it holds " + std::to_string(at_));
        }
        if (at_ == end()) {
            readRest();
        }
    }

private:
    const RecordFile& file_;
    SpzHeader header_;
    GzipReader gzip_;
    std::uint64_t at_ = 0;
    std::uint32_t headerSum_ = 0;
    std::uint32_t restSum_ = 0; // of what stands behind the arrays
    std::uint64_t restBytes_ = 0;

    void readRest() {
        std::vector<std::uint8_t> rest(header_.hasExtensions ? mostExtensionBytes : 1);
        rest.resize(gzip_.read(rest.data(), rest.size()));
        if (!rest.empty() && (!header_.hasExtensions || !gzip_.isAtEnd())) {
            refuseDamaged(file_,
                          "it holds more bytes than its " + std::to_string(header_.splats) + " splats have");
        }
        gzip_.requireEnd();
        restSum_ = sumOf(rest.data(), rest.size());
        restBytes_ = rest.size();
        readExtensions(file_, rest, content);
        if (gzip_.bytesRead() < file_.size()) {
            content.remarks.push_back(std::to_string(file_.size() - gzip_.bytesRead()) +
                                      " bytes behind the splats are ignored");
        }
    }
};

struct Stream {
    std::uint64_t at = 0;     // byte offset in the file
    std::uint64_t packed = 0; // bytes
};

// The table of streams. Each must unpack to exactly one array, and together they must fill the file.
std::vector<Stream> readStreams(const RecordFile& file, const SpzHeader& header) {
    std::vector<std::uint8_t> table(tableEntryBytes * static_cast<std::uint64_t>(header.streams));
    file.read(header.tableAt, table.data(), table.size());
    std::uint64_t at = header.tableAt + table.size();
    std::vector<Stream> streams;
    for (int i = 0; i < header.streams; ++i) {
        const std::uint8_t* const entry = table.data() + tableEntryBytes * static_cast<std::uint64_t>(i);
        const auto packed = numberAt<std::uint64_t>(entry);
        const auto unpacked = numberAt<std::uint64_t>(entry + 8);
        const std::uint64_t expected = header.splats * header.bytesOf(SpzArray{i});
        if (unpacked != expected) {
            refuseDamaged(file, "stream " + std::to_string(i) + " states " + std::to_string(unpacked) +
                                    " bytes where " + std::to_string(header.splats) + " splats have " +
                                    std::to_string(expected));
        }
        if (packed > file.size() - at) {
            refuseDamaged(file, "stream " + std::to_string(i) + " states " + std::to_string(packed) +
                                    " bytes and " + std::to_string(file.size() - at) + " are left");
        }
        streams.push_back({.at = at, .packed = packed});
        at += packed;
    }
    if (at != file.size()) {
        refuseDamaged(file, std::to_string(file.size() - at) + " bytes are left over behind its streams");
    }
    return streams;
}

// Extension records between the plain header and the table of streams.
SpzContent readPlainExtensions(const RecordFile& file, const SpzHeader& header) {
    SpzContent content;
    if (header.hasExtensions) {
        const std::uint64_t zone = header.tableAt - plainHeaderBytes;
        if (zone > mostExtensionBytes) {
            refuseDamaged(file, "its extension records take " + std::to_string(zone) + " bytes");
        }
        std::vector<std::uint8_t> bytes(zone);
        file.read(plainHeaderBytes, bytes.data(), bytes.size());
        readExtensions(file, bytes, content);
    }
    return content;
}

// Consecutive zstd streams, each of which holds one array.
class ZstdUnpacker final : public SpzUnpacker {
public:
    // Arrays [first, last).
    ZstdUnpacker(const RecordFile& file, const SpzHeader& header, const std::vector<Stream>& streams,
                 int first, int last)
        : SpzUnpacker(header.startOf(SpzArray{first}), header.startOf(SpzArray{last})), file_(file),
          header_(header), streams_(streams), array_(first), last_(last) {
        open();
    }

    void read(std::uint8_t* bytes, std::uint64_t size) override {
        while (size > 0) {
            const std::uint64_t all = header_.splats * header_.bytesOf(SpzArray{array_});
            const std::uint64_t wanted = std::min(size, all - at_);
            const std::uint64_t got = zstd_->read(bytes, wanted);
            at_ += got;
            if (got < wanted) {
                refuseDamaged(file_, "stream " + std::to_string(array_) + " holds " + std::to_string(at_) +
                                         " of " + std::to_string(all) + " bytes");
            }
            bytes += got;
            size -= got;
            if (at_ == all) {
                zstd_->requireEnd();
                ++array_;
                open();
            }
        }
    }

private:
    const RecordFile& file_;
    SpzHeader header_;
    std::vector<Stream> streams_;
    int array_;
    int last_;
    std::uint64_t at_ = 0; // bytes of the array that are unpacked
    std::optional<ZstdReader> zstd_;

    void open() {
        zstd_.reset();
        at_ = 0;
        if (array_ < last_) {
            const Stream& stream = streams_[static_cast<std::size_t>(array_)];
            zstd_.emplace(file_, stream.at, stream.packed);
        }
    }
};

// The first array of the second half: each half unpacks to about as many bytes.
int middleArray(const SpzHeader& header) {
    int middle = 1;
    while (middle + 1 < header.streams && 2 * header.startOf(SpzArray{middle + 1}) <= header.arrayBytes()) {
        ++middle;
    }
    return middle;
}

} // namespace

std::uint64_t SpzHeader::bytesOf(SpzArray array) const {
    switch (array) {
    case SpzArray::positions:
        return version == 1 ? 6 : 9;
    case SpzArray::opacities:
        return 1;
    case SpzArray::colours:
    case SpzArray::scales:
        return 3;
    case SpzArray::rotations:
        return version <= 2 ? 3 : 4;
    case SpzArray::coefficients:
        return 3 * static_cast<std::uint64_t>((degree + 1) * (degree + 1) - 1);
    }
    return 0;
}

std::uint64_t SpzHeader::startOf(SpzArray array) const {
    std::uint64_t start = 0;
    for (int i = 0; i < static_cast<int>(array); ++i) {
        start += splats * bytesOf(SpzArray{i});
    }
    return start;
}

bool looksLikeSpz(std::string_view start) {
    return start.starts_with("\x1f\x8b") || start.starts_with("NGSP");
}

SpzHeader readSpzHeader(const RecordFile& file) {
    std::uint8_t start[2] = {};
    if (file.size() < sizeof start + 2) {
        refuse(file, "not an SPZ file: it has " + std::to_string(file.size()) + " bytes");
    }
    file.read(0, start, sizeof start);
    return start[0] == 0x1f && start[1] == 0x8b ? readGzipHeader(file) : readPlainHeader(file);
}

std::vector<std::unique_ptr<SpzUnpacker>> makeSpzUnpackers(const RecordFile& file, const SpzHeader& header) {
    std::vector<std::unique_ptr<SpzUnpacker>> unpackers;
    if (header.isGzip) {
        unpackers.push_back(std::make_unique<GzipUnpacker>(file, header));
        return unpackers;
    }
    const SpzContent content = readPlainExtensions(file, header);
    const std::vector<Stream> streams = readStreams(file, header);
    const int middle = middleArray(header);
    unpackers.push_back(std::make_unique<ZstdUnpacker>(file, header, streams, 0, middle));
    unpackers.push_back(std::make_unique<ZstdUnpacker>(file, header, streams, middle, header.streams));
    unpackers.front()->content = content;
    return unpackers;
}

} // namespace Tavrin::SplatSource
