// What a connection sends.
#pragma once

#include "foundation/Locks.h"
#include "rpc/transport/Sockets.h"

#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace kel::transport {

constexpr std::chrono::seconds maxStall{30};  // without progress while either side waits for the rest

// Bytes are written straight to the socket by the thread that has them. What the system does not take becomes the
// backlog, and everything else queues behind it until the socket is writable again. Messages that several threads have
// at about the same time, or that one has one after the other, leave in one write (Hold, SendWithOthers). Any thread.
class Outbox {
public:
    // What it needs of its connection.
    class Owner {
    public:
        virtual ~Owner() = default;
        // From now on OnWritable is to be called when the socket becomes writable, or is so. May be called with the
        // outbox's lock held.
        virtual void WatchWritable() = 0;
        // The backlog takes `change` bytes more, or fewer.
        virtual void CountBuffers(ptrdiff_t change) = 0;
        // The peer does not read: the connection is to end.
        enum class Unread { tooMuch, tooLong };
        virtual void OnUnread(Unread what) = 0;
        virtual std::weak_ptr<Outbox> Reference() = 0;
    };
    Outbox(int socket, const Executor& timers, Owner& owner) : socket_(socket), owner_(owner), stallTimer_(timers) {}

    enum class Sent { sent, queued, closed };
    // What becomes of bytes that go beyond the largest backlog. A peer has to read the answers that it asked for; who
    // makes calls waits or queues himself.
    enum class WhenFull { disconnect, queue };
    // Hands the bytes of one message to the system, or queues what it does not take. std::bad_alloc.
    Sent Send(std::string_view bytes, WhenFull whenFull);
    // The same, of a call, which waits for those that other threads are about to send.
    Sent SendWithOthers(std::string_view bytes);

    // What is sent from here on stays until Release, or until it is much.
    void Hold();
    // Ends a Hold.
    void Release();

    // One of the two is called once: when nothing is queued any more, or when the connection ends before that. They
    // throw nothing.
    struct Drain {
        std::function<void()> drained;
        std::function<void()> closed;
    };
    // Takes `drain` when something is queued.
    enum class State { queued, empty, closed };
    State WhenDrained(Drain& drain);

    bool HasBacklog();

    // The socket can be written.
    void OnWritable();
    // Sends what is held, unless the peer has yet to read; what else is queued goes. The result hears that the
    // connection is closed. Takes no memory.
    std::vector<Drain> Close();

private:
    size_t Waiting() const KEL_REQUIRES(lock_) { return backlog_.size() - sent_; }
    bool WriteSome(std::string_view& bytes) KEL_REQUIRES(lock_);
    ssize_t WriteBacklog() KEL_REQUIRES(lock_);
    ptrdiff_t Flush(std::vector<Drain>& drained) KEL_REQUIRES(lock_);
    ptrdiff_t Block() KEL_REQUIRES(lock_);
    ptrdiff_t Empty(std::vector<Drain>& drained) KEL_REQUIRES(lock_);
    ptrdiff_t Count(size_t bytes) KEL_REQUIRES(lock_);
    void Tell(ptrdiff_t growth, const std::vector<Drain>& drained);
    void ArmStallTimer() KEL_REQUIRES(lock_);
    void OnStalled();

    const int socket_;
    Owner& owner_;

    PMutex lock_;
    Timer stallTimer_ KEL_GUARDED_BY(lock_);
    std::string backlog_ KEL_GUARDED_BY(lock_);
    size_t sent_ KEL_GUARDED_BY(lock_) = 0;     // of it
    size_t counted_ KEL_GUARDED_BY(lock_) = 0;  // of the budget
    int holds_ KEL_GUARDED_BY(lock_) = 0;
    bool gathers_ KEL_GUARDED_BY(lock_) = false;     // a thread is about to send calls of others with its own
    bool blocked_ KEL_GUARDED_BY(lock_) = false;     // until the socket is writable
    bool hasAnswers_ KEL_GUARDED_BY(lock_) = false;  // the backlog
    bool closed_ KEL_GUARDED_BY(lock_) = false;
    std::vector<Drain> drains_ KEL_GUARDED_BY(lock_);
};

}  // namespace kel::transport
