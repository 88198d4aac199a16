// The listening port of an endpoint.
#pragma once

#include "foundation/Locks.h"
#include "rpc/transport/Sockets.h"
#include "rpc/transport/WorkerPool.h"

#include <netinet/in.h>

#include <functional>

namespace kel::transport {

// Accepts connections and gives each to `accepted` on the pool's housekeeper. When the system has no descriptor or
// memory for one more, accepting pauses, says so once, and goes on by itself. Close may come from any thread. The pool
// must have stopped before the object goes.
class Listener {
public:
    // The socket, and the address that it is connected to.
    using Accepted = std::function<void(Descriptor socket, const sockaddr_in& peer)>;
    // `pausing` is called each time that accepting fails for that reason.
    using Pausing = std::function<void(const boost::system::error_code& shortage)>;
    // Is asked before each connection is accepted: `no` has accepting pause, `soon` has it wait for what other handlers
    // do.
    enum class Room { yes, soon, no };
    using HasRoom = std::function<Room()>;
    Listener(WorkerPool& pool, Accepted accepted, HasRoom hasRoom, Pausing pausing);

    // Binds and listens; port 0 takes a free one. Nothing is accepted before Start.
    boost::system::error_code Open(const Address& at);
    void Start();
    void Close();

    // In host order; 0 while closed.
    uint16_t port() const { return port_; }

private:
    void Wait();
    void WaitForRoom();
    void OnReady();
    boost::system::error_code AcceptWaiting();
    Descriptor AcceptOne(sockaddr_in& peer, boost::system::error_code& error);
    void Pause(const boost::system::error_code& error);

    WorkerPool& pool_;
    Accepted accepted_;
    HasRoom hasRoom_;
    Pausing pausing_;
    std::atomic<uint16_t> port_{0};
    WorkerPool::Chore wait_{[this] { Wait(); }};
    WorkerPool::Chore waitForRoom_{[this] { WaitForRoom(); }};
    bool paused_ = false;  // touched only by the handlers of the two waits, of which one is under way at a time

    PMutex lock_;
    Acceptor acceptor_ KEL_GUARDED_BY(lock_);
    Timer retry_ KEL_GUARDED_BY(lock_);
};

}  // namespace kel::transport
