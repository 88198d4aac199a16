// The load generator: calls over TCP as fast as one thread can, with nothing of the library under measurement.
#pragma once

#include "Support.h"

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

namespace kel::bench {

// Where a server listens: on 127.0.0.1, unless it says otherwise.
struct Server {
    Server(uint16_t itsPort, std::string itsAddress = "127.0.0.1") : port(itsPort), address(std::move(itsAddress)) {}
    uint16_t port;
    std::string address;  // dotted
};

// A connected socket to the server with TCP_NODELAY; a descriptor of -1 when nobody listens there.
Descriptor ConnectTo(const Server& server);
inline Descriptor ConnectToLoopback(uint16_t port) { return ConnectTo(port); }

// One call, encoded beforehand, and what is known of its answer.
struct Exchange {
    std::string request;
    std::string answerStart;  // the answer begins with these bytes, or is all of them
    size_t answerBytes = 0;   // its exact length
};

// A closed loop: every connection has one call outstanding and sends its next one as soon as the answer is whole.
// The connections stay open between runs. Every answer is compared with what was expected, and a wrong one, or none for
// ten seconds, throws. Not thread-safe.
class LoadClient {
public:
    LoadClient(const Server& server, unsigned connections);

    // Goes round `exchanges` for `seconds`, then waits for the answers still out. Returns the calls answered a second.
    double RunFor(std::span<const Exchange> exchanges, double seconds);

    // Makes each call once. Returns the calls answered a second.
    double RunOnce(std::span<const Exchange> exchanges);

private:
    struct Connection {
        Descriptor socket;
        const Exchange* exchange = nullptr;  // the outstanding call, or null
        size_t received = 0;                 // bytes of its answer so far
        std::string buffer;
    };

    double Run(std::span<const Exchange> exchanges, bool again, Clock::time_point end);
    bool SendNext(Connection& connection);
    void Receive(Connection& connection);

    Descriptor epoll_;
    std::vector<Connection> connections_;

    // The run in progress.
    std::span<const Exchange> exchanges_;
    size_t next_ = 0;
    bool again_ = false;     // start over at the end of exchanges_
    bool stopping_ = false;  // send nothing more
    size_t outstanding_ = 0;
    uint64_t answered_ = 0;
};

}  // namespace kel::bench
