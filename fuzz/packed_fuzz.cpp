// Opens arbitrary bytes as packed splats, SPZ and compressed PLY. The reader must refuse them with one line
// that names the file, or give records that do not depend on how they are read. If the first byte is 1, the
// target compresses the rest with gzip, so that faults get into the compressed content.

#include "fuzz/target.h"
#include "source/compressed_ply.h"
#include "source/ply_layout.h"
#include "source/spz.h"
#include "tests/support/dataset_writer.h"

#include <zlib.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

namespace {

using namespace Tavrin::SplatSource;

std::string gzipOf(const std::string& bytes) {
    z_stream stream{};
    fuzz::require(deflateInit2(&stream, 1, Z_DEFLATED, 16 + MAX_WBITS, 8, Z_DEFAULT_STRATEGY) == Z_OK,
                  "gzip can be begun");
    std::string packed(deflateBound(&stream, bytes.size()) + 64, '\0');
    stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(bytes.data()));
    stream.avail_in = static_cast<uInt>(bytes.size());
    stream.next_out = reinterpret_cast<Bytef*>(packed.data());
    stream.avail_out = static_cast<uInt>(packed.size());
    fuzz::require(deflate(&stream, Z_FINISH) == Z_STREAM_END, "gzip can be finished");
    packed.resize(stream.total_out);
    deflateEnd(&stream);
    return packed;
}

std::unique_ptr<Source> open(const std::filesystem::path& path, const std::string& file) {
    if (looksLikePly(file)) {
        const PlyHeader header = parsePlyHeader(file, textOf(path));
        if (!isCompressedPly(header)) {
            return nullptr;
        }
        return std::make_unique<CompressedPlyInput>(path, header);
    }
    return std::make_unique<SpzInput>(path, InputAxes::stated, fuzz::scratch());
}

// The first records, read at once and one by one, and the last one.
void checkRecords(const Source& source) {
    constexpr std::uint64_t most = 600; // more than two chunks
    const std::uint64_t size = std::min(source.count, most);
    const std::size_t floats = Tavrin::GaussionSplat::recordLayout(source.hasCoefficients).floats;
    std::vector<float> together(size * floats);
    std::vector<float> alone(size * floats);
    fuzz::require(source.read(0, size, together.data()) == size, "every record is given");
    for (std::uint64_t i = 0; i < size; ++i) {
        fuzz::require(source.read(i, 1, alone.data() + i * floats) == 1, "every record is given alone");
    }
    fuzz::require(std::memcmp(together.data(), alone.data(), size * floats * sizeof(float)) == 0,
                  "records do not depend on how they are read");
    fuzz::require(source.read(source.count - 1, 1, alone.data()) == 1, "the last record is given");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    fuzz::Source input(data, size);
    const bool isPacked = input.take<std::uint8_t>() == 1;
    const std::string file = isPacked ? gzipOf(input.remaining()) : input.remaining();
    const std::filesystem::path path = fuzz::scratch() / "packed";
    DatasetWriter::writeFile(path, file);
    try {
        const std::unique_ptr<Source> source = open(path, file);
        if (source) {
            checkRecords(*source);
        }
    } catch (const SourceError& error) {
        const std::string text = error.what();
        fuzz::require(text.starts_with(path.string() + ":"), "a refusal names the file: " + text);
        fuzz::require(text.find('\n') == std::string::npos, "a refusal is one line: " + text);
    }
    return 0;
}
