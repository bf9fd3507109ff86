// unpackonce FILE: unpacks an SPZ file into nothing on one thread, in a process of its own, to be measured:
// the floor of its conversion. Prints the bytes that came out.
#include <zlib.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <vector>
#if PLYCONVERT_ZSTD
#include <zstd.h>
#endif

namespace {

constexpr std::size_t bufferBytes = std::size_t{256} << 10;
constexpr int zstdHeaderBytes = 32;

// Fills the buffer from the file; returns how many bytes there are.
std::size_t refill(std::ifstream& file, std::vector<char>& buffer) {
    file.read(buffer.data(), static_cast<std::streamsize>(buffer.size()));
    return static_cast<std::size_t>(file.gcount());
}

std::uint64_t unpackGzip(std::ifstream& file) {
    std::vector<char> in(bufferBytes);
    std::vector<char> out(bufferBytes);
    z_stream stream{};
    inflateInit2(&stream, 16 + MAX_WBITS);
    std::uint64_t bytes = 0;
    for (int result = Z_OK; result == Z_OK;) {
        if (stream.avail_in == 0) {
            stream.avail_in = static_cast<uInt>(refill(file, in));
            stream.next_in = reinterpret_cast<Bytef*>(in.data());
        }
        stream.next_out = reinterpret_cast<Bytef*>(out.data());
        stream.avail_out = static_cast<uInt>(out.size());
        result = inflate(&stream, Z_NO_FLUSH);
        bytes += out.size() - stream.avail_out;
    }
    inflateEnd(&stream);
    return bytes;
}

#if PLYCONVERT_ZSTD
// All streams, one after the other.
std::uint64_t unpackZstd(std::ifstream& file, const char (&header)[zstdHeaderBytes]) {
    std::uint32_t table;
    std::memcpy(&table, header + 16, sizeof table);
    constexpr int entryBytes = 16;
    file.seekg(table + entryBytes * static_cast<int>(header[15]));
    std::vector<char> in(bufferBytes);
    std::vector<char> out(bufferBytes);
    ZSTD_DStream* const stream = ZSTD_createDStream();
    std::uint64_t bytes = 0;
    for (std::size_t size; (size = refill(file, in)) > 0;) {
        ZSTD_inBuffer packed{in.data(), size, 0};
        ZSTD_outBuffer unpacked{};
        do {
            unpacked = {out.data(), out.size(), 0};
            if (ZSTD_isError(ZSTD_decompressStream(stream, &unpacked, &packed)) != 0) {
                break;
            }
            bytes += unpacked.pos;
        } while (packed.pos < packed.size || unpacked.pos == unpacked.size);
    }
    ZSTD_freeDStream(stream);
    return bytes;
}
#endif

} // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fputs("usage: unpackonce FILE\n", stderr);
        return 1;
    }
    std::ifstream file(argv[1], std::ios::binary);
    char header[zstdHeaderBytes] = {};
    file.read(header, sizeof header);
    std::uint64_t bytes = 0;
    if (header[0] == '\x1f') {
        file.clear();
        file.seekg(0);
        bytes = unpackGzip(file);
    }
#if PLYCONVERT_ZSTD
    if (std::memcmp(header, "NGSP", 4) == 0) {
        bytes = unpackZstd(file, header);
    }
#endif
    std::printf("%llu bytes\n", static_cast<unsigned long long>(bytes));
    return bytes > 0 ? 0 : 1;
}
