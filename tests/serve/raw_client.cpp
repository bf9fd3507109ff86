#include "tests/serve/raw_client.h"

#include <array>
#include <cerrno>
#include <stdexcept>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

namespace RawClient {
namespace {

int connectTo(std::uint16_t port, bool six) {
    const int handle = ::socket(six ? AF_INET6 : AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const timeval patience = {20, 0};
    ::setsockopt(handle, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
    sockaddr_in four = {};
    four.sin_family = AF_INET;
    four.sin_port = htons(port);
    four.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    sockaddr_in6 long6 = {};
    long6.sin6_family = AF_INET6;
    long6.sin6_port = htons(port);
    long6.sin6_addr = in6addr_loopback;
    const auto* const place = six ? reinterpret_cast<sockaddr*>(&long6) : reinterpret_cast<sockaddr*>(&four);
    if (handle < 0 || ::connect(handle, place, six ? sizeof long6 : sizeof four) != 0) {
        ::close(handle);
        throw std::runtime_error("no connection to port " + std::to_string(port));
    }
    return handle;
}

std::string lowered(std::string text) {
    for (char& c : text) {
        c = c >= 'A' && c <= 'Z' ? static_cast<char>(c + ('a' - 'A')) : c;
    }
    return text;
}

} // namespace

Connection::Connection(std::uint16_t port, bool six) : port_(port), socket_(connectTo(port, six)) {}

Connection::~Connection() {
    ::close(socket_);
}

bool Connection::send(std::string_view bytes) {
    while (!bytes.empty()) {
        const ssize_t count = ::send(socket_, bytes.data(), bytes.size(), MSG_NOSIGNAL);
        if (count <= 0) {
            return false;
        }
        bytes.remove_prefix(static_cast<std::size_t>(count));
    }
    return true;
}

bool Connection::fill() {
    std::array<char, 65536> buffer;
    const ssize_t count = ::recv(socket_, buffer.data(), buffer.size(), 0);
    if (count > 0) {
        received_.append(buffer.data(), static_cast<std::size_t>(count));
    }
    return count > 0;
}

Answer Connection::receive(bool toHead) {
    const std::string_view end = "\r\n\r\n";
    while (received_.find(end) == std::string::npos) {
        if (!fill()) {
            return {};
        }
    }
    Answer answer;
    const std::size_t headSize = received_.find(end) + 2;
    answer.status = std::stoi(received_.substr(sizeof "HTTP/1.1" - 1, 4));
    for (std::size_t at = received_.find("\r\n") + 2; at < headSize;) {
        const std::size_t lineEnd = received_.find("\r\n", at);
        const std::size_t colon = received_.find(": ", at);
        answer.fields[lowered(received_.substr(at, colon - at))] =
            received_.substr(colon + 2, lineEnd - colon - 2);
        at = lineEnd + 2;
    }
    received_.erase(0, headSize + 2);
    const auto length = answer.fields.find("content-length");
    const std::size_t size = toHead || length == answer.fields.end() ? 0 : std::stoull(length->second);
    while (received_.size() < size && fill()) {
    }
    answer.body = received_.substr(0, size);
    received_.erase(0, size);
    return answer;
}

Answer Connection::ask(const std::string& method, const std::string& target, const std::string& fields) {
    const bool namesHost = fields.find("Host:") != std::string::npos;
    const std::string host = namesHost ? "" : "Host: 127.0.0.1:" + std::to_string(port_) + "\r\n";
    send(method + " " + target + " HTTP/1.1\r\n" + host + fields + "\r\n");
    return receive(method == "HEAD");
}

bool Connection::isEnded() {
    ssize_t count = 0;
    do {
        std::array<char, 65536> buffer;
        count = ::recv(socket_, buffer.data(), buffer.size(), 0);
    } while (count > 0);
    return count == 0 || (errno != EAGAIN && errno != EWOULDBLOCK);
}

bool Connection::hasBegun() {
    return !received_.empty() || fill();
}

void Connection::finish() {
    ::shutdown(socket_, SHUT_WR);
}

} // namespace RawClient
