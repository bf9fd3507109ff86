// copyfloor INPUT OUTPUT BYTES [flush]: the floor that a conversion is compared with. Reads the input once
// and writes as many bytes as the dataset has, in large plain reads and writes. Does nothing else. With the
// word flush it also waits until the bytes are on the disk.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include <fcntl.h>
#include <unistd.h>

namespace {

// As fast as larger pieces. It stays in the second-level cache between the read and the write.
constexpr std::size_t pieceBytes = std::size_t{1} << 20;

int fail(const char* what) {
    std::perror(what);
    return 1;
}

} // namespace

int main(int argc, char** argv) {
    if (argc != 4 && argc != 5) {
        std::fputs("usage: copyfloor INPUT OUTPUT BYTES [flush]\n", stderr);
        return 1;
    }
    std::vector<char> piece(pieceBytes);
    const int input = open(argv[1], O_RDONLY);
    if (input < 0) {
        return fail(argv[1]);
    }
    ssize_t got = 0;
    while ((got = read(input, piece.data(), piece.size())) > 0) {
    }
    if (got < 0) {
        return fail(argv[1]);
    }
    close(input);
    const int output = open(argv[2], O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (output < 0) {
        return fail(argv[2]);
    }
    for (std::uint64_t left = std::strtoull(argv[3], nullptr, 10); left > 0;) {
        const ssize_t put =
            write(output, piece.data(), static_cast<std::size_t>(std::min<std::uint64_t>(left, pieceBytes)));
        if (put <= 0) {
            return fail(argv[2]);
        }
        left -= static_cast<std::uint64_t>(put);
    }
    if (argc == 5 && fsync(output) != 0) {
        return fail(argv[2]);
    }
    return close(output) == 0 ? 0 : fail(argv[2]);
}
