// One TCP connection between two endpoints, in either role. Connection.cc opens with how its threads take turns.
#pragma once

#include "foundation/Locks.h"
#include "rpc/transport/MemoryBudget.h"
#include "rpc/transport/Sockets.h"
#include "rpc/wire/Framer.h"
#include "rpc/wire/Message.h"

#include <netinet/in.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace kel::transport {

constexpr int maxOutstandingCalls = 1024;                       // requests of a connection; beyond them reading pauses
constexpr size_t maxNotificationBytes = wire::maxMessageBytes;  // of notifications that wait; likewise
constexpr size_t maxBacklogBytes = wire::maxMessageBytes;       // answers that the peer does not read
constexpr std::chrono::seconds maxStall{30};                    // without progress while either side waits for the rest

// How a call that this side made ended.
enum class CallEnd {
    answered,  // the method ran: code and value
    failed,    // an error answer: code and errorText
    lost,      // the connection closed before the answer came; the message is empty
};
using AnswerHandler = std::function<void(CallEnd, wire::Message&)>;  // throws nothing when the call is lost

// What a connection needs of its endpoint; the members are called on worker threads, with no lock held.
class ConnectionOwner {
public:
    virtual ~ConnectionOwner() = default;
    virtual MemoryBudget& memory() = 0;
    // Buffers have grown beyond the limit.
    virtual void OnBuffersOver() = 0;
    // A connection waits for the rest of a message.
    virtual void OnUnfinished() = 0;
    // A request or a notification has arrived; returns when it has been run and, if it is a request, answered.
    virtual void OnCall(const ConnectionPtr& connection, wire::Message& call) = 0;
    virtual void OnClosed(const ConnectionPtr& connection) = 0;
};

// Held by shared pointers: by its owner, by the operations under way, and by each call that runs; the descriptor stays
// open until the last of them lets go, so that a running method never sees another connection under its number. All
// members may be called from any thread.
class Connection : public std::enable_shared_from_this<Connection> {
public:
    enum class Opener { peer, us };
    // `peer` names the other side in log lines: "address:port".
    Connection(Socket socket, ConnectionOwner& owner, std::string peer, Opener opener);
    ~Connection();

    // Begins to read. Once, after construction.
    void Start();

    enum class Sent { sent, queued, closed };
    enum class Bytes { answer, call };
    // Hands the bytes of one message to the system, or queues what it does not take. A peer that lets too many answers
    // wait is disconnected; calls of this side do not count, since whoever makes them waits or queues himself. Without
    // memory to queue them the connection ends.
    Sent Send(std::string_view bytes, Bytes what);

    // Calls `drained` on a worker thread once nothing is queued any more, or `closed` when the connection ends before
    // that. False, and neither is called, when it has ended already. The two throw nothing.
    bool WhenDrained(std::function<void()> drained, std::function<void()> closed);

    enum class Begun { begun, tooLarge, closed };
    // Sends a request; `handler` is called exactly once, on a worker thread, unless the result is not `begun` or the
    // call is abandoned. `id`, when not null, receives what Abandon takes.
    Begun Call(std::string_view method, std::string_view caller, const tagVARIANT& in, AnswerHandler handler,
               uint32_t* id);
    // Forgets a call: its answer is ignored.
    void Abandon(uint32_t id);

    // A call that is answered after it has been run counts as outstanding from one to the other.
    void BeginLateCall() { ++outstanding_; }
    void EndLateCall();

    // Whether something is queued that the peer may still read.
    bool HasBacklog();

    // Ends the connection, for which no memory is needed; calls under way are lost. `reason` goes to the log at debug
    // level.
    void Close(const char* reason);

    // Whether nothing is under way in either direction but, at the most, a message that is not complete. One that was
    // opened here is not idle before it has been used.
    bool IsIdle();
    // Closes it if it is idle; a call that comes later finds it closed. Returns whether.
    bool CloseIfIdle();
    // Larger the later it was that its peer sent something.
    uint64_t lastUse() const { return lastUse_.load(std::memory_order_relaxed); }

    // What its buffers hold; 0 once it has been written off.
    ptrdiff_t bufferBytes() const { return std::max<ptrdiff_t>(bufferBytes_, 0); }
    // Takes its buffers off the budget before they are freed; Cut must follow.
    void WriteOff();
    // Ends the connection and forgets the notifications that wait.
    void Cut(const char* reason);

    // To be called regularly: how often the peer has been found to owe the same bytes of a message, this time included;
    // 0 when it owes none.
    int LookAtUnfinished();

    // There is memory for what `turn` stopped at.
    void GoOn(MemoryBudget::Turn turn, MemoryBudget::Share share);

    int descriptor() const { return descriptor_; }
    const std::string& peer() const { return peer_; }
    // The other side's address, in network order.
    in_addr peerAddress() const { return peerAddress_; }
    bool openedByPeer() const { return opener_ == Opener::peer; }
    bool closed() const { return closed_; }
    // Whether it was closed because the peer sent what is no message.
    bool spokeOtherwise() const { return spokeOtherwise_; }
    // Whether CloseIfIdle has closed it.
    bool gaveRoom() const { return gaveRoom_; }

private:
    struct ReadHandler;
    enum class Frame { incomplete, complete, malformed };
    bool HasUnread();

    // Runs `work`; an exception ends the connection.
    template <typename Work>
    void OrFail(Work&& work);
    // Ends the connection because of `problem`, which goes to the log.
    void Fail(const char* problem);
    void CloseForNoMessage();
    template <typename Say>
    void End(Say&& say);

    void StartRead();
    void OnRead(const boost::system::error_code& error, size_t size);
    void MakeRoom();
    void SetCapacity(size_t capacity);
    void DropInput();
    void ProcessInput();
    void RunRequest(wire::Message& request);
    Frame LookForMessage();
    bool TakeMessage(wire::Message& message);
    void SkipMessage();
    void PassReadingTurn();
    bool IsFull() const;
    bool PauseIfFull();
    void Resume();
    void CountBuffers(ptrdiff_t change);
    bool Afford(const wire::Framer& message, MemoryBudget::Turn turn, MemoryBudget::Share& share);

    bool QueueNotification(std::string_view bytes);
    void RunNotifications();
    bool LookForNotification(wire::Framer& framer);
    bool TakeNotification(size_t length, wire::Message& message);
    ptrdiff_t ClearNotifications() KEL_REQUIRES(notificationLock_);
    void CompleteCall(wire::Message& answer);
    void LoseCalls();

    Sent WriteOrQueue(std::string_view bytes, Bytes what);
    ptrdiff_t CountBacklog(size_t bytes) KEL_REQUIRES(lock_);
    void StartWriteWait() KEL_REQUIRES(lock_);
    void OnWritable(const boost::system::error_code& error);
    void ArmStallTimer() KEL_REQUIRES(lock_);
    void OnStalled();
    ssize_t WriteBacklog() KEL_REQUIRES(lock_);
    bool WriteSome(std::string_view& bytes) KEL_REQUIRES(lock_);

    ConnectionOwner& owner_;
    const std::string peer_;
    const Opener opener_;
    int descriptor_;
    in_addr peerAddress_{};
    std::atomic<bool> closed_{false};
    std::atomic<bool> used_{false};  // something was sent
    std::atomic<bool> gaveRoom_{false};
    std::atomic<bool> spokeOtherwise_{false};
    std::atomic<ptrdiff_t> bufferBytes_{0};
    std::atomic<uint64_t> lastUse_{0};
    std::atomic<bool> awaitsMessage_{false};  // or the rest of one; whoever clears it decides what becomes of it
    std::atomic<int> unfinished_{0};  // one more than it was looked at while the peer owes the same bytes; 0: none

    // The reading turn's: touched only by the thread that holds it.
    std::unique_ptr<char[]> input_;
    size_t capacity_ = 0;
    size_t begin_ = 0;
    size_t end_ = 0;
    wire::Framer framer_;
    MemoryBudget::Share readShare_;  // for the message at the front

    std::atomic<int> outstanding_{0};
    std::atomic<bool> paused_{false};

    std::atomic<size_t> notificationBytes_{0};

    PMutex notificationLock_;
    std::string notifications_ KEL_GUARDED_BY(notificationLock_);  // as they came, one behind the other
    size_t notificationsBegin_ KEL_GUARDED_BY(notificationLock_) = 0;
    bool runningNotifications_ KEL_GUARDED_BY(notificationLock_) = false;
    MemoryBudget::Share notificationShare_;  // for the next of them; touched only by who runs them

    PMutex lock_;
    Socket socket_ KEL_GUARDED_BY(lock_);
    Timer stallTimer_ KEL_GUARDED_BY(lock_);
    std::string backlog_ KEL_GUARDED_BY(lock_);
    size_t backlogSent_ KEL_GUARDED_BY(lock_) = 0;
    size_t backlogCounted_ KEL_GUARDED_BY(lock_) = 0;  // of the budget
    struct Drain {
        std::function<void()> drained;
        std::function<void()> closed;
    };
    std::vector<Drain> drains_ KEL_GUARDED_BY(lock_);

    PMutex callsLock_;
    std::unordered_map<uint32_t, AnswerHandler> calls_ KEL_GUARDED_BY(callsLock_);
    uint32_t nextCall_ KEL_GUARDED_BY(callsLock_) = 0;
    bool callsClosed_ KEL_GUARDED_BY(callsLock_) = false;
};

}  // namespace kel::transport
