#include "tests/serve/raw_client.h"

#include <arpa/inet.h>
#include <array>
#include <cerrno>
#include <netinet/in.h>
#include <stdexcept>
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

Connection::Connection(std::uint16_t port, bool six) : m_port(port), m_socket(connectTo(port, six)) {}

Connection::~Connection() {
    ::close(m_socket);
}

bool Connection::send(std::string_view bytes) {
    while (!bytes.empty()) {
        const ssize_t count = ::send(m_socket, bytes.data(), bytes.size(), MSG_NOSIGNAL);
        if (count <= 0) {
            return false;
        }
        bytes.remove_prefix(static_cast<std::size_t>(count));
    }
    return true;
}

bool Connection::fill() {
    std::array<char, 65536> buffer;
    const ssize_t count = ::recv(m_socket, buffer.data(), buffer.size(), 0);
    if (count > 0) {
        m_received.append(buffer.data(), static_cast<std::size_t>(count));
    }
    return count > 0;
}

Answer Connection::receive(bool toHead) {
    const std::string_view end = "\r\n\r\n";
    while (m_received.find(end) == std::string::npos) {
        if (!fill()) {
            return {};
        }
    }
    Answer answer;
    const std::size_t headSize = m_received.find(end) + 2;
    answer.status = std::stoi(m_received.substr(sizeof "HTTP/1.1" - 1, 4));
    for (std::size_t at = m_received.find("\r\n") + 2; at < headSize;) {
        const std::size_t lineEnd = m_received.find("\r\n", at);
        const std::size_t colon = m_received.find(": ", at);
        answer.fields[lowered(m_received.substr(at, colon - at))] =
            m_received.substr(colon + 2, lineEnd - colon - 2);
        at = lineEnd + 2;
    }
    m_received.erase(0, headSize + 2);
    const auto length = answer.fields.find("content-length");
    const std::size_t size = toHead || length == answer.fields.end() ? 0 : std::stoull(length->second);
    while (m_received.size() < size && fill()) {
    }
    answer.body = m_received.substr(0, size);
    m_received.erase(0, size);
    return answer;
}

Answer Connection::ask(const std::string& method, const std::string& target, const std::string& fields) {
    const bool namesHost = fields.find("Host:") != std::string::npos;
    const std::string host = namesHost ? "" : "Host: 127.0.0.1:" + std::to_string(m_port) + "\r\n";
    send(method + " " + target + " HTTP/1.1\r\n" + host + fields + "\r\n");
    return receive(method == "HEAD");
}

bool Connection::isEnded() {
    ssize_t count = 0;
    do {
        std::array<char, 65536> buffer;
        count = ::recv(m_socket, buffer.data(), buffer.size(), 0);
    } while (count > 0);
    return count == 0 || (errno != EAGAIN && errno != EWOULDBLOCK);
}

bool Connection::hasBegun() {
    return !m_received.empty() || fill();
}

void Connection::finish() {
    ::shutdown(m_socket, SHUT_WR);
}

} // namespace RawClient
