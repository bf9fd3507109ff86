// Text PLY files: an index of their words, and reading records from any one on.

#include "source/ply_body.h"
#include "source/ply_numbers.h"
#include "source/text.h"
#include "threads/crew.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <optional>

namespace Tavrin::SplatSource {
namespace {

constexpr std::uint64_t blockBytes = 1 << 16; // the index has one number for each block
constexpr std::size_t pieceBytes = 1 << 18;
constexpr std::size_t longestWord = 4096; // longer than any number

bool isBlank(char c) {
    return c == ' ' || static_cast<unsigned char>(c - '\t') < 5; // tab, line feed, VT, FF, carriage return
}

// The number of words that start in [text, text + size). text[-1] is readable.
std::uint64_t countWords(const char* text, std::size_t size) {
    std::uint64_t words = 0;
    while (size > 0) {
        const std::size_t part = std::min<std::size_t>(size, 255); // one byte can count no more
        const char* const last = text - 1;
        std::uint8_t starts = 0;
        for (std::size_t i = 0; i < part; ++i) {
            const bool before = (last[i] == ' ') | (static_cast<unsigned char>(last[i] - '\t') < 5);
            const bool here = (text[i] == ' ') | (static_cast<unsigned char>(text[i] - '\t') < 5);
            starts = static_cast<std::uint8_t>(starts + (before & !here));
        }
        words += starts;
        text += part;
        size -= part;
    }
    return words;
}

// Reads a text forwards, word by word.
class WordReader {
public:
    WordReader(const RecordFile& file, std::uint64_t at) : file_(file), next_(at) {
        thread_local std::vector<char> piece(pieceBytes + 1);
        piece_ = piece.data() + 1;
        piece_[-1] = ' ';
    }

    // The next word, valid until the next call; empty after the last.
    std::optional<std::string_view> next() {
        while (true) {
            while (at_ < end_ && isBlank(piece_[at_])) {
                ++at_;
            }
            const std::size_t begin = at_;
            std::size_t end = begin;
            while (end < end_ && !isBlank(piece_[end])) {
                ++end;
            }
            if (end < end_ || next_ == file_.size()) {
                at_ = end;
                return end > begin ? std::optional(std::string_view(piece_ + begin, end - begin))
                                   : std::nullopt;
            }
            if (end - begin > longestWord) {
                throw SourceError(fmt::format("{}: the word at byte {} is not a number: it has more than {} "
                                              "characters",
                                              file_.name(), next_ - (end_ - begin), longestWord));
            }
            refill();
        }
    }

    // Skips words and counts them. False when fewer are left.
    bool skip(std::uint64_t words) {
        for (; words > 0; --words) {
            if (!next()) {
                return false;
            }
        }
        return true;
    }

    // The offset in the file of the byte after the last word.
    std::uint64_t position() const { return next_ - (end_ - at_); }

private:
    void refill() {
        std::memmove(piece_, piece_ + at_, end_ - at_);
        end_ -= at_;
        at_ = 0;
        const auto more =
            static_cast<std::size_t>(std::min<std::uint64_t>(pieceBytes - end_, file_.size() - next_));
        file_.read(next_, piece_ + end_, more);
        next_ += more;
        end_ += more;
    }

    const RecordFile& file_;
    std::uint64_t next_; // offset in the file, of the byte after the piece
    char* piece_;        // of this thread, which has one reader at a time
    std::size_t at_ = 0; // of the piece
    std::size_t end_ = 0;
};

// The number of words before every block of the body.
class WordIndex {
public:
    WordIndex(const RecordFile& file, std::uint64_t bodyAt, unsigned threads) : file_(file), bodyAt_(bodyAt) {
        const std::uint64_t bytes = file.size() - bodyAt;
        const std::uint64_t blocks = bytes / blockBytes + (bytes % blockBytes > 0 ? 1 : 0);
        before_.resize(blocks + 1);
        countAll(blocks, threads);
        for (std::uint64_t block = 0; block < blocks; ++block) {
            before_[block + 1] += before_[block];
        }
    }

    std::uint64_t words() const { return before_.back(); }

    // An offset such that word number `word` is the first to start at or after it. `word` is below words().
    std::uint64_t placeOf(std::uint64_t word) const {
        const auto block = std::ranges::upper_bound(before_, word) - before_.begin() - 1;
        std::uint64_t left = word - before_[static_cast<std::size_t>(block)];
        std::array<char, 4097> piece;
        std::uint64_t at = bodyAt_ + static_cast<std::uint64_t>(block) * blockBytes;
        while (true) {
            const std::size_t size = load(at, piece);
            const std::uint64_t words = countWords(piece.data() + 1, size);
            if (words > left) {
                break;
            }
            left -= words;
            at += size;
        }
        load(at, piece);
        for (std::size_t i = 1;; ++i) {
            if (isBlank(piece[i - 1]) && !isBlank(piece[i]) && left-- == 0) {
                return at + i - 1;
            }
        }
    }

private:
    // Reads up to 4,096 bytes from `at` on, and the byte before them; before the body that byte is a blank.
    template <typename Piece>
    std::size_t load(std::uint64_t at, Piece& piece) const {
        const auto size =
            static_cast<std::size_t>(std::min<std::uint64_t>(piece.size() - 1, file_.size() - at));
        file_.read(at - 1, piece.data(), size + 1);
        if (at == bodyAt_) {
            piece[0] = ' ';
        }
        return size;
    }

    // Writes the word count of each block in [first, last) to the next block's entry.
    void countBlocks(std::uint64_t first, std::uint64_t last) {
        std::vector<char> piece(blockBytes + 1);
        for (std::uint64_t block = first; block < last; ++block) {
            const std::size_t size = load(bodyAt_ + block * blockBytes, piece);
            before_[block + 1] = countWords(piece.data() + 1, size);
        }
    }

    void countAll(std::uint64_t blocks, unsigned threads) {
        constexpr std::uint64_t atOnce = 64;
        SplatThreads::Crew().share(threads, blocks / atOnce + 1,
                                   [&](unsigned /*worker*/, std::uint64_t group) {
                                       countBlocks(group * atOnce, std::min((group + 1) * atOnce, blocks));
                                   });
    }

    const RecordFile& file_;
    std::uint64_t bodyAt_;
    std::vector<std::uint64_t> before_;
};

class AsciiBody : public PlyBody {
public:
    AsciiBody(const RecordFile& file, const PlyHeader& header, unsigned threads)
        : file_(file), vertex_(*header.find("vertex")) {
        requireRoom(file, header);
        std::uint64_t at = header.length; // as close before the vertices as is known
        if (hasListsUpToVertices(header)) {
            at = walkTo(header);
        }
        const WordIndex* words = nullptr;
        if (hasLists_) {
            walkVertices(at);
        } else {
            words_.emplace(file, at, threads);
            words = &*words_;
            requireWords(header, at);
        }
        if (words != nullptr && words->words() > firstWord_ + vertex_.count * vertex_.properties.size() &&
            &header.elements.back() == &vertex_) {
            remarks.emplace_back("words follow the last record: they are ignored");
        }
    }

    void read(std::uint64_t first, std::uint64_t size, std::byte* vertices) const override {
        if (size == 0) {
            return;
        }
        std::uint64_t record = first;
        std::uint64_t at = 0;
        if (hasLists_) {
            record = first / indexStep * indexStep;
            at = places_[first / indexStep];
        } else {
            at = words_->placeOf(firstWord_ + first * vertex_.properties.size());
        }
        WordReader reader(file_, at);
        for (; record < first; ++record) {
            step(reader, vertex_, record, nullptr);
        }
        for (; record < first + size; ++record) {
            vertices = step(reader, vertex_, record, vertices);
        }
    }

private:
    [[noreturn]] void fail(const PlyElement& element, std::uint64_t record, std::uint64_t at,
                           const std::string& what) const {
        throw SourceError(fmt::format("{}: record {} of element {}, before byte {}: {}", file_.name(), record,
                                      inQuotes(element.name), at, what));
    }

    bool hasListsUpToVertices(const PlyHeader& header) {
        hasLists_ = !vertex_.recordBytes();
        for (const PlyElement& element : header.elements) {
            if (&element == &vertex_) {
                return hasLists_;
            }
            if (!element.recordBytes()) {
                return true;
            }
        }
        return false;
    }

    // The offset after the elements before the vertices.
    std::uint64_t walkTo(const PlyHeader& header) const {
        WordReader reader(file_, header.length);
        for (const PlyElement& element : header.elements) {
            if (&element == &vertex_) {
                break;
            }
            for (std::uint64_t record = 0; record < element.count && !element.properties.empty(); ++record) {
                step(reader, element, record, nullptr);
            }
        }
        return reader.position();
    }

    void walkVertices(std::uint64_t at) {
        WordReader reader(file_, at);
        for (std::uint64_t record = 0; record < vertex_.count; ++record) {
            if (record % indexStep == 0) {
                places_.push_back(reader.position());
            }
            step(reader, vertex_, record, nullptr);
        }
    }

    // Finds where the vertices start among the words after `at`, and checks that all of them exist.
    void requireWords(const PlyHeader& header, std::uint64_t at) {
        for (const PlyElement& element : header.elements) {
            if (&element == &vertex_) {
                break;
            }
            firstWord_ += at == header.length ? element.count * element.properties.size() : 0;
        }
        const std::uint64_t perVertex = vertex_.properties.size();
        const std::uint64_t held = words_->words() - std::min(words_->words(), firstWord_);
        if (vertex_.count > held / perVertex) {
            throw SourceError(fmt::format("{}: the file is cut: it declares {} of {} and holds {} and {} of "
                                          "another: copy or export it again",
                                          file_.name(), countOf(vertex_.count, "record", "records"),
                                          countOf(perVertex, "number", "numbers"), held / perVertex,
                                          countOf(held % perVertex, "number", "numbers")));
        }
    }

    std::string_view nextWord(WordReader& reader, const PlyElement& element, std::uint64_t record) const {
        const std::optional<std::string_view> word = reader.next();
        if (!word) {
            fail(element, record, reader.position(), "the file ends in it: copy or export it again");
        }
        return *word;
    }

    // Skips one record. Writes its scalars to `scalars` unless that is null. Returns the end of what it
    // wrote.
    std::byte* step(WordReader& reader, const PlyElement& element, std::uint64_t record,
                    std::byte* scalars) const {
        for (const PlyProperty& property : element.properties) {
            const std::string_view word = nextWord(reader, element, record);
            if (property.isList()) {
                stepList(reader, element, record, property, word);
                continue;
            }
            if (scalars == nullptr) {
                continue;
            }
            if (!parseScalar(word, property.type, scalars)) {
                fail(element, record, reader.position(),
                     fmt::format("{} of property {} is not a value of type {}", inQuotes(word),
                                 inQuotes(property.name), property.typeText));
            }
            scalars += widthOf(property.type);
        }
        return scalars;
    }

    void stepList(WordReader& reader, const PlyElement& element, std::uint64_t record,
                  const PlyProperty& property, std::string_view word) const {
        std::uint64_t count = 0;
        if (!parseListCount(word, *property.countType, count)) {
            fail(element, record, reader.position(),
                 fmt::format("{} is not a count of the list {}", inQuotes(word), inQuotes(property.name)));
        }
        if (!reader.skip(count)) {
            fail(element, record, reader.position(),
                 fmt::format("the list {} of {} runs over the end of the file: copy or export it again",
                             inQuotes(property.name), countOf(count, "item", "items")));
        }
    }

    const RecordFile& file_;
    const PlyElement& vertex_;
    bool hasLists_ = false; // among the vertex properties
    std::optional<WordIndex> words_;
    std::uint64_t firstWord_ = 0;       // of the vertices
    std::vector<std::uint64_t> places_; // with lists: offset of every indexStep-th vertex
};

} // namespace

std::unique_ptr<PlyBody> openAsciiBody(const RecordFile& file, const PlyHeader& header, unsigned threads) {
    return std::make_unique<AsciiBody>(file, header, threads);
}

} // namespace Tavrin::SplatSource
