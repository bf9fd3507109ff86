// One client of the server, and how many there may be.
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

// The connections that are open. Used by one thread.
class ConnectionTable {
public:
    // The content must outlive it.
    ConnectionTable(const Content& content, std::uint16_t port, const ServerLimits& limits)
        : m_content(content), m_port(port), m_limits(limits) {}

    const Content& content() const { return m_content; }
    std::uint16_t port() const { return m_port; }
    const ServerLimits& limits() const { return m_limits; }

    // Takes a client in. When all places are taken, the connection that has waited longest for a request
    // gives way. False when all are busy with answers.
    bool admit(boost::asio::ip::tcp::socket& socket);

    void add(Connection& connection) { m_connections.insert(&connection); }
    void remove(Connection& connection) { m_connections.erase(&connection); }

private:
    const Content& m_content;
    std::uint16_t m_port;
    ServerLimits m_limits;
    std::set<Connection*> m_connections;
};

// Reads requests and answers them one after the other, until either side ends it. It lives as long as an
// operation of its own is under way.
class Connection : public std::enable_shared_from_this<Connection> {
public:
    using Clock = std::chrono::steady_clock;

    Connection(boost::asio::ip::tcp::socket socket, ConnectionTable& table);
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;
    ~Connection();

    void readRequest();
    void close();

    // Since when it has nothing to answer; nothing while it has.
    const std::optional<Clock::time_point>& waitingSince() const { return m_waitingSince; }

private:
    using Error = boost::beast::error_code;

    void onRequest(Error error);
    void send(Answer answer);
    bool readChunk();
    void write(std::string_view head, std::string_view body);
    void onWritten(Error error);
    void part();
    void discard(std::size_t most);

    boost::beast::tcp_stream m_stream;
    ConnectionTable& m_table;
    boost::beast::flat_buffer m_received;
    std::optional<boost::beast::http::request_parser<boost::beast::http::empty_body>> m_parser;
    std::optional<Clock::time_point> m_waitingSince;
    Answer m_answer;
    std::string m_head;        // of the answer, as it is sent
    std::vector<char> m_chunk; // of the answer's file
    ByteRange m_left;          // of the file, not yet read
};

} // namespace Tavrin::SplatProgram
