#include "program/serve/server.h"

#include "program/serve/connection.h"
#include "program/system/exit_status.h"

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/steady_timer.hpp>
#include <fmt/format.h>

#include <chrono>
#include <optional>
#include <utility>
#include <vector>

namespace Tavrin::SplatProgram {
namespace {

namespace asio = boost::asio;
using asio::ip::tcp;
using Error = boost::system::error_code;

constexpr std::chrono::milliseconds turn(50);

// A socket that listens at the address; sets `error` if that fails.
tcp::acceptor listenAt(asio::io_context& context, const tcp::endpoint& place, Error& error) {
    tcp::acceptor acceptor(context);
    acceptor.open(place.protocol(), error);
#ifdef _WIN32
    // On Windows the option would let another process take the same port.
    const bool reuses = false;
#else
    // Closed connections of an earlier run may still occupy the port.
    const bool reuses = true;
#endif
    if (!error) {
        acceptor.set_option(tcp::acceptor::reuse_address(reuses), error);
    }
    if (!error) {
        acceptor.bind(place, error);
    }
    if (!error) {
        acceptor.listen(asio::socket_base::max_listen_connections, error);
    }
    return acceptor;
}

[[noreturn]] void refusePort(std::uint16_t port, const Error& error) {
    const std::string what =
        error == asio::error::address_in_use ? "is in use" : "cannot be had: " + error.message();
    throw Failure(ExitStatus::outputRefused,
                  fmt::format("port {} {}: give another --port, or none to take a free one", port, what));
}

struct Listener {
    tcp::acceptor acceptor;
    std::optional<tcp::socket> held; // a client that waits for a place
    bool isAccepting = false;
};

} // namespace

struct Server::State {
    // Declared before the context, whose destructor ends the connections.
    std::optional<ConnectionTable> table;
    asio::io_context context;
    std::vector<Listener> listeners;
    asio::steady_timer timer{context};

    std::uint16_t listen(std::uint16_t port);
    void accept(Listener& listener);
    void place(Listener& listener);
    void turnWith(const std::function<bool()>& shouldEnd);
};

// Both addresses get the same port, so that "localhost" works whichever of them it means.
std::uint16_t Server::State::listen(std::uint16_t port) {
    constexpr int attempts = 20; // to find a port that is free on both addresses
    Error error;
    for (int attempt = 0; attempt < attempts; ++attempt) {
        tcp::acceptor four = listenAt(context, {asio::ip::address_v4::loopback(), port}, error);
        if (error) {
            break;
        }
        const std::uint16_t taken = four.local_endpoint().port();
        tcp::acceptor six = listenAt(context, {asio::ip::address_v6::loopback(), taken}, error);
        if (error != asio::error::address_in_use) {
            listeners.push_back({std::move(four), std::nullopt});
            if (!error) { // otherwise the system has no such address
                listeners.push_back({std::move(six), std::nullopt});
            }
            return taken;
        }
        if (port != 0) {
            break;
        }
    }
    refusePort(port, error);
}

void Server::State::accept(Listener& listener) {
    listener.isAccepting = true;
    listener.acceptor.async_accept([this, &listener](const Error& error, tcp::socket socket) {
        listener.isAccepting = false;
        if (!error) { // otherwise the process has too many open files; the next turn tries again
            listener.held.emplace(std::move(socket));
            place(listener);
        }
    });
}

// While one client waits, no other is accepted; the others stay in the system's queue.
void Server::State::place(Listener& listener) {
    Error ignored;
    listener.held->set_option(tcp::no_delay(true), ignored);
    if (table->admit(*listener.held)) {
        listener.held.reset();
        accept(listener);
    }
}

void Server::State::turnWith(const std::function<bool()>& shouldEnd) {
    if (shouldEnd()) {
        context.stop();
        return;
    }
    for (Listener& listener : listeners) {
        if (listener.held) {
            place(listener);
        } else if (!listener.isAccepting) {
            accept(listener);
        }
    }
    timer.expires_after(turn);
    timer.async_wait([this, &shouldEnd](const Error&) { turnWith(shouldEnd); });
}

Server::Server(const Content& content, std::uint16_t port, const ServerLimits& limits)
    : state_(std::make_unique<State>()) {
    const std::uint16_t taken = state_->listen(port);
    state_->table.emplace(content, taken, limits);
}

Server::~Server() = default;

std::uint16_t Server::port() const {
    return state_->table->port();
}

void Server::run(const std::function<bool()>& shouldEnd) {
    state_->turnWith(shouldEnd);
    state_->context.run();
}

} // namespace Tavrin::SplatProgram
