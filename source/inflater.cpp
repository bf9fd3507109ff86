#include "source/inflater.h"

#include "source/source.h"

#include <zlib.h>

#include <algorithm>
#include <string>
#include <vector>
#if PLYCONVERT_ZSTD
#include <zstd.h>
#endif

namespace Tavrin::SplatSource {
namespace {

constexpr std::uint64_t inputBytes = std::uint64_t{256} << 10;

// The packed bytes of a part of a file, one buffer at a time.
struct PackedInput {
    const RecordFile& file;
    std::uint64_t at;
    std::uint64_t end;
    std::vector<std::uint8_t> buffer = std::vector<std::uint8_t>(inputBytes);

    // The number of bytes now at the start of the buffer; 0 at the end.
    std::uint64_t next() {
        const std::uint64_t size = std::min<std::uint64_t>(buffer.size(), end - at);
        if (size > 0) {
            file.read(at, buffer.data(), size);
            at += size;
        }
        return size;
    }
};

constexpr std::uint64_t trailerBytes = 8; // of gzip: checksum and length, four bytes each

[[noreturn]] void refuse(const RecordFile& file, const std::string& what) {
    throw SourceError(file.name() + ": the SPZ file is damaged: " + what + ": copy or export it again");
}

[[noreturn]] void refuseGzip(const RecordFile& file, const char* reason) {
    refuse(file, std::string("its gzip data or checksum is wrong (") +
                     (reason != nullptr ? reason : "no reason given") + ")");
}

} // namespace

std::uint32_t sumOf(const std::uint8_t* bytes, std::uint64_t size) {
    return static_cast<std::uint32_t>(crc32_z(0, bytes, size));
}

std::uint32_t joinSums(std::uint32_t first, std::uint32_t second, std::uint64_t secondSize) {
    return static_cast<std::uint32_t>(crc32_combine(first, second, static_cast<z_off_t>(secondSize)));
}

struct GzipReader::State {
    PackedInput input;
    z_stream stream{};
    bool isAtEnd = false;

    explicit State(const RecordFile& file) : input{.file = file, .at = 0, .end = file.size()} {}
};

GzipReader::GzipReader(const RecordFile& file) : state_(std::make_unique<State>(file)) {
    constexpr int gzipWindow = 16 + MAX_WBITS; // gzip alone, with its checksum and length
    if (inflateInit2(&state_->stream, gzipWindow) != Z_OK) {
        throw std::bad_alloc();
    }
}

GzipReader::~GzipReader() {
    inflateEnd(&state_->stream);
}

std::uint64_t GzipReader::read(std::uint8_t* bytes, std::uint64_t size) {
    z_stream& stream = state_->stream;
    std::uint64_t done = 0;
    while (done < size && !state_->isAtEnd) {
        if (stream.avail_in == 0) {
            stream.avail_in = static_cast<uInt>(state_->input.next());
            stream.next_in = state_->input.buffer.data();
            if (stream.avail_in == 0) {
                refuse(state_->input.file, "it is cut");
            }
        }
        const std::uint64_t room = std::min<std::uint64_t>(size - done, std::uint64_t{1} << 30);
        stream.next_out = bytes + done;
        stream.avail_out = static_cast<uInt>(room);
        const int result = inflate(&stream, Z_NO_FLUSH);
        done += room - stream.avail_out;
        if (result == Z_STREAM_END) {
            state_->isAtEnd = true;
        } else if (result == Z_MEM_ERROR) {
            throw std::bad_alloc();
        } else if (result != Z_OK && result != Z_BUF_ERROR) {
            refuseGzip(state_->input.file, stream.msg);
        }
    }
    return done;
}

void GzipReader::leaveSum() {
    inflateValidate(&state_->stream, 0);
}

void GzipReader::requireSum(std::uint32_t sum) const {
    std::uint8_t trailer[trailerBytes];
    state_->input.file.read(bytesRead() - trailerBytes, trailer, trailerBytes);
    if (numberAt<std::uint32_t>(trailer) != sum) {
        refuseGzip(state_->input.file, "incorrect data check");
    }
    if (numberAt<std::uint32_t>(trailer + 4) != static_cast<std::uint32_t>(state_->stream.total_out)) {
        refuseGzip(state_->input.file, "incorrect length check");
    }
}

bool GzipReader::isAtEnd() const {
    return state_->isAtEnd;
}

void GzipReader::requireEnd() {
    std::uint8_t more;
    if (!state_->isAtEnd && read(&more, 1) != 0) {
        refuse(state_->input.file, "it holds more bytes than its splats have");
    }
}

std::uint64_t GzipReader::bytesRead() const {
    return state_->input.at - state_->stream.avail_in;
}

#if PLYCONVERT_ZSTD

struct ZstdReader::State {
    PackedInput input;
    ZSTD_DStream* stream;
    ZSTD_inBuffer packed{};
    std::size_t hint = 0; // 0 between frames

    State(const RecordFile& file, std::uint64_t at, std::uint64_t size)
        : input{.file = file, .at = at, .end = at + size}, stream(ZSTD_createDStream()) {}
    ~State() { ZSTD_freeDStream(stream); }
    State(const State&) = delete;
    State& operator=(const State&) = delete;
};

ZstdReader::ZstdReader(const RecordFile& file, std::uint64_t at, std::uint64_t packed)
    : state_(std::make_unique<State>(file, at, packed)) {
    if (state_->stream == nullptr) {
        throw std::bad_alloc();
    }
    // A frame states how far back it refers into its own output. More than 32 MiB is refused, so that no file
    // decides the memory.
    ZSTD_DCtx_setParameter(state_->stream, ZSTD_d_windowLogMax, 25);
}

ZstdReader::~ZstdReader() = default;

std::uint64_t ZstdReader::read(std::uint8_t* bytes, std::uint64_t size) {
    ZSTD_outBuffer out{.dst = bytes, .size = size, .pos = 0};
    while (out.pos < out.size) {
        if (state_->packed.pos == state_->packed.size) {
            const std::uint64_t more = state_->input.next();
            if (more == 0) {
                break;
            }
            state_->packed = {.src = state_->input.buffer.data(), .size = more, .pos = 0};
        }
        state_->hint = ZSTD_decompressStream(state_->stream, &out, &state_->packed);
        if (ZSTD_isError(state_->hint) != 0) {
            refuse(state_->input.file,
                   std::string("its zstd data is wrong (") + ZSTD_getErrorName(state_->hint) + ")");
        }
    }
    // The stream may still hold output after its input is used up.
    while (out.pos < out.size && state_->hint != 0) {
        ZSTD_inBuffer none{};
        const std::size_t before = out.pos;
        state_->hint = ZSTD_decompressStream(state_->stream, &out, &none);
        if (ZSTD_isError(state_->hint) != 0 || out.pos == before) {
            break;
        }
    }
    return out.pos;
}

void ZstdReader::requireEnd() {
    std::uint8_t more;
    if (read(&more, 1) != 0) {
        refuse(state_->input.file, "a stream holds more bytes than its splats have");
    }
    if (state_->hint != 0) {
        refuse(state_->input.file, "a zstd frame is cut");
    }
}

#else

struct ZstdReader::State {};

ZstdReader::ZstdReader(const RecordFile& file, std::uint64_t, std::uint64_t) {
    throw SourceError(file.name() +
                      ": SPZ version 4 needs zstd, which this build of the program does not have: "
                      "save it as version 3");
}
ZstdReader::~ZstdReader() = default;
std::uint64_t ZstdReader::read(std::uint8_t*, std::uint64_t) {
    return 0;
}
void ZstdReader::requireEnd() {}

#endif

} // namespace Tavrin::SplatSource
