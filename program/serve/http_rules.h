// What the fields of a request mean. Each function takes one field's value as it came.
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

// What a Range field asks for.
struct RangeRequest {
    enum class Kind {
        whole, // nothing that this server gives parts for: another unit, several ranges, not well formed
        part,
        outside // no byte of the content is in it
    };
    Kind kind = Kind::whole;
    ByteRange range; // of a part, inside the content
};

// Of content of `size` bytes.
RangeRequest parseRange(std::string_view field, std::uint64_t size);

// An Accept-Encoding field allows gzip.
bool acceptsGzip(std::string_view field);

// An If-Match or If-None-Match field names this entity tag (in quotes), or any by "*". Tags that are marked
// as weak count where `weak`.
bool namesTag(std::string_view field, std::string_view tag, bool weak);

// A Host field names this server: 127.0.0.1, localhost or [::1], with its port.
bool isOwnHost(std::string_view field, std::uint16_t port);

} // namespace Tavrin::SplatProgram
