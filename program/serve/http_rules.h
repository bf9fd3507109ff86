// Parses the header fields of a request. Each function takes the field's value unchanged.
#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

namespace Tavrin::SplatProgram {

struct ByteRange {
    std::uint64_t first = 0;
    std::uint64_t count = 0;
    bool operator==(const ByteRange&) const = default;
};

// The meaning of a Range field.
struct RangeRequest {
    enum class Kind {
        whole, // the whole content: the field has another unit or several ranges, or is malformed
        part,
        outside // no byte of the content is in it
    };
    Kind kind = Kind::whole;
    ByteRange range; // of a part, inside the content
};

// Parses a Range field for content of `size` bytes.
RangeRequest parseRange(std::string_view field, std::uint64_t size);

// True if an Accept-Encoding field allows gzip.
bool acceptsGzip(std::string_view field);

// True if an If-Match or If-None-Match field names this entity tag (in quotes) or is "*". With `weak`, weak
// tags match, too.
bool namesTag(std::string_view field, std::string_view tag, bool weak);

// True if a Host field names this server: 127.0.0.1, localhost or [::1], with its port.
bool isOwnHost(std::string_view field, std::uint16_t port);

} // namespace Tavrin::SplatProgram
