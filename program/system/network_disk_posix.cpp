#include "program/system/network_disk_posix.h"

#include <algorithm>
#include <array>
#include <cstdint>

#include <linux/magic.h>
#include <sys/vfs.h>

namespace Tavrin::SplatProgram {
namespace {

// The system's headers do not have this number.
constexpr std::uint32_t beegfsMagic = 0x19830326;
constexpr std::uint32_t gpfsMagic = 0x47504653;
constexpr std::uint32_t lustreMagic = 0x0BD00BD0;
constexpr std::array networkMagics = {std::uint32_t{NFS_SUPER_MAGIC},
                                      std::uint32_t{CIFS_SUPER_MAGIC},
                                      std::uint32_t{SMB2_SUPER_MAGIC},
                                      std::uint32_t{SMB_SUPER_MAGIC},
                                      std::uint32_t{CEPH_SUPER_MAGIC},
                                      std::uint32_t{V9FS_MAGIC},
                                      std::uint32_t{AFS_SUPER_MAGIC},
                                      std::uint32_t{CODA_SUPER_MAGIC},
                                      std::uint32_t{OCFS2_SUPER_MAGIC},
                                      std::uint32_t{FUSE_SUPER_MAGIC},
                                      beegfsMagic,
                                      gpfsMagic,
                                      lustreMagic};

} // namespace

bool isOnNetworkDisk(int handle) {
    struct statfs status = {};
    return ::fstatfs(handle, &status) == 0 &&
           std::ranges::find(networkMagics, static_cast<std::uint32_t>(status.f_type)) != networkMagics.end();
}

} // namespace Tavrin::SplatProgram
