// File systems that other machines may have mounted, too.
#pragma once

namespace Tavrin::SplatProgram {

// The file system of an open file may be a network's. Then a lock may hold on this machine alone, and an open
// file that is removed may keep a name in its folder until it is closed (.nfs..., .fuse_hidden...).
bool isOnNetworkDisk(int handle);

} // namespace Tavrin::SplatProgram
