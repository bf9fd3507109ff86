// Clients that are slow, greedy or broken, and files that change.
#include "program/system/exit_status.h"
#include "tests/serve/serving.h"
#include "tests/support/files.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <sys/resource.h>

namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using RawClient::Answer;
using RawClient::Connection;
using Serving::Running;
using Tavrin::SplatProgram::ServerLimits;

const std::string dataPath = "/data/0/data.bin";
constexpr std::size_t largeSize = Serving::manySplats * 32;

class ViewServerFaults : public testing::Test {
protected:
    support::Scratch scratch;
    std::string folder = Serving::smallDataset(scratch / "town");

    // A request for the file of the tests, by default with "Connection: close".
    static std::string request(const Running& server, const std::string& fields = "Connection: close\r\n") {
        return "GET " + dataPath + " HTTP/1.1\r\nHost: localhost:" + std::to_string(server.port()) + "\r\n" +
               fields + "\r\n";
    }
};

TEST_F(ViewServerFaults, WhatIsNoRequestIsRefused) {
    const Running server({folder});
    for (const char* const bytes :
         {"GARBAGE\r\n\r\n", "\x16\x03\x01\x02\x00\x01\x00\x01\xfc\x03\x03\r\n\r\n", "GET /\r\n\r\n",
          "GET / HTTP/2.0\r\n\r\n", "GET / HTTP/1.1\r\nHost : localhost\r\n\r\n",
          "GET / HTTP/1.1\r\nno colon\r\n\r\n", "GET / HTTP/1.1\r\nContent-Length: x\r\n\r\n",
          "GET / HTTP/1.1\r\nContent-Length: -1\r\n\r\n", "GET  / HTTP/1.1\r\n\r\n",
          "GET /a b HTTP/1.1\r\n\r\n"}) {
        Connection client(server.port());
        client.send(bytes);
        const Answer answer = client.receive();
        EXPECT_EQ(answer.status, 400) << bytes;
        EXPECT_EQ(answer.body, "this is no request of HTTP/1.1\n") << bytes;
        EXPECT_TRUE(client.isEnded()) << bytes;
    }
    EXPECT_EQ(server.ask("GET", dataPath).status, 200);
}

TEST_F(ViewServerFaults, ARequestWithABodyIsRefusedAndTheBodyIsNoRequest) {
    const Running server({folder});
    for (const char* const fields : {"Content-Length: 40\r\n", "Transfer-Encoding: chunked\r\n"}) {
        for (const char* const method : {"GET", "POST"}) {
            Connection client(server.port());
            const Answer answer = client.ask(method, "/", fields);
            EXPECT_EQ(answer.status, std::string(method) == "GET" ? 413 : 405) << fields;
            client.send(request(server));
            EXPECT_EQ(client.receive().status, 0) << fields;
        }
    }
    Connection both(server.port());
    EXPECT_EQ(both.ask("GET", "/", "Content-Length: 3\r\nTransfer-Encoding: chunked\r\n").status, 400);
}

TEST_F(ViewServerFaults, ARequestThatIsTooLongIsRefused) {
    const Running server({folder});
    const std::string host = "Host: localhost:" + std::to_string(server.port()) + "\r\n";
    const std::string much(40'000, 'a');
    for (const std::string& bytes : {"GET /" + much + " HTTP/1.1\r\n" + host + "\r\n",
                                     "GET / HTTP/1.1\r\n" + host + "A: " + much + "\r\n\r\n", much + much}) {
        Connection client(server.port());
        client.send(bytes);
        const Answer answer = client.receive();
        EXPECT_TRUE(answer.status == 431 || answer.status == 400) << answer.status;
        EXPECT_TRUE(client.isEnded());
    }
    Connection client(server.port());
    EXPECT_EQ(client.ask("GET", dataPath, "Cookie: " + std::string(20'000, 'a') + "\r\n").status, 200);
}

TEST_F(ViewServerFaults, ARequestWithoutAnEndIsCutOff) {
    const Running server({folder});
    Connection client(server.port());
    client.send("GET / HTTP/1.1\r\n");
    bool isTaken = true;
    for (int i = 0; i < 1'000'000 && isTaken; ++i) {
        isTaken = client.send("A-Field: of no meaning\r\n");
    }
    EXPECT_FALSE(isTaken);
    EXPECT_EQ(server.ask("GET", dataPath).status, 200);
}

TEST_F(ViewServerFaults, AClientThatIsTooSlowLosesItsConnectionAlone) {
    ServerLimits limits;
    limits.requestTime = 300ms;
    const Running server({folder}, limits);
    Connection silent(server.port());
    Connection partial(server.port());
    partial.send("GET / HT");
    Connection dribbling(server.port());
    dribbling.send("GET / HTTP/1.1\r\n");
    bool isTaken = true;
    for (int i = 0; i < 1'000 && isTaken; ++i) {
        std::this_thread::sleep_for(20ms);
        isTaken = dribbling.send("A: b\r\n");
        EXPECT_EQ(server.ask("GET", dataPath).status, 200);
    }
    EXPECT_FALSE(isTaken);
    EXPECT_TRUE(silent.isEnded());
    EXPECT_TRUE(partial.isEnded());
}

TEST_F(ViewServerFaults, AClientThatDoesNotReadLosesItsConnection) {
    ServerLimits limits;
    limits.sendTime = 300ms;
    const Running server({Serving::largeDataset(scratch / "large")}, limits);
    Connection client(server.port());
    client.send(request(server));
    std::this_thread::sleep_for(1s);
    const Answer answer = client.receive();
    EXPECT_EQ(answer.status, 200);
    EXPECT_LT(answer.body.size(), largeSize);
}

TEST_F(ViewServerFaults, AThousandSilentClientsKeepNobodyOut) {
    constexpr std::size_t clients = 1'000;
    rlimit files = {};
    ::getrlimit(RLIMIT_NOFILE, &files);
    if (files.rlim_cur < 2 * clients) {
        files.rlim_cur = std::min<rlim_t>(2 * clients, files.rlim_max);
        ::setrlimit(RLIMIT_NOFILE, &files);
    }
    const Running server({folder});
    const std::string data = support::readFile(scratch / "town" / "data.bin");
    std::vector<std::unique_ptr<Connection>> silent;
    for (std::size_t i = 0; i < clients; ++i) {
        silent.push_back(std::make_unique<Connection>(server.port()));
        if (i % 100 == 0) {
            EXPECT_EQ(server.ask("GET", dataPath).body, data) << i;
        }
    }
    EXPECT_EQ(server.ask("GET", dataPath).body, data);
    // The server has closed all but the newest.
    for (std::size_t i = 0; i + ServerLimits().connections < clients; ++i) {
        EXPECT_TRUE(silent[i]->isEnded()) << i;
    }
    EXPECT_EQ(silent.back()->ask("GET", dataPath).body, data);
}

TEST_F(ViewServerFaults, SaysWhatToDoWhenNoFileMayBeOpened) {
    rlimit files = {};
    ::getrlimit(RLIMIT_NOFILE, &files);
    const rlimit none = {0, files.rlim_max};
    ::setrlimit(RLIMIT_NOFILE, &none);
    std::string line;
    try {
        Tavrin::SplatProgram::ServedDataset::open(folder);
    } catch (const Tavrin::SplatProgram::Failure& failure) {
        line = failure.what();
    }
    ::setrlimit(RLIMIT_NOFILE, &files);
    EXPECT_EQ(line, folder +
                        "/converted_from_ply.ytr: cannot be opened: Too many open files: raise the limit "
                        "(ulimit -Hn), or name fewer datasets");
}

TEST_F(ViewServerFaults, AThousandRequestsAtOnceAreAllAnswered) {
    constexpr int threads = 20;
    const Running server({folder});
    const std::string data = support::readFile(scratch / "town" / "data.bin");
    std::atomic<int> answered = 0;
    std::vector<std::thread> clients;
    for (int i = 0; i < threads; ++i) {
        clients.emplace_back([&] {
            for (int k = 0; k < 50; ++k) {
                answered += server.ask("GET", dataPath).body == data ? 1 : 0;
            }
        });
    }
    for (std::thread& client : clients) {
        client.join();
    }
    EXPECT_EQ(answered, 1'000);
}

TEST_F(ViewServerFaults, ClientsBeyondThoseWhoAreBusyWaitForTheirTurn) {
    ServerLimits limits;
    limits.connections = 2;
    const Running server({Serving::largeDataset(scratch / "large")}, limits);
    Connection one(server.port());
    Connection two(server.port());
    for (Connection* const busy : {&one, &two}) {
        busy->send(request(server));
    }
    std::vector<std::unique_ptr<Connection>> waiting;
    for (int i = 0; i < 10; ++i) {
        waiting.push_back(std::make_unique<Connection>(server.port()));
        waiting.back()->send(request(server, "Range: bytes=0-9\r\nConnection: close\r\n"));
    }
    EXPECT_EQ(one.receive().body.size(), largeSize);
    EXPECT_EQ(two.receive().body.size(), largeSize);
    for (const auto& client : waiting) {
        EXPECT_EQ(client->receive().body, std::string(10, '\0'));
    }
}

TEST_F(ViewServerFaults, AClientThatGoesInTheMiddleOfAnAnswerHurtsNobody) {
    const Running server({Serving::largeDataset(scratch / "large")});
    for (int i = 0; i < 100; ++i) {
        Connection client(server.port());
        client.send(request(server));
    }
    EXPECT_EQ(server.ask("GET", dataPath).body.size(), largeSize);
}

TEST_F(ViewServerFaults, AClientThatSendsNoMoreGetsItsAnswer) {
    const Running server({folder});
    Connection client(server.port());
    client.send(request(server, ""));
    client.finish();
    EXPECT_EQ(client.receive().body, support::readFile(scratch / "town" / "data.bin"));
    EXPECT_TRUE(client.isEnded());
}

TEST_F(ViewServerFaults, TheServerEndsWithConnectionsOpen) {
    auto server = std::make_unique<Running>(std::vector{Serving::largeDataset(scratch / "large")});
    Connection silent(server->port());
    Connection waiting(server->port());
    EXPECT_EQ(waiting.ask("HEAD", "/").status, 200);
    Connection busy(server->port());
    busy.send(request(*server));
    server->end();
    server.reset();
    EXPECT_TRUE(silent.isEnded());
    EXPECT_TRUE(waiting.isEnded());
    EXPECT_LT(busy.receive().body.size(), largeSize);
}

TEST_F(ViewServerFaults, AFileThatWasWrittenToIsGivenNoMore) {
    const Running server({folder});
    const std::string tag = server.ask("GET", dataPath).field("etag");
    support::writeFile(scratch / "town" / "data.bin", std::string(160, 'x'));
    for (const char* const fields : {"", "Range: bytes=0-9\r\n"}) {
        const Answer answer = server.ask("GET", dataPath, fields);
        EXPECT_EQ(answer.status, 503);
        EXPECT_EQ(answer.field("etag"), "(none)");
        EXPECT_EQ(answer.body,
                  "data.bin of " + folder + " was written to since plyconvert view began: start it again\n");
    }
    EXPECT_EQ(server.ask("GET", "/data/0/index.bin").status, 200);
    const Running again({folder});
    EXPECT_NE(again.ask("GET", dataPath).field("etag"), tag);
    EXPECT_EQ(again.ask("GET", dataPath).body, std::string(160, 'x'));
}

TEST_F(ViewServerFaults, AnAnswerHoldsNoBytesOfTwoContents) {
    const std::string large = Serving::largeDataset(scratch / "large");
    const Running server({large});
    Connection client(server.port());
    client.send(request(server));
    ASSERT_TRUE(client.hasBegun());
    support::writeFile(fs::path(large) / "data.bin", std::string(largeSize, 'x'));
    const Answer answer = client.receive();
    EXPECT_EQ(answer.status, 200);
    EXPECT_EQ(answer.field("content-length"), std::to_string(largeSize));
    EXPECT_LT(answer.body.size(), largeSize);
    EXPECT_EQ(answer.body.find('x'), std::string::npos);
}

TEST_F(ViewServerFaults, AFileThatShrinksEndsTheAnswer) {
    const std::string large = Serving::largeDataset(scratch / "large");
    const Running server({large});
    fs::resize_file(fs::path(large) / "data.bin", 1'000);
    EXPECT_EQ(server.ask("GET", dataPath).status, 503);
    EXPECT_EQ(server.ask("HEAD", dataPath).status, 503);
    EXPECT_EQ(server.ask("GET", dataPath, "If-None-Match: *\r\n").status, 503);
}

TEST_F(ViewServerFaults, ADatasetThatIsReplacedIsGivenFurtherOn) {
    const std::string data = support::readFile(scratch / "town" / "data.bin");
    const Running server({folder});
    const std::string tag = server.ask("GET", dataPath).field("etag");
    fs::rename(folder, scratch / "earlier");
    Serving::largeDataset(folder);
    EXPECT_EQ(server.ask("GET", dataPath).body, data);
    fs::remove_all(scratch / "earlier");
    EXPECT_EQ(server.ask("GET", dataPath).body, data);
    EXPECT_EQ(server.ask("GET", dataPath).field("etag"), tag);
}

} // namespace
