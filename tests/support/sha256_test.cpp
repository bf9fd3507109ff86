#include "tests/support/sha256.h"

#include <gtest/gtest.h>

namespace {

using support::Sha256;
using support::sha256;

// The published examples of the algorithm.
TEST(Sha256, MatchesThePublishedExamples) {
    EXPECT_EQ(sha256(""), "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
    EXPECT_EQ(sha256("abc"), "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
    EXPECT_EQ(sha256("abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq"),
              "248d6a61d20638b8e5c026930c3e6039a33ce45964ff2167f6ecedd419db06c1");
    EXPECT_EQ(sha256(std::string(1'000'000, 'a')),
              "cdc76e5c9914fb9281a1c7e284d73e67f1809a48a497200e046d39ccc7112cd0");
}

TEST(Sha256, PiecesGiveTheHashOfTheWhole) {
    const std::string text(1000, 'x');
    for (const std::size_t piece : {1u, 7u, 63u, 64u, 65u, 999u}) {
        Sha256 hash;
        for (std::size_t at = 0; at < text.size(); at += piece) {
            hash.update(std::string_view(text).substr(at, piece));
        }
        EXPECT_EQ(hash.finish(), sha256(text)) << "in pieces of " << piece;
    }
}

} // namespace
