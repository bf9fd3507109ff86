// Reading a file line by line: the same lines as std::getline, whatever the content.
#include "src/splatheader_lines.h"
#include "tests/support/files.h"

#include <gtest/gtest.h>

#include <fstream>
#include <random>
#include <string>

namespace Tavrin::GaussionSplat {

namespace {

struct LineReaderTest : testing::Test {
    support::Scratch scratch;
    std::string path = (scratch / "text").string();

    // Expects the lines of std::getline, and the same position after each, for a file of these bytes.
    void expectSameAsGetline(const std::string& bytes) {
        support::writeFile(path, bytes);
        std::ifstream expected(path, std::ios::binary);
        LineReader reader(path);
        ASSERT_TRUE(reader.isOpen());
        std::string line;
        for (std::string expectedLine; std::getline(expected, expectedLine);) {
            ASSERT_TRUE(reader.next(line));
            ASSERT_EQ(line, expectedLine);
            const std::int64_t place =
                expected.eof() ? static_cast<std::int64_t>(bytes.size()) : std::int64_t{expected.tellg()};
            ASSERT_EQ(reader.position(), place);
        }
        EXPECT_FALSE(reader.next(line));
        EXPECT_EQ(reader.position(), static_cast<std::int64_t>(bytes.size()));
    }
};

TEST_F(LineReaderTest, LinesEndAtALineFeedOnlyOrWithTheFile) {
    for (const char* const text :
         {"", "\n", "a", "a\n", "a\nb", "\n\na\n\n", "a\r\nb\rc\r\n", "end_header"}) {
        expectSameAsGetline(text);
    }
    expectSameAsGetline(std::string("a\0b\n\0\n\0", 7));
}

TEST_F(LineReaderTest, LinesOfAnyLengthCrossTheBuffers) {
    for (const std::size_t length : {4095u, 8190u, 8191u, 8192u, 65'535u, 65'536u, 65'537u, 1'000'000u}) {
        expectSameAsGetline(std::string(length, 'x'));
        expectSameAsGetline(std::string(length, 'x') + "\n");
        expectSameAsGetline(std::string(length, 'x') + "\nnext\n");
    }
}

TEST_F(LineReaderTest, RandomBytesHaveTheSameLines) {
    std::mt19937 random(1);
    for (int file = 0; file < 50; ++file) {
        std::string bytes(random() % 100'000, '\0');
        for (char& byte : bytes) {
            byte = static_cast<char>(random() % (file % 2 == 0 ? 256 : 3) + (file % 2 == 0 ? 0 : 9));
        }
        expectSameAsGetline(bytes);
    }
}

TEST_F(LineReaderTest, AMissingFileIsNotOpen) {
    EXPECT_FALSE(LineReader((scratch / "missing").string()).isOpen());
}

} // namespace

} // namespace Tavrin::GaussionSplat
