// The answers of the server of `view`, through raw sockets.
#include "program/serve/page.h"
#include "program/system/exit_status.h"
#include "tests/serve/serving.h"
#include "tests/support/files.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <zlib.h>

#include <filesystem>
#include <string>
#include <vector>

namespace {

namespace fs = std::filesystem;
using namespace Tavrin::SplatProgram;
using RawClient::Answer;
using Serving::Running;
using testing::HasSubstr;

const std::string dataPath = "/data/0/data.bin";

class ViewServer : public testing::Test {
protected:
    support::Scratch scratch;
    std::string folder = Serving::smallDataset(scratch / "town");
    std::string data = support::readFile(scratch / "town" / "data.bin");
    Running server{{folder}};

    Answer get(const std::string& target, const std::string& fields = {}) {
        return server.ask("GET", target, fields);
    }
    std::string tag() { return get(dataPath).field("etag"); }
};

std::string inflated(const std::string& gzip, std::size_t size) {
    std::string text(size + 1, '\0');
    z_stream stream = {};
    stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(gzip.data()));
    stream.avail_in = static_cast<uInt>(gzip.size());
    stream.next_out = reinterpret_cast<Bytef*>(text.data());
    stream.avail_out = static_cast<uInt>(text.size());
    EXPECT_EQ(inflateInit2(&stream, 16 + MAX_WBITS), Z_OK);
    EXPECT_EQ(inflate(&stream, Z_FINISH), Z_STREAM_END);
    text.resize(stream.total_out);
    inflateEnd(&stream);
    return text;
}

TEST_F(ViewServer, GivesThePage) {
    const Answer answer = get("/");
    EXPECT_EQ(answer.status, 200);
    EXPECT_EQ(answer.body, pageText());
    EXPECT_EQ(answer.field("content-type"), "text/html; charset=utf-8");
    EXPECT_EQ(answer.field("content-encoding"), "(none)");
    EXPECT_EQ(answer.field("vary"), "Accept-Encoding");
    EXPECT_EQ(get("/?from=a&link").body, pageText());
}

TEST_F(ViewServer, GivesThePageCompressedToThoseWhoTakeIt) {
    const Answer answer = get("/", "Accept-Encoding: deflate, gzip, br\r\n");
    EXPECT_EQ(answer.status, 200);
    EXPECT_EQ(answer.field("content-encoding"), "gzip");
    EXPECT_EQ(inflated(answer.body, pageText().size()), pageText());
    EXPECT_NE(answer.field("etag"), get("/").field("etag"));
    EXPECT_EQ(get("/", "Accept-Encoding: gzip;q=0\r\n").body, pageText());
    EXPECT_EQ(get(dataPath, "Accept-Encoding: gzip\r\n").body, data);
}

TEST_F(ViewServer, GivesThePageThatWasBuilt) {
    const fs::path built = fs::path(PLYCONVERT_SOURCE_FOLDER) / "viewer/dist/viewer.html";
    EXPECT_EQ(get("/").body, support::readFile(built));
}

TEST_F(ViewServer, ListsTheDatasets) {
    EXPECT_EQ(get("/datasets.json").body, "[{\"name\":\"town\",\"base\":\"data/0/\"}]\n");
    EXPECT_EQ(get("/datasets.json").field("content-type"), "application/json");
#ifdef _WIN32
    const std::string name = "a 'b' [c]"; // the system takes no quotes and angles in names
    const std::string shown = name;
#else
    const std::string name = "a \"b\" <c>";
    const std::string shown = "a \\\"b\\\" <c>";
#endif
    const Running two({folder + "/", Serving::smallDataset(scratch / name)});
    EXPECT_EQ(two.ask("GET", "/datasets.json").body,
              "[{\"name\":\"town\",\"base\":\"data/0/\"},{\"name\":\"" + shown +
                  "\",\"base\":\"data/1/\"}]\n");
    EXPECT_EQ(two.ask("GET", "/data/1/data.bin").body, data);
}

TEST_F(ViewServer, GivesTheFilesOfADataset) {
    for (const char* const name : {"converted_from_ply.ytr", "data.bin", "shcoef.bin", "index.bin"}) {
        const std::string bytes = support::readFile(fs::path(folder) / name);
        const Answer answer = get(std::string("/data/0/") + name);
        EXPECT_EQ(answer.status, 200) << name;
        EXPECT_EQ(answer.body, bytes) << name;
        EXPECT_EQ(answer.field("accept-ranges"), "bytes") << name;
        EXPECT_EQ(answer.field("content-type"), "application/octet-stream") << name;
        const Answer head = server.ask("HEAD", std::string("/data/0/") + name);
        EXPECT_EQ(head.status, 200) << name;
        EXPECT_EQ(head.field("content-length"), std::to_string(bytes.size())) << name;
        EXPECT_EQ(head.field("etag"), answer.field("etag")) << name;
    }
}

TEST_F(ViewServer, HasNoCoefficientsWhereTheDatasetHasNone) {
    DatasetWriter::MetaFields fields;
    fields.fileType = "Portable";
    const DatasetWriter::Files files = DatasetWriter::oneCellFiles(DatasetWriter::smallScene(), fields);
    DatasetWriter::writeFiles(scratch / "plain", files);
    const Running plain({(scratch / "plain").string()});
    EXPECT_EQ(plain.ask("GET", "/data/0/shcoef.bin").status, 404);
    EXPECT_EQ(plain.ask("GET", dataPath).status, 200);
}

TEST_F(ViewServer, GivesPartsOfFiles) {
    const std::size_t size = data.size();
    const struct {
        std::string range;
        std::size_t first;
        std::size_t count;
    } cases[] = {{"0-0", 0, 1},
                 {"32-63", 32, 32},
                 {"5-", 5, size - 5},
                 {"-7", size - 7, 7},
                 {"0-99999", 0, size},
                 {"-99999", 0, size},
                 {std::to_string(size - 1) + "-", size - 1, 1}};
    for (const auto& [range, first, count] : cases) {
        const Answer answer = get(dataPath, "Range: bytes=" + range + "\r\n");
        EXPECT_EQ(answer.status, 206) << range;
        EXPECT_EQ(answer.body, data.substr(first, count)) << range;
        EXPECT_EQ(answer.field("content-range"), "bytes " + std::to_string(first) + "-" +
                                                     std::to_string(first + count - 1) + "/" +
                                                     std::to_string(size))
            << range;
        EXPECT_EQ(answer.field("etag"), tag());
    }
}

TEST_F(ViewServer, SaysWhenARangeIsOutside) {
    const std::string size = std::to_string(data.size());
    for (const std::string& range :
         {size + "-", size + "-" + size, std::string("-0"), std::string("99999999999999999999-")}) {
        const Answer answer = get(dataPath, "Range: bytes=" + range + "\r\n");
        EXPECT_EQ(answer.status, 416) << range;
        EXPECT_EQ(answer.field("content-range"), "bytes */" + size) << range;
        EXPECT_EQ(answer.body, "") << range;
    }
}

TEST_F(ViewServer, GivesTheWholeForWhatIsNoSingleRange) {
    for (const char* const range : {"bytes=0-1,4-5", "bytes=5-4", "bytes=x", "items=0-1", ""}) {
        const Answer answer = get(dataPath, std::string("Range: ") + range + "\r\n");
        EXPECT_EQ(answer.status, 200) << range;
        EXPECT_EQ(answer.body, data) << range;
    }
    EXPECT_EQ(get(dataPath, "Range: bytes=0-1\r\nRange: bytes=2-3\r\n").body, data);
    EXPECT_EQ(get("/", "Range: bytes=0-1\r\n").status, 200); // the page has no ranges
    EXPECT_EQ(get("/").field("accept-ranges"), "none");
    EXPECT_EQ(server.ask("HEAD", dataPath, "Range: bytes=0-1\r\n").status, 200);
}

TEST_F(ViewServer, GivesAPartOnlyOfTheContentThatTheClientKnows) {
    const std::string range = "Range: bytes=0-3\r\n";
    EXPECT_EQ(get(dataPath, range + "If-Range: " + tag() + "\r\n").status, 206);
    for (const std::string& other : {std::string("\"other\""), "W/" + tag(), std::string("*"),
                                     std::string("x"), std::string("Wed, 21 Oct 2026 07:28:00 GMT")}) {
        const Answer answer = get(dataPath, range + "If-Range: " + other + "\r\n");
        EXPECT_EQ(answer.status, 200) << other;
        EXPECT_EQ(answer.body, data) << other;
    }
}

TEST_F(ViewServer, GivesNothingTwiceToWhoKnowsTheTag) {
    const Answer known = get(dataPath, "If-None-Match: \"a\", W/" + tag() + "\r\n");
    EXPECT_EQ(known.status, 304);
    EXPECT_EQ(known.field("etag"), tag());
    EXPECT_EQ(known.field("content-length"), "(none)");
    EXPECT_EQ(get(dataPath, "If-None-Match: \"a\"\r\n").status, 200);
    EXPECT_EQ(get(dataPath, "If-Match: \"a\"\r\n").status, 412);
    EXPECT_EQ(get(dataPath, "If-Match: " + tag() + "\r\n").status, 200);
}

TEST_F(ViewServer, KnowsNoPathButThoseOfItsTable) {
    support::writeFile(scratch / "town" / "log.txt", "a log");
    for (const char* const path : {"/data",
                                   "/data/",
                                   "/data/0",
                                   "/data/0/",
                                   "/data/1/data.bin",
                                   "/data/00/data.bin",
                                   "/data/-1/data.bin",
                                   "/data/0/log.txt",
                                   "/data/0/data.bin/",
                                   "/data/0//data.bin",
                                   "//data/0/data.bin",
                                   "/data/0/./data.bin",
                                   "/data/0/../0/data.bin",
                                   "/../data/0/data.bin",
                                   "/data/0/../../../../../../etc/passwd",
                                   "/etc/passwd",
                                   "/data/0/%64ata.bin",
                                   "/data/0/%2e%2e/0/data.bin",
                                   "/data/0/data.bin%00",
                                   "/data/0/DATA.BIN",
                                   "/data/0\\data.bin",
                                   "/data/0/data.bin#a",
                                   "/index.html",
                                   "/favicon.ico",
                                   "/datasets.json/",
                                   "/%2f"}) {
        const Answer answer = get(path);
        EXPECT_EQ(answer.status, 404) << path;
        EXPECT_EQ(answer.body, "there is nothing of this name here\n") << path;
    }
    EXPECT_EQ(get("data/0/data.bin").status, 400);
    EXPECT_EQ(get("http://127.0.0.1/data/0/data.bin").status, 400);
    EXPECT_EQ(get("*").status, 400);
}

TEST_F(ViewServer, AnswersToGetAndHeadAlone) {
    for (const char* const method :
         {"POST", "PUT", "DELETE", "OPTIONS", "PATCH", "TRACE", "PROPFIND", "get", "MADE"}) {
        const Answer answer = server.ask(method, dataPath);
        EXPECT_EQ(answer.status, 405) << method;
        EXPECT_EQ(answer.field("allow"), "GET, HEAD") << method;
    }
}

TEST_F(ViewServer, AnswersToItsOwnNamesAlone) {
    const std::string port = ":" + std::to_string(server.port());
    for (const char* const host : {"127.0.0.1", "localhost", "LOCALHOST", "[::1]"}) {
        EXPECT_EQ(get(dataPath, "Host: " + (host + port) + "\r\n").status, 200) << host;
    }
    for (const std::string& host :
         {std::string("example.com"), "example.com" + port, std::string("127.0.0.1"),
          std::string("localhost:1"), "127.0.0.1.example.com" + port, std::string()}) {
        for (const char* const path : {"/", "/datasets.json", "/data/0/data.bin", "/none"}) {
            const Answer answer = get(path, "Host: " + host + "\r\n");
            EXPECT_EQ(answer.status, 403) << host;
            EXPECT_EQ(answer.field("etag"), "(none)") << host;
        }
    }
    EXPECT_EQ(get(dataPath, "Host: 127.0.0.1" + port + "\r\nHost: example.com\r\n").status, 403);
    RawClient::Connection none(server.port());
    none.send("GET / HTTP/1.1\r\n\r\n");
    EXPECT_EQ(none.receive().status, 403);
}

TEST_F(ViewServer, RefusesWhatPagesOfOthersAskFor) {
    for (const char* const site : {"cross-site", "same-site"}) {
        const Answer answer = get(dataPath, std::string("Sec-Fetch-Site: ") + site + "\r\n");
        EXPECT_EQ(answer.status, 403) << site;
        EXPECT_EQ(answer.body, "this server answers to its own page alone\n");
    }
    for (const char* const site : {"same-origin", "none"}) {
        EXPECT_EQ(get(dataPath, std::string("Sec-Fetch-Site: ") + site + "\r\n").status, 200) << site;
    }
}

TEST_F(ViewServer, SaysOnEveryAnswerThatNobodyElseMayUseIt) {
    const std::vector<Answer> answers = {
        get("/"),
        get(dataPath),
        get(dataPath, "Range: bytes=0-1\r\n"),
        get(dataPath, "Range: bytes=999-\r\n"),
        get(dataPath, "If-None-Match: *\r\n"),
        get(dataPath, "Origin: https://example.com\r\n"),
        get("/none"),
        get("/", "Host: example.com\r\n"),
        server.ask("OPTIONS", "/", "Access-Control-Request-Method: GET\r\n")};
    for (const Answer& answer : answers) {
        EXPECT_NE(answer.status, 0);
        EXPECT_EQ(answer.field("content-security-policy"), pageContentPolicy()) << answer.status;
        EXPECT_EQ(answer.field("x-content-type-options"), "nosniff") << answer.status;
        EXPECT_EQ(answer.field("referrer-policy"), "no-referrer") << answer.status;
        EXPECT_EQ(answer.field("cross-origin-opener-policy"), "same-origin") << answer.status;
        EXPECT_EQ(answer.field("cross-origin-resource-policy"), "same-origin") << answer.status;
        for (const auto& [name, value] : answer.fields) {
            EXPECT_FALSE(name.starts_with("access-control")) << name;
        }
    }
    for (const char* const rule :
         {"default-src 'none'", "worker-src blob:", "connect-src 'self'", "img-src blob: data:"}) {
        EXPECT_THAT(pageContentPolicy(), HasSubstr(rule));
    }
    EXPECT_THAT(pageContentPolicy(), testing::Not(HasSubstr("unsafe")));
}

TEST_F(ViewServer, KeepsAConnectionForManyRequests) {
    RawClient::Connection client(server.port());
    for (int i = 0; i < 100; ++i) {
        EXPECT_EQ(client.ask("GET", dataPath, "Range: bytes=" + std::to_string(i) + "-\r\n").body,
                  data.substr(static_cast<std::size_t>(i)));
        EXPECT_EQ(client.ask("HEAD", dataPath).status, 200);
        EXPECT_EQ(client.ask("GET", "/none").status, 404);
    }
    EXPECT_EQ(client.ask("GET", dataPath, "Connection: close\r\n").body, data);
    EXPECT_TRUE(client.isEnded());
}

TEST_F(ViewServer, AnswersRequestsOfTheOlderVersion) {
    const std::string host = "Host: 127.0.0.1:" + std::to_string(server.port()) + "\r\n";
    RawClient::Connection once(server.port());
    once.send("GET /data/0/data.bin HTTP/1.0\r\n" + host + "\r\n");
    EXPECT_EQ(once.receive().body, data);
    EXPECT_TRUE(once.isEnded());
    RawClient::Connection kept(server.port());
    for (int i = 0; i < 2; ++i) {
        kept.send("GET /data/0/data.bin HTTP/1.0\r\nConnection: keep-alive\r\n" + host + "\r\n");
        EXPECT_EQ(kept.receive().body, data);
    }
}

TEST_F(ViewServer, AnswersRequestsInTheOrderInWhichTheyCome) {
    RawClient::Connection client(server.port());
    const std::string host = "Host: 127.0.0.1:" + std::to_string(server.port()) + "\r\n\r\n";
    std::string requests;
    for (int i = 0; i < 50; ++i) {
        requests += "GET /data/0/data.bin HTTP/1.1\r\nRange: bytes=" + std::to_string(i) + "-\r\n" + host;
        requests += "HEAD / HTTP/1.1\r\n" + host + "GET /none HTTP/1.1\r\n" + host;
    }
    ASSERT_TRUE(client.send(requests));
    for (std::size_t i = 0; i < 50; ++i) {
        EXPECT_EQ(client.receive().body, data.substr(i));
        EXPECT_EQ(client.receive(true).status, 200);
        EXPECT_EQ(client.receive().status, 404);
    }
}

TEST_F(ViewServer, TakesARequestInPieces) {
    RawClient::Connection client(server.port());
    const std::string request =
        "GET /data/0/data.bin HTTP/1.1\r\nHost: localhost:" + std::to_string(server.port()) + "\r\n\r\n";
    for (const char c : request) {
        ASSERT_TRUE(client.send({&c, 1}));
    }
    EXPECT_EQ(client.receive().body, data);
}

TEST_F(ViewServer, AnswersAtBothAddresses) {
    EXPECT_EQ(get(dataPath).status, 200);
    try {
        RawClient::Connection six(server.port(), true);
        EXPECT_EQ(six.ask("GET", dataPath, "Host: [::1]:" + std::to_string(server.port()) + "\r\n").body,
                  data);
    } catch (const std::runtime_error&) {
        GTEST_SKIP() << "this system has no [::1]";
    }
}

TEST_F(ViewServer, RefusesAPortThatIsTaken) {
    const Content content = Serving::contentOf({folder});
    try {
        const Server second(content, server.port());
        FAIL() << "two servers at one port";
    } catch (const Failure& failure) {
        EXPECT_EQ(failure.status(), ExitStatus::outputRefused);
        EXPECT_EQ(failure.what(), "port " + std::to_string(server.port()) +
                                      " is in use: give another --port, or none to take a free one");
    }
}

TEST_F(ViewServer, RefusesAFolderWithoutASoundDataset) {
    fs::resize_file(scratch / "town" / "data.bin", 33);
    try {
        Serving::contentOf({folder});
        FAIL() << "a dataset that is not sound";
    } catch (const Failure& failure) {
        EXPECT_EQ(failure.status(), ExitStatus::inputRefused);
        EXPECT_THAT(failure.what(), HasSubstr(folder + ": not a sound dataset: data.bin"));
    }
}

} // namespace
