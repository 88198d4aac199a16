// Calls of the author's On... members that wait for their turn.
#pragma once

#include "foundation/Locks.h"
#include "rpc/transport/Endpoint.h"

#include <deque>
#include <functional>
#include <string>

namespace kel {

// Runs events one at a time, in the order in which they were appended, on the endpoint's threads. Never on the thread
// that appends: events come over several connections, and one that is held up by an event cannot bring its next ones in
// before those of another. Any thread. The endpoint must be closed before the object goes.
class EventQueue {
public:
    // `what` names the events in log lines.
    EventQueue(transport::Endpoint& endpoint, std::string what);

    // `bytes` are what the event takes while it waits; when those that wait take too many, the caller waits as well.
    void Append(std::function<void()> event, size_t bytes = 0);
    // Drops what waits and what comes. An event that runs goes on; the endpoint's Quiesce waits for it.
    void Stop();

private:
    void Run();
    void RunOne(const std::function<void()>& event) const;

    transport::Endpoint& endpoint_;
    const std::string what_;

    struct Event {
        std::function<void()> run;
        size_t bytes;
    };
    PCondMutex lock_;  // broadcast when there is room again, or no use in waiting for it
    std::deque<Event> events_ KEL_GUARDED_BY(lock_);
    size_t bytes_ KEL_GUARDED_BY(lock_) = 0;
    bool running_ KEL_GUARDED_BY(lock_) = false;
    bool stopped_ KEL_GUARDED_BY(lock_) = false;
};

}  // namespace kel
