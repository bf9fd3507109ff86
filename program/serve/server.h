// The web server of `view`. It listens on loopback addresses only, uses one thread, and bounds what clients
// can cost.
#pragma once

#include "program/serve/content.h"
#include "program/serve/server_limits.h"

#include <cstdint>
#include <functional>
#include <memory>

namespace Tavrin::SplatProgram {

class Server {
public:
    // Listens on 127.0.0.1, and on [::1] if the system has it, at `port`; 0 takes a free one. Throws a
    // Failure (OutputRefused) when the port is not available. The content must outlive the server.
    Server(const Content& content, std::uint16_t port, const ServerLimits& limits = {});
    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;
    ~Server();

    std::uint16_t port() const;

    // Answers requests until `shouldEnd` returns true; it is called 20 times a second. Then closes all open
    // connections, even in the middle of an answer.
    void run(const std::function<bool()>& shouldEnd);

private:
    struct State;
    std::unique_ptr<State> state_;
};

} // namespace Tavrin::SplatProgram
