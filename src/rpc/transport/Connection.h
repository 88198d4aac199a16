// One TCP connection between two endpoints, in either role. Connection.cc opens with how its threads take turns.
#pragma once

#include "rpc/transport/CallTable.h"
#include "rpc/transport/InputBuffer.h"
#include "rpc/transport/MemoryBudget.h"
#include "rpc/transport/NotificationQueue.h"
#include "rpc/transport/Outbox.h"
#include "rpc/transport/Sockets.h"
#include "rpc/transport/WorkerPool.h"
#include "rpc/wire/Framer.h"
#include "rpc/wire/Message.h"

#include <netinet/in.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <exception>
#include <functional>
#include <memory>
#include <new>
#include <string>
#include <string_view>

namespace kel::transport {

constexpr int maxOutstandingCalls = 1024;                       // requests of a connection; beyond them reading pauses
constexpr size_t maxNotificationBytes = wire::maxMessageBytes;  // of notifications that wait; likewise
constexpr std::chrono::seconds longWait{1};                     // of a calling thread, inside one call of the system

// What a connection needs of its endpoint; the members are called with no lock held.
class ConnectionOwner {
public:
    virtual ~ConnectionOwner() = default;
    virtual WorkerPool& pool() = 0;
    virtual MemoryBudget& memory() = 0;
    // Buffers have grown beyond the limit.
    virtual void OnBuffersOver() = 0;
    // A connection waits for the rest of a message.
    virtual void OnUnfinished() = 0;
    // On a worker thread: a request or a notification has arrived; returns when it has been run and, if it is a
    // request, answered.
    virtual void OnCall(Connection& connection, wire::Message& call) = 0;
    virtual void OnClosed(const ConnectionPtr& connection) = 0;
};

// Held by shared pointers: by its owner, by the queue of work while it is watched or due, and by each call that runs;
// the descriptor stays open until the last of them lets go, so that a running method never sees another connection
// under its number. All members may be called from any thread.
class Connection : public std::enable_shared_from_this<Connection>,
                   public Work,
                   private WorkerPool::Relay,
                   private Outbox::Owner {
public:
    enum class Opener { peer, us };
    // `peer` names the other side in log lines: "address:port".
    Connection(Descriptor socket, ConnectionOwner& owner, std::string peer, Opener opener);
    ~Connection() override;

    // Begins to read. Once, after construction.
    void Start();

    using Sent = Outbox::Sent;
    using WhenFull = Outbox::WhenFull;
    // Hands the bytes of one message to the system, or queues what it does not take. Without memory to queue them the
    // connection ends.
    Sent Send(std::string_view bytes, WhenFull whenFull);

    // Calls `drained` once nothing is queued any more, or `closed` when the connection ends before that. False, and
    // neither is called, when it has ended already. The two throw nothing.
    bool WhenDrained(std::function<void()> drained, std::function<void()> closed);

    enum class Begun { begun, tooLarge, closed };
    // Sends a request; `handler` is called exactly once, by a thread that reads the connection or closes it, unless the
    // result is not `begun` or the call is abandoned. `id` receives what Abandon takes.
    Begun Call(std::string_view method, std::string_view caller, const tagVARIANT& in, AnswerHandler handler,
               uint32_t* id);
    // Forgets a call: its answer is ignored.
    void Abandon(uint32_t id);
    // One of the two has to follow a Call. Workers read the answer:
    void ReadByWorkers();
    // Or the calling thread does, until `isThere` says that it came, or until `deadline`. It returns earlier when
    // others wait for answers as well; then workers do.
    void ReadAnswer(const std::function<bool()>& isThere, Deadline deadline);

    // A call that is answered after it has been run counts as outstanding from one to the other.
    void BeginLateCall() { ++outstanding_; }
    void EndLateCall();

    // Whether something is queued that the peer may still read.
    bool HasBacklog() { return outbox_.HasBacklog(); }

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

    int descriptor() const { return socket_.get(); }
    const std::string& peer() const { return peer_; }
    // The other side's address, in network order.
    in_addr peerAddress() const { return peerAddress_; }
    // The same in dotted form.
    const std::string& peerAddressText() const { return peerAddressText_; }
    bool openedByPeer() const { return opener_ == Opener::peer; }
    bool closed() const { return closed_; }
    // Whether it was closed because the peer sent what is no message.
    bool spokeOtherwise() const { return spokeOtherwise_; }
    // Whether CloseIfIdle has closed it.
    bool gaveRoom() const { return gaveRoom_; }

private:
    // Reasons to run, besides those of the socket.
    static constexpr unsigned readOn = firstOwn;  // whoever runs it has the reading turn
    static constexpr unsigned runNotifications = firstOwn << 1;
    static constexpr unsigned sendHeld = firstOwn << 2;

    enum class Frame { incomplete, complete, malformed };
    enum class Received { bytes, nothing, theEnd };
    struct Batch;

    // Work, Relay and Outbox::Owner.
    void Run(unsigned reasons) override;
    void TakeOver() override;
    void WatchWritable() override;
    void CountBuffers(ptrdiff_t change) override;
    void OnUnread(Unread what) override;
    std::weak_ptr<Outbox> Reference() override { return std::shared_ptr<Outbox>(shared_from_this(), &outbox_); }

    // Runs `work`; an exception ends the connection.
    template <typename Code>
    void OrFail(Code&& code);
    // Ends the connection because of `problem`, which goes to the log.
    void Fail(const char* problem);
    void CloseForNoMessage();
    template <typename Say>
    void End(Say&& say);
    void Due(unsigned reason) { owner_.pool().queue().Add(shared_from_this(), reason); }
    void Watch();

    bool TakeTurn();
    bool PutTurnDown();
    void PassTurn();  // to whichever worker is free
    void DropInput();
    void ResetOnClose();
    bool HasUnread();
    Received Receive();
    Received WaitAndReceive(Deadline deadline);
    Received SleepAndReceive(Deadline deadline);
    Received Account(ssize_t result);
    void ReadOn();
    bool RunMessages(Batch& batch);
    bool RunNext(Batch& batch);
    bool RunRequest(Batch& batch);
    bool RunAsLast(Batch& batch, wire::Message& request);
    bool RunNotification(Batch& batch);
    bool QueueNotification(Batch& batch);
    bool RunWhileOffered(wire::Message& call);
    void EndBatch(Batch& batch);
    void EndNotifications(Batch& batch);
    void EndHold();
    bool ReadAnswers(const std::function<bool()>& isThere, Deadline deadline);
    bool CompleteCalls();

    Frame LookForMessage();
    bool IsOf(wire::MessageKind kind) const { return framer_.Is(kind, input_.data()); }
    bool TakeMessage(wire::Message& message);
    void SkipMessage();
    bool IsFull() const;
    bool PauseIfFull(Batch& batch);
    void Resume();
    bool Afford(const wire::Framer& message, MemoryBudget::Turn turn, MemoryBudget::Share& share);
    bool AffordFirst(Batch& batch, MemoryBudget::Share& share);
    void RunQueuedNotifications();
    void CompleteCall(wire::Message& answer);

    ConnectionOwner& owner_;
    const std::string peer_;
    const Opener opener_;
    const Descriptor socket_;
    in_addr peerAddress_{};
    std::string peerAddressText_;
    std::atomic<bool> closed_{false};
    std::atomic<bool> used_{false};  // something was sent
    std::atomic<bool> gaveRoom_{false};
    std::atomic<bool> spokeOtherwise_{false};
    std::atomic<bool> peerEnded_{false};  // the system has said so; there may be bytes before the end
    std::atomic<bool> watchesWriting_{false};
    std::atomic<bool> workersRead_;
    std::atomic<ptrdiff_t> bufferBytes_{0};
    std::atomic<uint64_t> lastUse_{0};
    std::atomic<int> unfinished_{0};  // one more than it was looked at while the peer owes the same bytes; 0: none

    PMutex watchLock_;  // taken with the outbox's held

    enum Turn : int { isFree, isTaken, isTakenAndMoreCame };
    std::atomic<int> turn_{isFree};
    // The reading turn's: touched only by the thread that has it.
    InputBuffer input_;
    wire::Framer framer_;
    bool isDrained_ = false;         // the system had no more
    bool holds_ = false;             // answers, in the outbox
    bool offersCall_ = false;        // with the turn, while a request runs
    int waitsAsleep_ = 0;            // how many answers to come are slept for at once
    MemoryBudget::Share readShare_;  // for the message at the front

    std::atomic<int> owed_{0};         // answers that nobody waits for any more, and that may come
    std::atomic<int> outstanding_{0};  // requests that run without the turn, or are answered late
    std::atomic<bool> paused_{false};

    NotificationQueue notifications_;
    MemoryBudget::Share notificationShare_;  // for the next of them; touched only by who runs them

    Outbox outbox_;
    CallTable calls_;
};

template <typename Code>
void Connection::OrFail(Code&& code) {
    try {
        code();
    } catch (const std::bad_alloc&) {
        Fail("no memory");
    } catch (const std::exception& error) {
        Fail(error.what());
    } catch (...) {
        Fail("an exception of an unknown type");
    }
}

}  // namespace kel::transport
