// The web server of `view`: this machine's own addresses alone, one thread, bounded in everything.
#pragma once

#include "program/serve/content.h"
#include "program/serve/server_limits.h"

#include <cstdint>
#include <functional>
#include <memory>

namespace Tavrin::SplatProgram {

class Server {
public:
    // Listens on 127.0.0.1, and on [::1] where the system has it, at `port`; 0 takes a free one. Throws a
    // Failure (OutputRefused) when the port cannot be had. The content must outlive the server.
    Server(const Content& content, std::uint16_t port, const ServerLimits& limits = {});
    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;
    ~Server();

    std::uint16_t port() const;

    // Answers until `shouldEnd` says so, which is asked 20 times a second. Connections that are open then are
    // closed wherever they stand.
    void run(const std::function<bool()>& shouldEnd);

private:
    struct State;
    std::unique_ptr<State> state_;
};

} // namespace Tavrin::SplatProgram
