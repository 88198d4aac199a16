#include "rpc/satellite/OneWayQueues.h"

#include "rpc/transport/LibraryLog.h"
#include "rpc/transport/Quietly.h"

#include <utility>

namespace kel {

using transport::Address;
using transport::Connection;
using transport::ConnectionPtr;
using transport::Deadline;
using transport::Outbound;
using transport::Quietly;

OneWayQueues::OneWayQueues(Outbound& outbound, AddressBook& addresses) : outbound_(outbound), addresses_(addresses) {}

OneWayQueues::QueuePtr OneWayQueues::FindQueue(const std::string& satellite) {
    PMutexHold hold(lock_);
    if (queues_.size() >= retireAt_) RetireIdle();
    const auto found = queues_.find(satellite);
    if (found != queues_.end()) return found->second;
    return queues_.emplace(satellite, std::make_shared<Queue>(satellite)).first->second;
}

// Satellites come and go: queues that nothing waits in go too, once there are many.
void OneWayQueues::RetireIdle() {
    for (auto entry = queues_.begin(); entry != queues_.end();) {
        Queue& queue = *entry->second;
        PMutexHold hold(queue.lock);
        queue.retired = !queue.running;
        if (queue.retired) {
            entry = queues_.erase(entry);
        } else {
            ++entry;
        }
    }
    retireAt_ = queues_.size() * 2 + maxIdleQueues;
}

void OneWayQueues::Post(const std::string& satellite, std::string bytes) {
    for (;;) {
        const QueuePtr queue = FindQueue(satellite);
        bool becomesRunner = false;
        if (!Append(*queue, bytes, becomesRunner)) continue;
        if (becomesRunner) {
            queue->retried = false;
            Proceed(queue, [&] { Run(queue); });
        }
        return;
    }
}

// A step of the runner. An exception must not leave the queue without one for ever.
template <typename Step>
void OneWayQueues::Proceed(const QueuePtr& queue, Step&& step) {
    if (!Quietly(step)) Drop(*queue, "no memory");
}

bool OneWayQueues::AwaitRoom(const std::string& satellite, std::chrono::milliseconds timeout) {
    const QueuePtr queue = FindQueue(satellite);
    const Deadline deadline = std::chrono::steady_clock::now() + timeout;
    PMutexHold hold(queue->lock);
    while (queue->waiting.size() > maxOneWayWaiting / 2) {
        if (!queue->lock.waitUntil(deadline)) return false;
    }
    return true;
}

// False when the queue was retired since it was found.
bool OneWayQueues::Append(Queue& queue, std::string& bytes, bool& becomesRunner) {
    bool dropping = false;
    {
        PMutexHold hold(queue.lock);
        if (queue.retired) return false;
        if (queue.waiting.size() >= maxOneWayWaiting) {
            queue.waiting.pop_front();
            dropping = queue.dropped++ == 0;
        }
        queue.waiting.push_back(std::move(bytes));
        becomesRunner = !std::exchange(queue.running, true);
    }
    if (dropping) {
        Quietly([&] {
            CBBLog::warn(LibraryLogger(), "libkel: %zu one-way calls wait for %s; the oldest are dropped",
                         maxOneWayWaiting, queue.satellite.c_str());
        });
    }
    return true;
}

void OneWayQueues::Run(const QueuePtr& queue) {
    if (const auto address = addresses_.Remembered(queue->satellite)) return RunAt(queue, *address);
    addresses_.AskAsync(queue->satellite, [this, queue](const AddressBook::Entry& entry) {
        Proceed(queue, [&] {
            if (entry.address) return RunAt(queue, *entry.address);
            queue->retried = true;  // the directory has just been asked
            Failed(queue, entry.problem);
        });
    });
}

void OneWayQueues::RunAt(const QueuePtr& queue, const Address& address) {
    queue->address = address;
    outbound_.WithConnection(address,
                             [this, queue](const ConnectionPtr& connection, const boost::system::error_code& error) {
                                 Proceed(queue, [&] {
                                     if (connection) return SendAll(queue, connection);
                                     Failed(queue, queue->address.text() + ": " + error.message());
                                 });
                             });
}

void OneWayQueues::SendAll(const QueuePtr& queue, const ConnectionPtr& connection) {
    std::string bytes;
    while (TakeNext(*queue, bytes)) {
        switch (connection->Send(bytes, Connection::WhenFull::queue)) {
            case Connection::Sent::sent:
                queue->retried = false;
                queue->failing.Ends();
                break;
            case Connection::Sent::queued:
                // The rest waits here, where it can be counted, until the peer has read this one.
                if (connection->WhenDrained(
                        [this, queue, connection] { Proceed(queue, [&] { SendAll(queue, connection); }); },
                        [this, queue] { Proceed(queue, [&] { Failed(queue, "the connection closed"); }); })) {
                    return;
                }
                return Failed(queue, "the connection closed");
            case Connection::Sent::closed:
                PutBack(*queue, std::move(bytes));
                outbound_.Forget(connection);
                return Failed(queue, "the connection closed");
        }
    }
}

// The next one to send; false when there is none, and the caller is no longer the runner.
bool OneWayQueues::TakeNext(Queue& queue, std::string& bytes) {
    size_t dropped = 0;
    {
        PMutexHold hold(queue.lock);
        if (!queue.waiting.empty()) {
            bytes = std::move(queue.waiting.front());
            queue.waiting.pop_front();
            if (queue.waiting.size() == maxOneWayWaiting / 2) queue.lock.broadcast();
            return true;
        }
        queue.running = false;
        dropped = std::exchange(queue.dropped, 0);
    }
    if (dropped > 0) {
        Quietly([&] {
            CBBLog::warn(LibraryLogger(), "libkel: %s takes one-way calls again; %zu were dropped",
                         queue.satellite.c_str(), dropped);
        });
    }
    return false;
}

void OneWayQueues::PutBack(Queue& queue, std::string bytes) {
    PMutexHold hold(queue.lock);
    queue.waiting.push_front(std::move(bytes));
}

void OneWayQueues::Failed(const QueuePtr& queue, const std::string& problem) {
    addresses_.Forget(queue->satellite, queue->address);
    if (!std::exchange(queue->retried, true)) return Run(queue);
    Drop(*queue, problem.c_str());
}

// Drops what waits; the caller is no longer the runner.
void OneWayQueues::Drop(Queue& queue, const char* problem) {
    const bool isNews = queue.failing.Begins();
    size_t dropped = 0;
    {
        PMutexHold hold(queue.lock);
        dropped = queue.waiting.size() + std::exchange(queue.dropped, 0);
        queue.waiting.clear();
        queue.lock.broadcast();
        queue.running = false;
    }
    if (!isNews) return;
    Quietly([&] {
        CBBLog::warn(LibraryLogger(),
                     "libkel: %zu one-way calls to %s are dropped, and so are others until it can be reached: %s",
                     dropped, queue.satellite.c_str(), problem);
    });
}

}  // namespace kel
