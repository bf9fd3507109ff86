#include "tests/serve/raw_client.h"

#include <array>
#include <cerrno>
#include <cstddef>
#include <stdexcept>

#ifdef _WIN32
#include <winsock2.h>

#include <ws2tcpip.h>
#else
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>
#endif

namespace RawClient {
namespace {

// What the two systems' sockets call differently.
#ifdef _WIN32
using Handle = SOCKET;
using Length = int;
constexpr Handle noHandle = INVALID_SOCKET;
constexpr int sendFlags = 0;
constexpr int noMoreSent = SD_SEND;

Handle openSocket(int family) {
    WSADATA data;
    ::WSAStartup(MAKEWORD(2, 2), &data);
    const Handle handle = ::socket(family, SOCK_STREAM, 0);
    const DWORD patience = 20'000; // milliseconds
    ::setsockopt(handle, SOL_SOCKET, SO_RCVTIMEO, reinterpret_cast<const char*>(&patience), sizeof patience);
    return handle;
}

void closeSocket(Handle handle) {
    ::closesocket(handle);
    ::WSACleanup();
}

bool isTooLate() {
    return ::WSAGetLastError() == WSAETIMEDOUT;
}
#else
using Handle = int;
using Length = std::size_t;
constexpr Handle noHandle = -1;
constexpr int sendFlags = MSG_NOSIGNAL;
constexpr int noMoreSent = SHUT_WR;

Handle openSocket(int family) {
    const Handle handle = ::socket(family, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const timeval patience = {20, 0};
    ::setsockopt(handle, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
    return handle;
}

void closeSocket(Handle handle) {
    ::close(handle);
}

bool isTooLate() {
    return errno == EAGAIN || errno == EWOULDBLOCK;
}
#endif

// The bytes that came; 0 at the end, less than 0 on an error.
std::ptrdiff_t receiveFrom(std::intptr_t handle, std::array<char, 65536>& buffer) {
    return ::recv(static_cast<Handle>(handle), buffer.data(), static_cast<Length>(buffer.size()), 0);
}

std::intptr_t connectTo(std::uint16_t port, bool six) {
    const Handle handle = openSocket(six ? AF_INET6 : AF_INET);
    sockaddr_in four = {};
    four.sin_family = AF_INET;
    four.sin_port = htons(port);
    four.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    sockaddr_in6 long6 = {};
    long6.sin6_family = AF_INET6;
    long6.sin6_port = htons(port);
    long6.sin6_addr = in6addr_loopback;
    const auto* const place = six ? reinterpret_cast<sockaddr*>(&long6) : reinterpret_cast<sockaddr*>(&four);
    if (handle == noHandle || ::connect(handle, place, six ? sizeof long6 : sizeof four) != 0) {
        closeSocket(handle);
        throw std::runtime_error("no connection to port " + std::to_string(port));
    }
    return static_cast<std::intptr_t>(handle);
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
    closeSocket(static_cast<Handle>(socket_));
}

bool Connection::send(std::string_view bytes) {
    while (!bytes.empty()) {
        const std::ptrdiff_t count =
            ::send(static_cast<Handle>(socket_), bytes.data(), static_cast<Length>(bytes.size()), sendFlags);
        if (count <= 0) {
            return false;
        }
        bytes.remove_prefix(static_cast<std::size_t>(count));
    }
    return true;
}

bool Connection::fill() {
    std::array<char, 65536> buffer;
    const std::ptrdiff_t count = receiveFrom(socket_, buffer);
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
    std::ptrdiff_t count = 0;
    do {
        std::array<char, 65536> buffer;
        count = receiveFrom(socket_, buffer);
    } while (count > 0);
    return count == 0 || !isTooLate();
}

bool Connection::hasBegun() {
    return !received_.empty() || fill();
}

void Connection::finish() {
    ::shutdown(static_cast<Handle>(socket_), noMoreSent);
}

} // namespace RawClient
