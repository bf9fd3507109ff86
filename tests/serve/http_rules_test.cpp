// Parsing of the header fields of a request.
#include "program/serve/http_rules.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>

namespace {

using namespace Tavrin::SplatProgram;
using Kind = RangeRequest::Kind;

constexpr std::uint64_t largest = UINT64_MAX;

void expectPart(const std::string& field, std::uint64_t size, std::uint64_t first, std::uint64_t count) {
    const RangeRequest request = parseRange(field, size);
    EXPECT_EQ(request.kind, Kind::part) << field;
    EXPECT_EQ(request.range.first, first) << field;
    EXPECT_EQ(request.range.count, count) << field;
}

TEST(HttpRules, ARangeIsCutToTheContent) {
    expectPart("bytes=0-0", 10, 0, 1);
    expectPart("bytes=0-9", 10, 0, 10);
    expectPart("bytes=3-5", 10, 3, 3);
    expectPart("bytes=9-", 10, 9, 1);
    expectPart("bytes=0-", 10, 0, 10);
    expectPart("bytes=5-1000", 10, 5, 5);
    expectPart("bytes=5-99999999999999999999999999", 10, 5, 5);
    expectPart("bytes=-1", 10, 9, 1);
    expectPart("bytes=-10", 10, 0, 10);
    expectPart("bytes=-11", 10, 0, 10);
    expectPart("bytes=-99999999999999999999999999", 10, 0, 10);
    expectPart("bytes=18446744073709551613-18446744073709551614", largest, largest - 2, 2);
    expectPart("BYTES = 3-5 ", 10, 3, 3);
}

TEST(HttpRules, ARangeBehindTheContentIsOutside) {
    for (const char* const field : {"bytes=10-", "bytes=10-10", "bytes=11-20", "bytes=-0",
                                    "bytes=99999999999999999999999999-", "bytes=18446744073709551615-"}) {
        EXPECT_EQ(parseRange(field, 10).kind, Kind::outside) << field;
    }
    for (const char* const field : {"bytes=0-", "bytes=0-0", "bytes=-1", "bytes=-0"}) {
        EXPECT_EQ(parseRange(field, 0).kind, Kind::outside) << field;
    }
}

TEST(HttpRules, WhatIsNoSingleRangeIsTheWhole) {
    for (const char* const field :
         {"",           "bytes",      "bytes=",        "bytes=-",     "bytes=5",     "bytes=a-b",
          "bytes=1-b",  "bytes=5-4",  "bytes=1-2,4-5", "bytes=0-0,",  "bytes=--1",   "bytes=-1-",
          "bytes=1--2", "bytes=+1-2", "bytes=0x1-2",   "bytes=1 - 2", "bytes=1.0-2", "bytes: 1-2",
          "items=1-2",  "=1-2",       "bytes==1-2",    "1-2"}) {
        EXPECT_EQ(parseRange(field, 10).kind, Kind::whole) << field;
    }
}

TEST(HttpRules, GzipIsTakenWhereTheClientTakesIt) {
    for (const char* const field :
         {"gzip", "GZip", "x-gzip", "deflate, gzip", "deflate,gzip;q=0.001", "gzip;q=1", "gzip ; q=0.5", "*",
          "*;q=0.1", "br;q=1.0, gzip;q=0.8, *;q=0"}) {
        EXPECT_TRUE(acceptsGzip(field)) << field;
    }
    for (const char* const field : {"", "identity", "br, deflate", "gzip;q=0", "gzip;q=0.000", "gzip; Q=0.0",
                                    "*;q=0", "*, gzip;q=0", "gzipped", "not-gzip", "gzip.br"}) {
        EXPECT_FALSE(acceptsGzip(field)) << field;
    }
}

TEST(HttpRules, TagsAreComparedAsWholeWords) {
    const std::string tag = "\"a-1\"";
    for (const char* const field : {"\"a-1\"", "*", " * ", "\"b\", \"a-1\"", "\"a-1\" , \"b\""}) {
        EXPECT_TRUE(namesTag(field, tag, false)) << field;
        EXPECT_TRUE(namesTag(field, tag, true)) << field;
    }
    for (const char* const field : {"", "a-1", "\"a-1", "\"a\"", "\"a-12\"", "\"b\"", "**"}) {
        EXPECT_FALSE(namesTag(field, tag, false)) << field;
        EXPECT_FALSE(namesTag(field, tag, true)) << field;
    }
    EXPECT_TRUE(namesTag("W/\"a-1\"", tag, true));
    EXPECT_FALSE(namesTag("W/\"a-1\"", tag, false));
}

TEST(HttpRules, OnlyTheServersOwnNamesAreItsHosts) {
    for (const char* const field : {"127.0.0.1:8123", "localhost:8123", "LocalHost:8123", "[::1]:8123"}) {
        EXPECT_TRUE(isOwnHost(field, 8123)) << field;
    }
    for (const char* const field :
         {"", "127.0.0.1", "localhost", "127.0.0.1:80", "127.0.0.1:81230", "127.0.0.2:8123", "0.0.0.0:8123",
          "localhost.:8123", "localhost.example.com:8123", "example.com:8123", "127.0.0.1.example.com:8123",
          "user@localhost:8123", "localhost:08123", "::1:8123", "[::1]", "[::ffff:127.0.0.1]:8123",
          "2130706433:8123", "localhost:8123 ", "localhost:8123,example.com"}) {
        EXPECT_FALSE(isOwnHost(field, 8123)) << field;
    }
    EXPECT_TRUE(isOwnHost("localhost", 80));
    EXPECT_TRUE(isOwnHost("[::1]:80", 80));
    EXPECT_FALSE(isOwnHost("localhost", 81));
}

} // namespace
