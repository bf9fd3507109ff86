// A client that sends arbitrary bytes to a server on this machine and parses its answers.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <string_view>

namespace RawClient {

struct Answer {
    int status = 0;                            // 0: the server ended the connection without an answer
    std::map<std::string, std::string> fields; // names in lower case
    std::string body;

    // The value of a field; "(none)" without it.
    std::string field(const std::string& name) const {
        const auto found = fields.find(name);
        return found == fields.end() ? "(none)" : found->second;
    }
};

class Connection {
public:
    // Connects to 127.0.0.1, or with `six` to [::1]. Throws std::runtime_error when no server listens there.
    explicit Connection(std::uint16_t port, bool six = false);
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;
    ~Connection();

    // False when the server has ended the connection.
    bool send(std::string_view bytes);

    // The next answer. `toHead`: it has no body, whatever its length field says. If the body ends early or
    // does not arrive within 20 s, the answer has the part that arrived.
    Answer receive(bool toHead = false);

    // One request, with the server's own address as host unless the fields name one.
    Answer ask(const std::string& method, const std::string& target, const std::string& fields = {});

    // True if the server ends the connection within 20 s. Discards what arrives before.
    bool isEnded();

    // True if an answer begins to arrive within 20 s.
    bool hasBegun();

    // Closes the sending side.
    void finish();

private:
    bool fill();

    std::uint16_t port_;
    std::intptr_t socket_; // as the system names it
    std::string received_;
};

} // namespace RawClient
