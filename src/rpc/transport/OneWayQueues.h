// One-way calls: queued for each satellite, sent in order, never waited for by the caller.
#pragma once

#include "foundation/StdString.h"
#include "rpc/transport/AddressBook.h"

#include <chrono>
#include <condition_variable>
#include <deque>
#include <map>
#include <memory>
#include <string>

namespace kel::transport {

constexpr size_t maxOneWayWaiting = 1024;  // for one satellite; beyond them the oldest is dropped with a warning

constexpr size_t maxIdleQueues = 16384;  // of satellites to which nothing is under way; about so many are kept

// Each satellite has a queue, and at most one thread or operation at a time, the runner, takes from it: it finds the
// address, waits for the connection and sends until the queue is empty. A satellite that hangs holds up its own queue
// only: what the system does not take waits here. A failure is answered by asking the directory for the address once
// more; if that fails too, or if there is no memory to go on, what waits is dropped with a warning. Post may be called
// from any thread.
class OneWayQueues {
public:
    OneWayQueues(Outbound& outbound, AddressBook& addresses);

    // Queues the bytes of one notification for `satellite`.
    void Post(const std::string& satellite, std::string bytes);

    // Waits until at least half of the queue is free; false when that takes longer.
    bool AwaitRoom(const std::string& satellite, std::chrono::milliseconds timeout);

private:
    struct Queue {
        explicit Queue(std::string name) : satellite(std::move(name)) {}

        const std::string satellite;
        PMutex lock;
        std::deque<std::string> waiting KEL_GUARDED_BY(lock);
        bool running KEL_GUARDED_BY(lock) = false;
        std::condition_variable_any roomMade;       // half of it is free
        size_t dropped KEL_GUARDED_BY(lock) = 0;    // since the queue was last empty
        bool retired KEL_GUARDED_BY(lock) = false;  // no longer in the list

        // The runner's.
        bool retried = false;
        bool failing = false;  // the latest calls were dropped, which is said once
        Address address;
    };
    using QueuePtr = std::shared_ptr<Queue>;

    QueuePtr FindQueue(const std::string& satellite);
    void RetireIdle() KEL_REQUIRES(lock_);
    bool Append(Queue& queue, std::string& bytes, bool& becomesRunner);
    template <typename Step>
    void Proceed(const QueuePtr& queue, Step&& step);
    void Run(const QueuePtr& queue);
    void RunAt(const QueuePtr& queue, const Address& address);
    void SendAll(const QueuePtr& queue, const ConnectionPtr& connection);
    bool TakeNext(Queue& queue, std::string& bytes);
    void PutBack(Queue& queue, std::string bytes);
    void Failed(const QueuePtr& queue, const std::string& problem);
    void Drop(Queue& queue, const char* problem);

    Outbound& outbound_;
    AddressBook& addresses_;

    PMutex lock_;
    std::map<CStdStr, QueuePtr, CaseInsensitiveLess> queues_ KEL_GUARDED_BY(lock_);
    size_t retireAt_ KEL_GUARDED_BY(lock_) = maxIdleQueues;
};

}  // namespace kel::transport
