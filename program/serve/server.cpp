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

// A socket that listens at the address; an error where it cannot.
tcp::acceptor listenAt(asio::io_context& context, const tcp::endpoint& place, Error& error) {
    tcp::acceptor acceptor(context);
    acceptor.open(place.protocol(), error);
#ifdef _WIN32
    // There the option lets another process take the port, too.
    const bool reuses = false;
#else
    // Connections of an earlier run may still be fading away.
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
    std::optional<tcp::socket> held; // a client for whom there is no place yet
    bool isAccepting = false;
};

} // namespace

struct Server::State {
    // Before the context, whose end is that of the connections.
    std::optional<ConnectionTable> table;
    asio::io_context context;
    std::vector<Listener> listeners;
    asio::steady_timer timer{context};

    std::uint16_t listen(std::uint16_t port);
    void accept(Listener& listener);
    void place(Listener& listener);
    void turnWith(const std::function<bool()>& shouldEnd);
};

// Both addresses have the same port, so that "localhost" leads here whichever it stands for.
std::uint16_t Server::State::listen(std::uint16_t port) {
    constexpr int attempts = 20; // to find a port that is free at both addresses
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
            if (!error) { // else the system has no such address
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
        if (!error) { // else this process has no file left to open: the next turn tries again
            listener.held.emplace(std::move(socket));
            place(listener);
        }
    });
}

// Nobody else is accepted as long as one waits: the system keeps the others.
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
