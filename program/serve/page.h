// The page that shows datasets, which the program carries.
#pragma once

#include <string>

namespace Tavrin::SplatProgram {

// The page as one gzip file.
std::string pageGzip();

// The page itself: HTML with everything that it needs inside. Throws std::runtime_error when the embedded
// bytes are damaged.
std::string pageText();

// The content policy for the page: its own inline scripts and styles run, by their hashes, and nothing else;
// it fetches from its own server alone.
std::string pageContentPolicy();

} // namespace Tavrin::SplatProgram
