// Calls to other endpoints, over one connection for each that is kept and reused.
#pragma once

#include "foundation/Locks.h"
#include "rpc/transport/Connection.h"
#include "rpc/transport/WorkerPool.h"

#include <functional>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

namespace kel::transport {

constexpr std::chrono::seconds connectTimeout{10};
constexpr std::chrono::seconds shortageTimeout{5};  // for a descriptor to be had

// How a call ended, and what came back.
struct Outcome {
    enum class End {
        answered,     // message.code and message.value
        failed,       // an error answer: message.code and message.errorText
        unreachable,  // no connection: nothing was sent
        lost,         // the connection closed after the call was sent and before its answer came
        noAnswer,     // the deadline passed
        tooLarge,     // the parameters have no wire form within the limits
    };
    End end = End::unreachable;
    wire::Message message;
    std::string problem;              // for people: what went wrong, empty when answered
    std::weak_ptr<Connection> over;   // the connection that was used last
    bool reused = false;              // it was there before the call; unknown of calls that are not waited for
    bool shortage = false;            // unreachable because this process has no descriptor or memory for a connection
    boost::system::error_code error;  // unreachable: why no connection could be made
};

// Any thread. Handlers throw nothing; they run on worker threads with no lock held, or in the calling thread when
// nothing has to be waited for. A member that throws, as without memory, does not call the handler that it was given.
// The pool must have stopped before the object goes.
class Outbound {
public:
    using ConnectHandler = std::function<void(const ConnectionPtr& connection, const boost::system::error_code& error)>;
    using CallHandler = std::function<void(Outcome& outcome)>;
    // Makes a connection of a connected socket and starts it.
    using Adopt = std::function<ConnectionPtr(Descriptor socket, const std::string& peer)>;
    // Is called when a descriptor could not be had.
    using Shortage = std::function<void(const boost::system::error_code& shortage)>;

    Outbound(WorkerPool& pool, Adopt adopt, Shortage shortage);

    // The connection to `to`, connecting first when there is none; null with an error when that fails.
    void WithConnection(const Address& to, ConnectHandler handler);

    // Calls and waits for the answer until `deadline`, connecting included.
    Outcome Call(const Address& to, std::string_view method, std::string_view caller, const tagVARIANT& in,
                 Deadline deadline);

    // Calls without waiting; the handler is called exactly once, at the latest after `timeout`.
    void CallAsync(const Address& to, std::string method, std::string caller, ScopedVariant in,
                   std::chrono::milliseconds timeout, CallHandler handler);

    // Has `code` run on a worker thread; never when the pool stops before.
    void Post(std::function<void()> code) { pool_.Post(std::move(code)); }

    // A connection has closed: the next call makes a new one.
    void Forget(const ConnectionPtr& connection);

    // Closes a connection that nobody uses, looking at a few more each time; whether it found one.
    bool CloseIdle();

    // Refuses further connections, gives up those being made and ends those that there are.
    void Close();

private:
    struct Slot {
        ConnectionPtr connection;
        std::vector<ConnectHandler> waiting;
    };
    struct HashAddress {
        size_t operator()(const Address& address) const {
            return std::hash<std::string>()(address.host) * 31 + std::hash<uint16_t>()(address.port);
        }
    };
    class Attempt;
    class AsyncCall;

    void Connected(const Address& to, boost::system::error_code error, Descriptor socket);
    ConnectionPtr Connect(const Address& to, Deadline deadline, Outcome& outcome);
    void Begin(const std::shared_ptr<AsyncCall>& call, int attempts);
    void CallOn(const ConnectionPtr& connection, const boost::system::error_code& error,
                const std::shared_ptr<AsyncCall>& call, int attempts);

    WorkerPool& pool_;
    const Adopt adopt_;
    const Shortage shortage_;

    PMutex lock_;
    std::unordered_map<Address, Slot, HashAddress> slots_ KEL_GUARDED_BY(lock_);
    std::unordered_map<const Connection*, Address> addresses_ KEL_GUARDED_BY(lock_);
    bool closed_ KEL_GUARDED_BY(lock_) = false;
    size_t nextBucket_ KEL_GUARDED_BY(lock_) = 0;  // of the slots, to look at when room is needed
};

}  // namespace kel::transport
