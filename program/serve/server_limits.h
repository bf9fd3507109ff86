// What the clients of the server can cost.
#pragma once

#include <chrono>
#include <cstddef>

namespace Tavrin::SplatProgram {

struct ServerLimits {
    std::size_t connections = 64;                    // at once
    std::size_t headBytes = std::size_t{32} << 10;   // of a request; cookies of other servers come along
    std::size_t pieceBytes = std::size_t{256} << 10; // of a file in memory at once, a connection
    std::chrono::milliseconds requestTime{15'000};   // until a request is there as a whole
    std::chrono::milliseconds sendTime{60'000};      // until a client has taken a piece
    std::chrono::milliseconds partingTime{1'000};    // for a client to take the last answer
};

} // namespace Tavrin::SplatProgram
