// SHA-256. Golden hashes can therefore be checked with any system's sha256sum.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <string>
#include <string_view>

namespace support {

class Sha256 {
public:
    void update(std::string_view bytes);
    // The digest as 64 lowercase hexadecimal digits. Ends the computation.
    std::string finish();

private:
    void block(const unsigned char* bytes);

    std::array<std::uint32_t, 8> state_{0x6a09e667, 0xbb67ae85, 0x3c6ef372, 0xa54ff53a,
                                        0x510e527f, 0x9b05688c, 0x1f83d9ab, 0x5be0cd19};
    std::array<unsigned char, 64> pending_{};
    std::size_t pendingSize_ = 0;
    std::uint64_t length_ = 0; // bytes
};

std::string sha256(std::string_view bytes);

// Reads the file in pieces. Throws std::runtime_error when it cannot be read.
std::string sha256OfFile(const std::filesystem::path& path);

} // namespace support
