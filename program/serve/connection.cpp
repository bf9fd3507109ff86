#include "program/serve/connection.h"

#include <boost/asio/write.hpp>
#include <boost/beast/http/error.hpp>
#include <boost/beast/http/read.hpp>
#include <boost/beast/http/write.hpp>

#include <algorithm>
#include <array>
#include <sstream>
#include <utility>

namespace Tavrin::SplatProgram {
namespace {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = boost::beast::http;

} // namespace

bool ConnectionTable::admit(asio::ip::tcp::socket& socket) {
    if (connections_.size() >= limits_.connections) {
        const auto waitsLonger = [](const Connection* one, const Connection* other) {
            constexpr Connection::Clock::time_point never = Connection::Clock::time_point::max();
            return one->waitingSince().value_or(never) < other->waitingSince().value_or(never);
        };
        Connection* const idlest = *std::ranges::min_element(connections_, waitsLonger);
        if (!idlest->waitingSince()) {
            return false;
        }
        idlest->close();
    }
    std::make_shared<Connection>(std::move(socket), *this)->readRequest();
    return true;
}

Connection::Connection(asio::ip::tcp::socket socket, ConnectionTable& table)
    : stream_(std::move(socket)), table_(table), received_(2 * table.limits().headBytes) {
    table_.add(*this);
}

Connection::~Connection() {
    table_.remove(*this);
}

void Connection::close() {
    stream_.close();
    table_.remove(*this);
}

// The time limit of a request starts when the previous one is answered. Single bytes that arrive do not
// extend it.
void Connection::readRequest() {
    waitingSince_ = Clock::now();
    parser_.emplace();
    parser_->header_limit(static_cast<std::uint32_t>(table_.limits().headBytes));
    stream_.expires_after(table_.limits().requestTime);
    http::async_read_header(
        stream_, received_, *parser_,
        [self = shared_from_this()](Error error, std::size_t) { self->onRequest(error); });
}

void Connection::onRequest(Error error) {
    waitingSince_.reset();
    if (!error) {
        const auto length = parser_->content_length();
        const bool hasBody = parser_->chunked() || (length && *length > 0);
        return send(answerTo(parser_->get(), hasBody, table_.content(), table_.port()));
    }
    if (error == http::error::header_limit || error == http::error::buffer_overflow) {
        return send(refusal(Status::request_header_fields_too_large, "the request is too long", false));
    }
    const bool isMalformed = error.category() == make_error_code(http::error::bad_method).category() &&
                             error != http::error::end_of_stream && error != http::error::partial_message;
    if (isMalformed) {
        return send(refusal(Status::bad_request, "this is no request of HTTP/1.1", false));
    }
    close(); // the client has gone or is too slow
}

void Connection::send(Answer answer) {
    answer_ = std::move(answer);
    left_ = answer_.range;
    if (answer_.file != nullptr && !readPiece()) {
        answer_ = changedAnswer(*answer_.file);
    }
    std::ostringstream head;
    head << answer_.head.base();
    head_ = head.str();
    write(head_, answer_.file != nullptr ? std::string_view(piece_.data(), piece_.size()) : answer_.body());
}

// Reads the next piece of the file. The stamp is checked after reading, so bytes of a changed file are never
// sent. False if the file has changed or cannot be read.
bool Connection::readPiece() {
    const StampedFile& file = *answer_.file->file;
    piece_.resize(std::min<std::uint64_t>(left_.count, table_.limits().pieceBytes));
    if (!file.read(left_.first, piece_.data(), piece_.size()) || !file.isUnchanged()) {
        return false;
    }
    left_.first += piece_.size();
    left_.count -= piece_.size();
    return true;
}

void Connection::write(std::string_view head, std::string_view body) {
    stream_.expires_after(table_.limits().sendTime);
    const std::array buffers = {asio::const_buffer(head.data(), head.size()),
                                asio::const_buffer(body.data(), body.size())};
    asio::async_write(stream_, buffers,
                      [self = shared_from_this()](Error error, std::size_t) { self->onWritten(error); });
}

void Connection::onWritten(Error error) {
    if (error) {
        return close();
    }
    if (answer_.file != nullptr && left_.count > 0) {
        // The head has promised the length, so closing early is the only way to report that the rest is gone.
        return readPiece() ? write({}, {piece_.data(), piece_.size()}) : close();
    }
    answer_.head.keep_alive() ? readRequest() : part();
}

// Closing while the client still sends resets the connection, and the answer may be lost. So the sending side
// is closed first, and what still arrives is read and discarded for a moment.
void Connection::part() {
    Error ignored;
    stream_.socket().shutdown(asio::ip::tcp::socket::shutdown_send, ignored);
    waitingSince_ = Clock::now();
    stream_.expires_after(table_.limits().partingTime);
    // A client that sends more than this is cut off.
    constexpr std::size_t most = std::size_t{1} << 20;
    discard(most);
}

void Connection::discard(std::size_t most) {
    constexpr std::size_t piece = 4096;
    piece_.resize(piece);
    stream_.async_read_some(asio::buffer(piece_),
                            [self = shared_from_this(), most](Error error, std::size_t count) {
                                error || count >= most ? self->close() : self->discard(most - count);
                            });
}

} // namespace Tavrin::SplatProgram
