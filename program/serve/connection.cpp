#include "program/serve/connection.h"

#include <algorithm>
#include <array>
#include <boost/asio/write.hpp>
#include <boost/beast/http/error.hpp>
#include <boost/beast/http/read.hpp>
#include <boost/beast/http/write.hpp>
#include <sstream>
#include <utility>

namespace Tavrin::SplatProgram {
namespace {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = boost::beast::http;

} // namespace

bool ConnectionTable::admit(asio::ip::tcp::socket& socket) {
    if (m_connections.size() >= m_limits.connections) {
        const auto waitsLonger = [](const Connection* one, const Connection* other) {
            constexpr Connection::Clock::time_point never = Connection::Clock::time_point::max();
            return one->waitingSince().value_or(never) < other->waitingSince().value_or(never);
        };
        Connection* const idlest = *std::ranges::min_element(m_connections, waitsLonger);
        if (!idlest->waitingSince()) {
            return false;
        }
        idlest->close();
    }
    std::make_shared<Connection>(std::move(socket), *this)->readRequest();
    return true;
}

Connection::Connection(asio::ip::tcp::socket socket, ConnectionTable& table)
    : m_stream(std::move(socket)), m_table(table), m_received(2 * table.limits().headBytes) {
    m_table.add(*this);
}

Connection::~Connection() {
    m_table.remove(*this);
}

void Connection::close() {
    m_stream.close();
    m_table.remove(*this);
}

// The time for a request begins when the former is answered: dribbling bytes do not prolong it.
void Connection::readRequest() {
    m_waitingSince = Clock::now();
    m_parser.emplace();
    m_parser->header_limit(static_cast<std::uint32_t>(m_table.limits().headBytes));
    m_stream.expires_after(m_table.limits().requestTime);
    http::async_read_header(
        m_stream, m_received, *m_parser,
        [self = shared_from_this()](Error error, std::size_t) { self->onRequest(error); });
}

void Connection::onRequest(Error error) {
    m_waitingSince.reset();
    if (!error) {
        const auto length = m_parser->content_length();
        const bool hasBody = m_parser->chunked() || (length && *length > 0);
        return send(answerTo(m_parser->get(), hasBody, m_table.content(), m_table.port()));
    }
    if (error == http::error::header_limit || error == http::error::buffer_overflow) {
        return send(refusal(Status::request_header_fields_too_large, "the request is too long", false));
    }
    const bool isMalformed = error.category() == make_error_code(http::error::bad_method).category() &&
                             error != http::error::end_of_stream && error != http::error::partial_message;
    if (isMalformed) {
        return send(refusal(Status::bad_request, "this is no request of HTTP/1.1", false));
    }
    close(); // the client has gone, or is too slow
}

void Connection::send(Answer answer) {
    m_answer = std::move(answer);
    m_left = m_answer.range;
    if (m_answer.file != nullptr && !readChunk()) {
        m_answer = changedAnswer(*m_answer.file);
    }
    std::ostringstream head;
    head << m_answer.head.base();
    m_head = head.str();
    write(m_head,
          m_answer.file != nullptr ? std::string_view(m_chunk.data(), m_chunk.size()) : m_answer.body());
}

// The file is looked at after its bytes are read, so none of another content can be among them. False when it
// is another, or cannot be read.
bool Connection::readChunk() {
    const StampedFile& file = *m_answer.file->file;
    m_chunk.resize(std::min<std::uint64_t>(m_left.count, m_table.limits().chunkBytes));
    if (!file.read(m_left.first, m_chunk.data(), m_chunk.size()) || !file.isUnchanged()) {
        return false;
    }
    m_left.first += m_chunk.size();
    m_left.count -= m_chunk.size();
    return true;
}

void Connection::write(std::string_view head, std::string_view body) {
    m_stream.expires_after(m_table.limits().sendTime);
    const std::array buffers = {asio::const_buffer(head.data(), head.size()),
                                asio::const_buffer(body.data(), body.size())};
    asio::async_write(m_stream, buffers,
                      [self = shared_from_this()](Error error, std::size_t) { self->onWritten(error); });
}

void Connection::onWritten(Error error) {
    if (error) {
        return close();
    }
    if (m_answer.file != nullptr && m_left.count > 0) {
        // The length has been promised: an early end is the only way to say that the rest is not there any
        // more.
        return readChunk() ? write({}, {m_chunk.data(), m_chunk.size()}) : close();
    }
    m_answer.head.keep_alive() ? readRequest() : part();
}

// A connection that is closed while the client still sends is reset, and the answer may be lost with it. So
// the sending side is closed first, and what still comes is taken for a moment.
void Connection::part() {
    Error ignored;
    m_stream.socket().shutdown(asio::ip::tcp::socket::shutdown_send, ignored);
    m_waitingSince = Clock::now();
    m_stream.expires_after(m_table.limits().partingTime);
    constexpr std::size_t most = std::size_t{1}
                                 << 20; // a client that sends more is not listened to any longer
    discard(most);
}

void Connection::discard(std::size_t most) {
    constexpr std::size_t piece = 4096;
    m_chunk.resize(piece);
    m_stream.async_read_some(asio::buffer(m_chunk),
                             [self = shared_from_this(), most](Error error, std::size_t count) {
                                 error || count >= most ? self->close() : self->discard(most - count);
                             });
}

} // namespace Tavrin::SplatProgram
