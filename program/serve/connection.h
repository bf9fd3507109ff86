// The connection to one client, and the table of all connections.
#pragma once

#include "program/serve/answer.h"
#include "program/serve/content.h"
#include "program/serve/server_limits.h"

#include <boost/asio/ip/tcp.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/core/tcp_stream.hpp>
#include <boost/beast/http/parser.hpp>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace Tavrin::SplatProgram {

class Connection;

// The open connections. Not thread-safe.
class ConnectionTable {
public:
    // The content must outlive it.
    ConnectionTable(const Content& content, std::uint16_t port, const ServerLimits& limits)
        : content_(content), port_(port), limits_(limits) {}

    const Content& content() const { return content_; }
    std::uint16_t port() const { return port_; }
    const ServerLimits& limits() const { return limits_; }

    // Makes a connection of the socket. If there are limits().connections already, closes the one that has
    // waited longest for a request. False if all of them are busy with answers.
    bool admit(boost::asio::ip::tcp::socket& socket);

    void add(Connection& connection) { connections_.insert(&connection); }
    void remove(Connection& connection) { connections_.erase(&connection); }

private:
    const Content& content_;
    std::uint16_t port_;
    ServerLimits limits_;
    std::set<Connection*> connections_;
};

// Reads requests and answers them one after the other, until either side closes the connection. Its pending
// operations keep it alive.
class Connection : public std::enable_shared_from_this<Connection> {
public:
    using Clock = std::chrono::steady_clock;

    Connection(boost::asio::ip::tcp::socket socket, ConnectionTable& table);
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;
    ~Connection();

    void readRequest();
    void close();

    // The time since which it waits for a request; nothing while it answers one.
    const std::optional<Clock::time_point>& waitingSince() const { return waitingSince_; }

private:
    using Error = boost::beast::error_code;

    void onRequest(Error error);
    void send(Answer answer);
    bool readPiece();
    void write(std::string_view head, std::string_view body);
    void onWritten(Error error);
    void part();
    void discard(std::size_t most);

    boost::beast::tcp_stream stream_;
    ConnectionTable& table_;
    boost::beast::flat_buffer received_;
    std::optional<boost::beast::http::request_parser<boost::beast::http::empty_body>> parser_;
    std::optional<Clock::time_point> waitingSince_;
    Answer answer_;
    std::string head_;        // of the answer, as it is sent
    std::vector<char> piece_; // of the answer's file
    ByteRange left_;          // of the file, not yet read
};

} // namespace Tavrin::SplatProgram
