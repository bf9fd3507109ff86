#include "program/system/flush_folders.h"

namespace Tavrin::SplatProgram {

// The system orders the entries of folders by itself.
bool flushFolders(const std::vector<std::filesystem::path>&, const AfterFlush&,
                  const std::function<bool()>&) {
    return true;
}

} // namespace Tavrin::SplatProgram
