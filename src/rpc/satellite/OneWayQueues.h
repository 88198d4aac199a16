// One-way calls: queued for each satellite, sent in order, never waited for by the caller.
#pragma once

#include "foundation/SaidOnce.h"
#include "foundation/StdString.h"
#include "rpc/satellite/AddressBook.h"

#include <chrono>
#include <deque>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace kel {

constexpr size_t maxOneWayWaiting = 1024;  // for one satellite; beyond them the oldest is dropped with a warning

constexpr size_t maxIdleQueues = 16384;  // of satellites to which nothing is under way; about so many are kept

// Each satellite has a queue, and at most one thread or operation at a time, the runner, takes from it: it finds the
// address, waits for the connection and sends until the queue is empty, all that waits at a time. A caller sends what
// he has himself, unless he makes one call after the other: then a worker thread does, and finds several each time. A
// satellite that hangs holds up its own queue only: what the system does not take waits here. A failure is answered by
// asking the directory for the address once more; if that fails too, or if there is no memory to go on, what waits is
// dropped with a warning. Post may be called from any thread.
class OneWayQueues {
public:
    OneWayQueues(transport::Outbound& outbound, AddressBook& addresses);

    // Queues the bytes of one notification for `satellite`.
    void Post(const std::string& satellite, std::string bytes);

    // Backpressure for those who want it: waits until at least half of the queue is free; false when that takes longer.
    bool AwaitRoom(const std::string& satellite, std::chrono::milliseconds timeout);

    // Waits until what was posted before has been begun to be sent, at the most until `deadline`.
    void AwaitBeginnings(transport::Deadline deadline);

private:
    struct Queue {
        explicit Queue(std::string name) : satellite(std::move(name)) {}

        const std::string satellite;
        PCondMutex lock;  // broadcast when half of it is free
        std::deque<std::string> waiting KEL_GUARDED_BY(lock);
        bool running KEL_GUARDED_BY(lock) = false;
        size_t dropped KEL_GUARDED_BY(lock) = 0;    // since the queue was last empty
        bool retired KEL_GUARDED_BY(lock) = false;  // no longer in the list

        // The runner's.
        bool retried = false;
        SaidOnce failing;  // the latest calls were dropped
        std::chrono::steady_clock::time_point lastRun{};
        transport::Address address;
    };
    using QueuePtr = std::shared_ptr<Queue>;

    QueuePtr FindQueue(const std::string& satellite);
    void RetireIdle() KEL_REQUIRES(lock_);
    bool Append(Queue& queue, std::string& bytes, bool& becomesRunner);
    void Begin(const QueuePtr& queue);
    void BeginLater(const QueuePtr& queue);
    template <typename Step>
    void Proceed(const QueuePtr& queue, Step&& step);
    void Run(const QueuePtr& queue);
    void RunAt(const QueuePtr& queue, const transport::Address& address);
    void SendAll(const QueuePtr& queue, const transport::ConnectionPtr& connection);
    struct Batch {
        std::vector<std::string> calls;
        std::string bytes;  // of all of them
    };
    bool TakeWaiting(Queue& queue, Batch& batch);
    void PutBack(Queue& queue, Batch& batch);
    void Failed(const QueuePtr& queue, const std::string& problem);
    void Drop(Queue& queue, const char* problem);

    transport::Outbound& outbound_;
    AddressBook& addresses_;

    PMutex lock_;
    std::map<CStdStr, QueuePtr, CaseInsensitiveLess> queues_ KEL_GUARDED_BY(lock_);
    size_t retireAt_ KEL_GUARDED_BY(lock_) = maxIdleQueues;

    PCondMutex laterLock_;                      // broadcast when there is none
    int later_ KEL_GUARDED_BY(laterLock_) = 0;  // queues whose runner has yet to begin
};

}  // namespace kel
