#include "program/serve/page.h"

#include "program/serve/page_bytes.h"

#include <fmt/format.h>
#include <zlib.h>

#include <stdexcept>
#include <string_view>

namespace Tavrin::SplatProgram {
namespace {

// The list of allowed sources, 'none' if it is empty.
std::string_view sourcesOf(const char* hashes) {
    const std::string_view text(hashes);
    return text.empty() ? " 'none'" : text;
}

} // namespace

std::string pageGzip() {
    return {reinterpret_cast<const char*>(embeddedPage.gzip), embeddedPage.gzipSize};
}

std::string pageText() {
    constexpr int gzipForm = 16 + MAX_WBITS; // zlib's code for a gzip file
    std::string text(embeddedPage.size, '\0');
    z_stream stream = {};
    stream.next_in = const_cast<Bytef*>(embeddedPage.gzip);
    stream.avail_in = static_cast<uInt>(embeddedPage.gzipSize);
    stream.next_out = reinterpret_cast<Bytef*>(text.data());
    stream.avail_out = static_cast<uInt>(text.size());
    int result = inflateInit2(&stream, gzipForm);
    if (result == Z_OK) {
        result = inflate(&stream, Z_FINISH);
        inflateEnd(&stream);
    }
    if (result != Z_STREAM_END || stream.total_out != text.size()) {
        throw std::runtime_error("the program's own page is damaged: install the program again");
    }
    return text;
}

std::string pageContentPolicy() {
    return fmt::format("default-src 'none'; script-src{}; style-src{}; worker-src blob:; connect-src 'self'; "
                       "img-src blob: data:; base-uri 'none'; form-action 'none'; frame-ancestors 'none'",
                       sourcesOf(embeddedPage.scripts), sourcesOf(embeddedPage.styles));
}

} // namespace Tavrin::SplatProgram
