// A client that sends bytes of any kind to a server of this machine, and takes its answers apart.
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
    // Connects to 127.0.0.1, or with `six` to [::1]. Throws std::runtime_error when nobody answers there.
    explicit Connection(std::uint16_t port, bool six = false);
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;
    ~Connection();

    // False when the server has ended the connection.
    bool send(std::string_view bytes);

    // The next answer; `toHead` says that it has no body, whatever its length says. A body that ends early is
    // left as short as it came, and so is an answer that does not come within 20 s.
    Answer receive(bool toHead = false);

    // One request, with the server's own address as host unless the fields name one.
    Answer ask(const std::string& method, const std::string& target, const std::string& fields = {});

    // The server has ended the connection: waits for the end, 20 s at most, and drops what comes before.
    bool isEnded();

    // An answer has begun to come: waits for it, 20 s at most.
    bool hasBegun();

    // No more is sent.
    void finish();

private:
    bool fill();

    std::uint16_t port_;
    int socket_;
    std::string received_;
};

} // namespace RawClient
