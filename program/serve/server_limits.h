// The limits on what clients can cost the server.
#pragma once

#include <chrono>
#include <cstddef>

namespace Tavrin::SplatProgram {

struct ServerLimits {
    std::size_t connections = 64; // at once
    // Of a request; browsers also send cookies of other servers on this host.
    std::size_t headBytes = std::size_t{32} << 10;
    std::size_t pieceBytes = std::size_t{256} << 10; // of a file in memory, for each connection
    std::chrono::milliseconds requestTime{15'000};   // until the whole request has arrived
    std::chrono::milliseconds sendTime{60'000};      // until a client has taken a piece
    std::chrono::milliseconds partingTime{1'000};    // for a client to take the last answer
};

} // namespace Tavrin::SplatProgram
