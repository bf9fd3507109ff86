// The page of `view`, which is embedded in the program.
#pragma once

#include <string>

namespace Tavrin::SplatProgram {

// The page as one gzip file.
std::string pageGzip();

// The page itself: HTML with everything that it needs inside. Throws std::runtime_error when the embedded
// bytes are damaged.
std::string pageText();

// The Content-Security-Policy of the page. It allows the page's own inline scripts and styles, by their
// hashes, and requests to its own server; nothing else.
std::string pageContentPolicy();

} // namespace Tavrin::SplatProgram
