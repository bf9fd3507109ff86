#include "source/open.h"

#include "source/compressed_ply.h"
#include "source/ply.h"
#include "source/ply_body.h"
#include "source/ply_layout.h"
#include "source/spz.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>

namespace Tavrin::SplatSource {
namespace {

using namespace std::string_view_literals;

// The first bytes of files without usable splats, and what such files are.
struct Lookalike {
    std::string_view start;
    const char* what;
};
constexpr std::array lookalikes = {
    Lookalike{"glTF"sv, "a glTF file"},
    Lookalike{"PK\x03\x04"sv, "a zip archive: unpack it and name the file in it"},
    Lookalike{"PK\x05\x06"sv, "an empty zip archive"},
    Lookalike{"LASF"sv, "a LAS point cloud, not splats: no opacity, no scale"},
    Lookalike{"\x89PNG"sv, "a picture"},
    Lookalike{"\xFF\xD8\xFF"sv, "a picture"},
    Lookalike{"RIFF"sv, "a RIFF file, perhaps a picture"},
    Lookalike{"\x28\xB5\x2F\xFD"sv, "a zstd archive: unpack it and name the file in it"},
    Lookalike{"BZh"sv, "a bzip2 archive: unpack it and name the file in it"},
    Lookalike{"\xFD"
              "7zXZ"sv,
              "an xz archive: unpack it and name the file in it"},
    Lookalike{"7z\xBC\xAF"sv, "a 7z archive: unpack it and name the file in it"},
    Lookalike{"Kaydara FBX"sv, "an FBX mesh"},
    Lookalike{"#usda"sv, "a USD file"},
    Lookalike{"PXR-USDC"sv, "a USD file"},
    Lookalike{"%PDF"sv, "a PDF document"},
    Lookalike{"\xEF\xBB\xBFply"sv, "a PLY file behind a byte order mark: remove its first three bytes"},
    Lookalike{"version https://git-lfs"sv, "a pointer of Git LFS, not the file itself: fetch it"},
    Lookalike{"<!DOCTYPE"sv, "a web page: download the file itself"},
    Lookalike{"<html"sv, "a web page: download the file itself"},
    Lookalike{"{"sv, "JSON text"},
    Lookalike{"PLY"sv, "a PLY file in capitals: its first line must be \"ply\""},
};

constexpr const char* whatIsRead = "plyconvert reads PLY of any layout, compressed PLY and SPZ";

[[noreturn]] void refuse(const std::string& name, std::string_view start) {
    if (start.empty()) {
        throw SourceError(fmt::format("{}: the file is empty", name));
    }
    const auto isIt = [&](const Lookalike& lookalike) { return start.starts_with(lookalike.start); };
    const auto found = std::ranges::find_if(lookalikes, isIt);
    if (found != lookalikes.end()) {
        throw SourceError(fmt::format("{}: not a splat file but {} ({})", name, found->what, whatIsRead));
    }
    const bool isText = std::ranges::all_of(start.substr(0, 256), [](char c) {
        return static_cast<unsigned char>(c) >= 0x20 || c == '\n' || c == '\r' || c == '\t';
    });
    throw SourceError(
        fmt::format("{}: not a splat file{} ({})", name, isText ? " but some text" : "", whatIsRead));
}

// An input of which only the header is known.
class HeaderInput final : public Input {
public:
    explicit HeaderInput(const std::filesystem::path& path) : file_(path) {
        name = file_.name();
        if (const std::string start = readStart(file_); looksLikeSpz(start)) {
            describeSpz(readSpzHeader(file_), *this);
        } else {
            const PlyHeader header = parsePlyHeader(start, name);
            describePly(header, splatLayoutOf(header, name), *this);
            requireRoom(file_, header);
        }
    }

    void readWide(std::uint64_t, std::uint64_t, float*, double*) const override {
        throw std::logic_error("the records of an input that was opened for its header are read");
    }
    void requireUnchanged() const override { file_.requireUnchanged(); }

private:
    RecordFile file_;
};

enum class Kind { ply, compressedPly, spz };

// The kind by the first bytes. Throws SourceError.
Kind kindOf(const std::filesystem::path& path, std::optional<PlyHeader>& header) {
    const RecordFile file(path);
    const std::string start = readStart(file);
    if (looksLikeSpz(start)) {
        return Kind::spz;
    }
    if (!looksLikePly(start)) {
        refuse(file.name(), start);
    }
    header = parsePlyHeader(start, file.name());
    return isCompressedPly(*header) ? Kind::compressedPly : Kind::ply;
}

} // namespace

std::unique_ptr<Input> openSource(const std::filesystem::path& path, const OpenOptions& options) {
    std::optional<PlyHeader> header;
    switch (kindOf(path, header)) {
    case Kind::spz:
        return std::make_unique<SpzInput>(path, options.axes, options.scratchFolder, options.pause);
    case Kind::compressedPly:
        return std::make_unique<CompressedPlyInput>(path, *header);
    case Kind::ply:
        break;
    }
    return std::make_unique<PlyInput>(path, options.threads, options.pause);
}

std::unique_ptr<Input> openHeader(const std::filesystem::path& path) {
    std::optional<PlyHeader> header;
    if (kindOf(path, header) == Kind::compressedPly) {
        return std::make_unique<CompressedPlyInput>(path, *header); // it reads its ranges with the records
    }
    return std::make_unique<HeaderInput>(path);
}

} // namespace Tavrin::SplatSource
