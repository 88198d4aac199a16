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
    size_t idAt = 0;  // where both have their number, of two bytes; 0: they have none, and answers come in order
};

// The numbers that calls carry begin here, so that all of them are encoded in as many bytes.
constexpr uint16_t firstCallId = 0x100;

// A closed loop: every connection has `inFlight` calls outstanding, and as soon as answers are whole sends as many
// further calls, all of them at once. The connections stay open between runs. Every answer is compared with what was
// expected, and a wrong one, or none for ten seconds, throws. Not thread-safe.
class LoadClient {
public:
    LoadClient(const Server& server, unsigned connections, unsigned inFlight = 1);

    // Goes round `exchanges`, whose answers are all of one length, for `seconds`, then waits for the answers still out.
    // Returns the calls answered a second.
    double RunFor(std::span<const Exchange> exchanges, double seconds);

    // Makes each call once. Returns the calls answered a second.
    double RunOnce(std::span<const Exchange> exchanges);

private:
    struct Connection {
        Descriptor socket;
        std::vector<const Exchange*> calls;  // that are outstanding, at the places that their numbers tell; or null
        size_t oldest = 0;                   // the place of the next answer, where answers come in order
        std::string received;                // room for all answers
        size_t receivedBytes = 0;            // of an answer that is not whole
        std::string toSend;
    };

    double Run(std::span<const Exchange> exchanges, bool again, Clock::time_point end);
    void Prepare(std::span<const Exchange> exchanges);
    void Receive(Connection& connection);
    size_t TakeAnswer(Connection& connection, const char* answer);
    void AddNext(Connection& connection, size_t place);
    void Send(Connection& connection);

    Descriptor epoll_;
    std::vector<Connection> connections_;

    // The run in progress.
    std::span<const Exchange> exchanges_;
    size_t answerBytes_ = 0;
    size_t idAt_ = 0;
    size_t next_ = 0;
    bool again_ = false;     // start over at the end of exchanges_
    bool stopping_ = false;  // send nothing more
    size_t outstanding_ = 0;
    uint64_t answered_ = 0;
};

}  // namespace kel::bench
