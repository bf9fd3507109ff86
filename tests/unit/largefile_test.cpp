// Files beyond 4 GiB: sizes and positions have 64 bits on every system. The file is sparse and takes no disk
// space.

#include "src/blocks.h"
#include "src/records.h"
#include "src/splatheader.h"
#include "tests/support/files.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <fstream>
#include <memory>
#include <string>

namespace Tavrin::GaussionSplat {

namespace {

constexpr std::uint64_t beyond32Bits = (std::uint64_t{1} << 32) + 12345;

class LargeFile : public testing::Test {
protected:
    support::Scratch scratch;
    const std::filesystem::path path = scratch / "large.ply";

    // Writes a header, a hole up to beyond32Bits, then the text "splat".
    void write() {
        std::ofstream file(path, std::ios::binary);
        file << "ply\nformat binary_little_endian 1.0\nelement vertex 1\ncomment minx 1\ncomment maxx 2\n"
                "end_header\n";
        file.seekp(static_cast<std::streamoff>(beyond32Bits));
        file << "splat";
        ASSERT_TRUE(file.flush());
    }
};

TEST_F(LargeFile, IsReadBehindFourGigabytes) {
    write();
    RecordReader reader(support::pathBytes(path));
    ASSERT_TRUE(reader.isOpen());
    char bytes[7];
    reader.read(beyond32Bits, bytes, sizeof bytes);
    EXPECT_EQ(std::string(bytes, sizeof bytes), std::string("splat\0\0", 7));
    reader.read(beyond32Bits % (std::uint64_t{1} << 32), bytes, 5); // not the same place modulo 32 bits
    EXPECT_EQ(std::string(bytes, 5), std::string(5, '\0'));
}

TEST_F(LargeFile, HasItsSizeInTheHeader) {
    write();
    const SplatHeader header(support::pathBytes(path), std::make_shared<Params>(), 1);
    EXPECT_EQ(header.fileSize, beyond32Bits + 5);
}

} // namespace

} // namespace Tavrin::GaussionSplat
