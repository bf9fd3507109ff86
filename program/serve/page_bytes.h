// The page as the build embeds it (cmake/EmbedPage.cmake). For page.cpp only.
#pragma once

#include <cstddef>

namespace Tavrin::SplatProgram {

struct EmbeddedPage {
    const unsigned char* gzip; // a whole gzip file
    std::size_t gzipSize;
    std::size_t size;    // of the page itself, in bytes
    const char* scripts; // " 'sha256-...'" for each inline script
    const char* styles;  // the same for each inline style
};

extern const EmbeddedPage embeddedPage;

} // namespace Tavrin::SplatProgram
