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

    // Says that this thread is about to wait, for a disk for instance. If it runs a method, another one goes on with
    // the library's work at once, instead of when it is found to be held up.
    static void AboutToBlock();

private:
    const transport::Connection* const outer_;
};

}  // namespace kel
