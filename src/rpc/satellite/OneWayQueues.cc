#include "rpc/satellite/OneWayQueues.h"

#include "rpc/transport/LibraryLog.h"
#include "rpc/transport/Quietly.h"

#include <iterator>
#include <utility>

namespace kel {

using transport::Address;
using transport::Connection;
using transport::ConnectionPtr;
using transport::Deadline;
using transport::Outbound;
using transport::Quietly;

namespace {
constexpr std::chrono::microseconds quickSuccession{200};  // of the callers
constexpr size_t maxAtOnce = 256;
constexpr size_t maxBytesAtOnce = 64 * 1024;
}  // namespace

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
        if (becomesRunner) Begin(queue);
        return;
    }
}

void OneWayQueues::Begin(const QueuePtr& queue) {
    queue->retried = false;
    const auto now = std::chrono::steady_clock::now();
    const bool isOneOfMany = now - std::exchange(queue->lastRun, now) < quickSuccession;
    Proceed(queue, [&] { isOneOfMany ? BeginLater(queue) : Run(queue); });
}

void OneWayQueues::BeginLater(const QueuePtr& queue) {
    struct Counted {
        explicit Counted(OneWayQueues& counted) : queues(counted) {
            PMutexHold hold(queues.laterLock_);
            ++queues.later_;
        }
        ~Counted() {
            PMutexHold hold(queues.laterLock_);
            if (--queues.later_ == 0) queues.laterLock_.broadcast();
        }
        OneWayQueues& queues;
    };
    outbound_.Post([this, queue, counted = std::make_shared<Counted>(*this)] { Proceed(queue, [&] { Run(queue); }); });
}

void OneWayQueues::AwaitBeginnings(Deadline deadline) {
    PMutexHold hold(laterLock_);
    while (later_ > 0 && laterLock_.waitUntil(deadline)) {
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
    Batch batch;
    while (TakeWaiting(*queue, batch)) {
        switch (connection->Send(batch.bytes, Connection::WhenFull::queue)) {
            case Connection::Sent::sent:
                queue->retried = false;
                queue->failing.Ends();
                break;
            case Connection::Sent::queued:
                // The rest waits here, where it can be counted, until the peer has read these.
                if (connection->WhenDrained(
                        [this, queue, connection] { Proceed(queue, [&] { SendAll(queue, connection); }); },
                        [this, queue] { Proceed(queue, [&] { Failed(queue, "the connection closed"); }); })) {
                    return;
                }
                return Failed(queue, "the connection closed");
            case Connection::Sent::closed:
                PutBack(*queue, batch);
                outbound_.Forget(connection);
                return Failed(queue, "the connection closed");
        }
    }
}

// The next ones to send; false when there are none, and the caller is no longer the runner.
bool OneWayQueues::TakeWaiting(Queue& queue, Batch& batch) {
    batch.calls.clear();
    batch.bytes.clear();
    size_t dropped = 0;
    {
        PMutexHold hold(queue.lock);
        while (!queue.waiting.empty() && batch.calls.size() < maxAtOnce && batch.bytes.size() < maxBytesAtOnce) {
            batch.calls.push_back(std::move(queue.waiting.front()));
            queue.waiting.pop_front();
            batch.bytes += batch.calls.back();
        }
        if (!batch.calls.empty()) {
            if (queue.waiting.size() <= maxOneWayWaiting / 2) queue.lock.broadcast();
            return true;
        }
        queue.running = false;
        queue.lock.broadcast();
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

void OneWayQueues::PutBack(Queue& queue, Batch& batch) {
    PMutexHold hold(queue.lock);
    queue.waiting.insert(queue.waiting.begin(), std::make_move_iterator(batch.calls.begin()),
                         std::make_move_iterator(batch.calls.end()));
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
