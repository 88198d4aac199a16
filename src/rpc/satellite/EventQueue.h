// Calls of the author's On... members that wait for their turn.
#pragma once

#include "foundation/Strand.h"
#include "rpc/transport/Endpoint.h"

#include <functional>
#include <string>

namespace kel {

// A strand of events, run by the endpoint's threads. Never by the thread that appends: events come over several
// connections, and one that is held up by an event cannot bring its next ones in before those of another. Any thread.
// The endpoint must be closed before the object goes.
class EventQueue {
public:
    // `what` names the events in log lines.
    EventQueue(transport::Endpoint& endpoint, std::string what);

    // `bytes` are what the event takes while it waits; when those that wait take too many, the caller waits as well:
    // backpressure on the connection that brings them.
    void Append(std::function<void()> event, size_t bytes = 0);
    // Drops what waits and what comes. An event that runs goes on; the endpoint's Quiesce waits for it.
    void Stop();

private:
    void Run();
    void RunOne(const std::function<void()>& event) const;

    transport::Endpoint& endpoint_;
    const std::string what_;
    Strand<std::function<void()>> strand_;
};

}  // namespace kel
