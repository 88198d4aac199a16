// Which call the calling thread runs.
#pragma once

#include <netinet/in.h>

#include <optional>

namespace kel {

namespace transport {
class Connection;
}

// Marks, for as long as it lives, that this thread runs a call that came over `connection`.
class RunningCall {
public:
    explicit RunningCall(const transport::Connection& connection);
    ~RunningCall();
    RunningCall(const RunningCall&) = delete;
    RunningCall& operator=(const RunningCall&) = delete;

    // The address of the peer that made this thread's call, provided that the call came over `socket` and that its
    // connection is still there; what getpeername says then, without asking the system for every call.
    static std::optional<in_addr> PeerOn(int socket);

private:
    const transport::Connection* const outer_;
};

}  // namespace kel
