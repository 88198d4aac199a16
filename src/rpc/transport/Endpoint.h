// One endpoint of the library on the network: its threads, its listening port, its connections in both directions.
#pragma once

#include "foundation/Locks.h"
#include "rpc/transport/Connection.h"
#include "rpc/transport/Listener.h"
#include "rpc/transport/MemoryBudget.h"
#include "rpc/transport/Outbound.h"
#include "rpc/transport/WorkerPool.h"

#include <chrono>
#include <functional>
#include <unordered_set>
#include <vector>

namespace kel::transport {

// Start, Listen, Quiesce and Close belong to the owner's thread; the rest may be called from any.
class Endpoint : private ConnectionOwner {
public:
    // Is called on a worker thread, several times at once: runs `call` and, when it is a request, sends the answer on
    // `connection`.
    using Receiver = std::function<void(Connection& connection, wire::Message& call)>;
    explicit Endpoint(Receiver receiver);
    ~Endpoint() override;

    // Starts the threads; std::runtime_error when the system has none.
    void Start();
    // Opens the listening port, on loopback as well: there the others of this machine look for it. Calls wait at the
    // system's door until Accept.
    boost::system::error_code Listen(const Address& at);
    void Accept();
    uint16_t port() const { return listener_.port(); }

    Outbound& outbound() { return outbound_; }
    bool OnWorker() const { return pool_.OnWorker(); }

    // Runs `task` on a worker thread, as a method is run; not when the endpoint is quiescing by then.
    void Post(std::function<void()> task);
    // Runs `task` likewise `period` after this call and after each of its ends. Once.
    void Repeat(std::chrono::milliseconds period, std::function<void()> task);

    // Stops accepting connections and running calls, and waits until those that run have ended and, for a few seconds,
    // until their answers were read. Their own calls to others still work. Requests that come meanwhile are refused.
    void Quiesce();
    // Ends all connections and threads. Final.
    void Close();

private:
    void OnCall(Connection& connection, wire::Message& call) override;
    void OnClosed(const ConnectionPtr& connection) override;
    WorkerPool& pool() override { return pool_; }
    MemoryBudget& memory() override { return memory_; }
    void OnBuffersOver() override;
    void OnUnfinished() override;
    ConnectionPtr WriteOffLargest();
    void ArmLook();
    void LookAtUnfinished();
    ConnectionPtr Adopt(Descriptor socket, const std::string& peer, Connection::Opener opener);
    Listener::Room HasRoom();
    bool MakeRoom(Connection::Opener forOneOf, const boost::system::error_code& shortage);
    bool CloseIdleInbound();
    std::vector<ConnectionPtr> LongestIdle() KEL_REQUIRES(lock_);
    bool IsCrowded();
    void OnAccepted(Descriptor socket, const sockaddr_in& peer);
    bool HasBacklog();
    template <typename Code>
    bool RunCounted(Code&& code);
    void ArmTimer();
    void RunRepeated();

    const Receiver receiver_;
    MemoryBudget memory_{[this] { pool_.TidySoon(); }};
    WorkerPool pool_;
    Listener listener_;
    Listener loopback_;  // where the other one is bound to another address
    Outbound outbound_;

    std::atomic<int> running_{0};
    std::atomic<bool> quiescing_{false};
    PCondMutex idle_;  // signalled when the last running call ends while quiescing

    std::function<void()> task_;  // set once, before the timer runs
    WorkPtr repeated_;            // runs it
    std::chrono::milliseconds period_{0};
    WorkerPool::Chore armTimer_{[this] { ArmTimer(); }};
    PMutex timerLock_;
    Timer timer_ KEL_GUARDED_BY(timerLock_);

    std::atomic<bool> looking_{false};  // at unfinished messages, from time to time
    WorkerPool::Chore armLook_{[this] { ArmLook(); }};
    Timer lookTimer_ KEL_GUARDED_BY(timerLock_);

    PMutex lock_;
    std::unordered_set<ConnectionPtr> connections_ KEL_GUARDED_BY(lock_);
    size_t inbound_ KEL_GUARDED_BY(lock_) = 0;  // of them
    bool closed_ KEL_GUARDED_BY(lock_) = false;
    Deadline nextCutWarning_ KEL_GUARDED_BY(lock_){};
    Deadline nextRoomWarning_ KEL_GUARDED_BY(lock_){};

    std::atomic<bool> scarce_{false};    // a connection has touched the reserve of descriptors, now or once
    std::atomic<bool> madeRoom_{false};  // for it, by closing others, whose descriptors may still be open
};

}  // namespace kel::transport
