#include "source/ply_body.h"

#include "source/text.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstring>
#include <optional>

namespace Tavrin::SplatSource {
namespace {

// Reads a binary file forwards, a piece at a time.
class ByteWalker {
public:
    ByteWalker(const RecordFile& file, std::uint64_t at) : file_(file), next_(at) {}

    std::uint64_t position() const { return next_ - (end_ - at_); }

    // The next `size` bytes, at most 8, valid until the next call; null beyond the end of the file.
    const std::byte* take(std::size_t size) {
        if (end_ - at_ < size && !refill(size)) {
            return nullptr;
        }
        const std::byte* const bytes = piece_.data() + at_;
        at_ += size;
        return bytes;
    }

    // False when fewer are left.
    bool skip(std::uint64_t size) {
        if (size <= end_ - at_) {
            at_ += static_cast<std::size_t>(size);
            return true;
        }
        size -= end_ - at_;
        at_ = end_ = 0;
        if (size > file_.size() - next_) {
            return false;
        }
        next_ += size;
        return true;
    }

private:
    bool refill(std::size_t size) {
        constexpr std::size_t pieceBytes = 1 << 16;
        piece_.resize(pieceBytes);
        std::memmove(piece_.data(), piece_.data() + at_, end_ - at_);
        end_ -= at_;
        at_ = 0;
        const auto more =
            static_cast<std::size_t>(std::min<std::uint64_t>(pieceBytes - end_, file_.size() - next_));
        file_.read(next_, piece_.data() + end_, more);
        next_ += more;
        end_ += more;
        return end_ >= size;
    }

    const RecordFile& file_;
    std::uint64_t next_; // offset in the file, of the byte after the piece
    std::vector<std::byte> piece_;
    std::size_t at_ = 0; // of the piece
    std::size_t end_ = 0;
};

// The count of a list. Nothing when it is negative.
std::optional<std::uint64_t> listCount(const std::byte* bytes, Scalar type, bool isBigEndian) {
    std::uint64_t count = 0;
    const std::size_t width = widthOf(type);
    for (std::size_t i = 0; i < width; ++i) {
        const std::size_t at = isBigEndian ? i : width - 1 - i;
        count = count << 8 | std::to_integer<std::uint64_t>(bytes[at]);
    }
    const bool isSigned = type == Scalar::int8 || type == Scalar::int16 || type == Scalar::int32;
    const bool isNegative = isSigned && (count >> (8 * width - 1) & 1u) != 0;
    return isNegative ? std::nullopt : std::optional(count);
}

// The least bytes that an element's records can take: the scalars and the counts of its lists.
std::uint64_t leastBytes(const PlyElement& element) {
    std::uint64_t bytes = 0;
    for (const PlyProperty& property : element.properties) {
        bytes += widthOf(property.countType.value_or(property.type));
    }
    return bytes;
}

class BinaryWalk {
public:
    BinaryWalk(const RecordFile& file, const PlyHeader& header, std::uint64_t at)
        : file_(file), isBigEndian_(header.format == PlyFormat::binaryBigEndian), walker_(file, at) {}

    std::uint64_t position() const { return walker_.position(); }

    // Skips one record. Writes its scalars to `scalars` unless that is null.
    void step(const PlyElement& element, std::uint64_t record, std::byte* scalars) {
        for (const PlyProperty& property : element.properties) {
            const std::uint64_t at = position();
            const std::size_t width = widthOf(property.countType.value_or(property.type));
            const std::byte* const bytes = walker_.take(width);
            if (bytes == nullptr) {
                fail(element, record, at, "the file ends in it: copy or export it again");
            }
            if (!property.isList()) {
                if (scalars != nullptr) {
                    std::memcpy(scalars, bytes, width);
                    scalars += width;
                }
                continue;
            }
            const auto count = listCount(bytes, *property.countType, isBigEndian_);
            if (!count) {
                fail(element, record, at,
                     fmt::format("the list {} has a negative count: export the file again",
                                 inQuotes(property.name)));
            }
            if (!walker_.skip(*count * widthOf(property.type))) { // at most 2^32 * 8
                fail(element, record, at,
                     fmt::format("the list {} of {} runs over the end of the file: copy or export it again",
                                 inQuotes(property.name), countOf(*count, "item", "items")));
            }
        }
    }

    // Skips a whole element.
    void skip(const PlyElement& element) {
        if (element.properties.empty()) {
            return; // takes no bytes, whatever its count
        }
        if (const std::optional<std::uint64_t> bytes = element.recordBytes()) {
            if (!walker_.skip(productOf(*bytes, element.count))) {
                fail(element, 0, position(), "the file ends before the last record: copy or export it again");
            }
            return;
        }
        for (std::uint64_t record = 0; record < element.count; ++record) {
            step(element, record, nullptr);
        }
    }

private:
    [[noreturn]] void fail(const PlyElement& element, std::uint64_t record, std::uint64_t at,
                           const std::string& what) const {
        throw SourceError(fmt::format("{}: record {} of element {}, at byte {}: {}", file_.name(), record,
                                      inQuotes(element.name), at, what));
    }

    const RecordFile& file_;
    bool isBigEndian_;
    ByteWalker walker_;
};

// Vertices that all have one size.
class FixedBody : public PlyBody {
public:
    FixedBody(const RecordFile& file, std::uint64_t at, std::uint64_t recordBytes)
        : file_(file), recordBytes_(recordBytes) {
        vertexAt = at;
    }

    void read(std::uint64_t first, std::uint64_t size, std::byte* vertices) const override {
        file_.read(vertexAt + first * recordBytes_, vertices, size * recordBytes_);
    }

private:
    const RecordFile& file_;
    std::uint64_t recordBytes_;
};

// Vertices with lists. The offset of every indexStep-th is remembered.
class WalkedBody : public PlyBody {
public:
    WalkedBody(const RecordFile& file, const PlyHeader& header, BinaryWalk& walk)
        : file_(file), header_(header), vertex_(*header.find("vertex")) {
        for (const PlyProperty& property : vertex_.properties) {
            fixedBytes_ += property.isList() ? 0 : widthOf(property.type);
        }
        for (std::uint64_t record = 0; record < vertex_.count; ++record) {
            if (record % indexStep == 0) {
                index_.push_back(walk.position());
            }
            walk.step(vertex_, record, nullptr);
        }
    }

    void read(std::uint64_t first, std::uint64_t size, std::byte* vertices) const override {
        if (size == 0) {
            return;
        }
        std::uint64_t record = first / indexStep * indexStep;
        BinaryWalk walk(file_, header_, index_[first / indexStep]);
        for (; record < first; ++record) {
            walk.step(vertex_, record, nullptr);
        }
        for (; record < first + size; ++record) {
            walk.step(vertex_, record, vertices);
            vertices += fixedBytes_;
        }
    }

private:
    const RecordFile& file_;
    const PlyHeader& header_;
    const PlyElement& vertex_;
    std::size_t fixedBytes_ = 0;
    std::vector<std::uint64_t> index_; // offset of every indexStep-th vertex
};

// Refuses counts that the file cannot hold, before they decide a walk or an allocation.
void requireBytes(const RecordFile& file, const PlyHeader& header, const PlyElement& vertex) {
    std::uint64_t need = 0;
    for (const PlyElement& element : header.elements) {
        const std::uint64_t bytes = leastBytes(element);
        const std::uint64_t before = need;
        need = sumOf(need, productOf(element.count, bytes));
        const std::uint64_t held = file.size() - std::min(file.size(), header.length);
        if (need > held) {
            const std::uint64_t left = held - before;
            const std::string rest =
                left % bytes > 0 ? fmt::format(" and {} of another", countOf(left % bytes, "byte", "bytes"))
                                 : std::string();
            throw SourceError(fmt::format(
                "{}: the file is cut: it declares {} of {}{} and holds {}{}: copy or export it again",
                file.name(), countOf(element.count, "record", "records"), countOf(bytes, "byte", "bytes"),
                &element == &vertex ? "" : fmt::format(" of element {}", inQuotes(element.name)),
                grouped(left / bytes), rest));
        }
        if (&element == &vertex) {
            return;
        }
    }
}

// The same for a text file: every value but the last takes at least a digit and a blank.
void requireText(const RecordFile& file, const PlyHeader& header, const PlyElement& vertex) {
    std::uint64_t words = 0;
    for (const PlyElement& element : header.elements) {
        words = sumOf(words, productOf(element.count, element.properties.size()));
        const std::uint64_t held = file.size() - std::min(file.size(), header.length);
        if (words > held / 2 + 1) {
            throw SourceError(fmt::format("{}: the file is cut: it declares {} of element {} and ends "
                                          "before them: copy or export it again",
                                          file.name(), countOf(element.count, "record", "records"),
                                          inQuotes(element.name)));
        }
        if (&element == &vertex) {
            return;
        }
    }
}

// Surplus or missing bytes after the vertices harm no splat, so they only cause a remark.
void remarkTail(const RecordFile& file, const PlyHeader& header, BinaryWalk walk, PlyBody& body) {
    bool isBehind = false;
    try {
        for (const PlyElement& element : header.elements) {
            if (isBehind) {
                walk.skip(element);
            }
            isBehind = isBehind || element.name == "vertex";
        }
    } catch (const SourceError&) {
        body.remarks.emplace_back("the file is cut behind its vertices: the splats are whole");
        return;
    }
    if (const std::uint64_t more = file.size() - walk.position()) {
        body.remarks.push_back(fmt::format("{} the last record: {} ignored",
                                           countOf(more, "byte follows", "bytes follow"),
                                           more == 1 ? "it is" : "they are"));
    }
}

} // namespace

std::uint64_t productOf(std::uint64_t a, std::uint64_t b) {
    return b > 0 && a > UINT64_MAX / b ? UINT64_MAX : a * b;
}

std::uint64_t sumOf(std::uint64_t a, std::uint64_t b) {
    return a > UINT64_MAX - b ? UINT64_MAX : a + b;
}

void requireRoom(const RecordFile& file, const PlyHeader& header) {
    const PlyElement& vertex = *header.find("vertex");
    if (header.format == PlyFormat::ascii) {
        requireText(file, header, vertex);
    } else {
        requireBytes(file, header, vertex);
    }
}

std::unique_ptr<PlyBody> openPlyBody(const RecordFile& file, const PlyHeader& header, unsigned threads) {
    if (header.format == PlyFormat::ascii) {
        return openAsciiBody(file, header, threads);
    }
    const PlyElement& vertex = *header.find("vertex");
    requireRoom(file, header);
    BinaryWalk walk(file, header, header.length);
    for (const PlyElement& element : header.elements) {
        if (&element == &vertex) {
            break;
        }
        walk.skip(element);
    }
    std::unique_ptr<PlyBody> body;
    if (const std::optional<std::uint64_t> bytes = vertex.recordBytes()) {
        body = std::make_unique<FixedBody>(file, walk.position(), *bytes);
        walk.skip(vertex);
    } else {
        body = std::make_unique<WalkedBody>(file, header, walk);
    }
    remarkTail(file, header, std::move(walk), *body);
    return body;
}

} // namespace Tavrin::SplatSource
