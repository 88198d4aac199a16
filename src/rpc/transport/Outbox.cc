#include "rpc/transport/Outbox.h"

#include "rpc/transport/Quietly.h"
#include "rpc/wire/Message.h"

#include <sched.h>
#include <sys/socket.h>

#include <cerrno>
#include <utility>

namespace kel::transport {

namespace {
constexpr size_t maxBacklogBytes = wire::maxMessageBytes;  // answers that the peer does not read
constexpr size_t maxHeldBytes = 64 * 1024;
constexpr size_t usualBacklog = 512;
}  // namespace

Outbox::Sent Outbox::Send(std::string_view bytes, WhenFull whenFull) {
    std::vector<Drain> drained;
    ptrdiff_t growth = 0;
    bool isFull = false, isSent = false;
    {
        PMutexHold hold(lock_);
        if (closed_) return Sent::closed;
        const bool mayWrite = holds_ == 0 && !blocked_;
        const bool isFirst = backlog_.empty();
        if (mayWrite && isFirst && WriteSome(bytes) && bytes.empty()) return Sent::sent;
        isFull = whenFull == WhenFull::disconnect && Waiting() > maxBacklogBytes;
        if (!isFull) {
            if (isFirst) backlog_.reserve(usualBacklog);
            backlog_.append(bytes);
            hasAnswers_ |= whenFull == WhenFull::disconnect;
            if (blocked_) {
                growth = hasAnswers_ ? Count(backlog_.capacity()) : 0;
            } else if (mayWrite && isFirst) {
                growth = Block();
            } else if (mayWrite || backlog_.size() > maxHeldBytes) {
                growth = Flush(drained);
            }
            isSent = backlog_.empty();
        }
    }
    if (isFull) {
        owner_.OnUnread(Owner::Unread::tooMuch);
        return Sent::closed;
    }
    Tell(growth, drained);
    return isSent ? Sent::sent : Sent::queued;
}

// The first of several threads sends for all: it lets the others run before it does.
Outbox::Sent Outbox::SendWithOthers(std::string_view bytes) {
    {
        PMutexHold hold(lock_);
        if (closed_) return Sent::closed;
        backlog_.append(bytes);
        if (gathers_) return Sent::sent;
        gathers_ = true;
        ++holds_;
    }
    ::sched_yield();
    {
        PMutexHold hold(lock_);
        gathers_ = false;
    }
    Release();
    return Sent::sent;
}

void Outbox::Hold() {
    PMutexHold hold(lock_);
    ++holds_;
}

void Outbox::Release() {
    std::vector<Drain> drained;
    ptrdiff_t growth = 0;
    {
        PMutexHold hold(lock_);
        --holds_;
        if (closed_ || holds_ > 0 || blocked_ || backlog_.empty()) return;
        growth = Flush(drained);
    }
    Tell(growth, drained);
}

void Outbox::Tell(ptrdiff_t growth, const std::vector<Drain>& drained) {
    if (growth != 0) owner_.CountBuffers(growth);
    for (const Drain& drain : drained) drain.drained();
}

// Writes what the system takes of the backlog; the rest waits until it takes more.
ptrdiff_t Outbox::Flush(std::vector<Drain>& drained) {
    WriteBacklog();
    return Waiting() == 0 ? Empty(drained) : Block();
}

ptrdiff_t Outbox::Block() {
    blocked_ = true;
    owner_.WatchWritable();
    ArmStallTimer();
    return hasAnswers_ ? Count(backlog_.capacity()) : 0;
}

// Has the backlog counted with so many bytes and returns how many more that is. Bytes of calls count only where answers
// are among them.
ptrdiff_t Outbox::Count(size_t bytes) {
    return static_cast<ptrdiff_t>(bytes) - static_cast<ptrdiff_t>(std::exchange(counted_, bytes));
}

ptrdiff_t Outbox::Empty(std::vector<Drain>& drained) {
    backlog_.clear();  // a small one is kept: the next answers that are held go there
    if (backlog_.capacity() > usualBacklog) backlog_ = std::string();
    sent_ = 0;
    hasAnswers_ = false;
    if (std::exchange(blocked_, false)) stallTimer_.cancel();
    drained.swap(drains_);
    return Count(0);
}

// Writes what the system takes and cuts it off the front of `bytes`. An error is left to the next read to find.
bool Outbox::WriteSome(std::string_view& bytes) {
    ssize_t written;
    do written = ::send(socket_, bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    while (written < 0 && errno == EINTR);
    if (written < 0) return errno == EAGAIN || errno == EWOULDBLOCK;
    bytes.remove_prefix(static_cast<size_t>(written));
    return true;
}

// Returns how many bytes the system took; -1 for an error.
ssize_t Outbox::WriteBacklog() {
    std::string_view rest(backlog_.data() + sent_, Waiting());
    const size_t before = rest.size();
    if (!WriteSome(rest)) return -1;
    sent_ += before - rest.size();
    return static_cast<ssize_t>(before - rest.size());
}

void Outbox::OnWritable() {
    std::vector<Drain> drained;
    ptrdiff_t growth = 0;
    {
        PMutexHold hold(lock_);
        if (closed_ || !blocked_) return;
        const ssize_t written = WriteBacklog();
        if (written < 0) return;
        if (Waiting() > 0) {
            if (sent_ > Waiting()) backlog_.erase(0, std::exchange(sent_, 0));  // else it would grow with a slow peer
            if (written > 0) ArmStallTimer();
            return;
        }
        growth = Empty(drained);
    }
    Tell(growth, drained);
}

void Outbox::ArmStallTimer() {
    stallTimer_.expires_after(maxStall);
    stallTimer_.async_wait([reference = owner_.Reference()](const boost::system::error_code& cancelled) {
        const std::shared_ptr<Outbox> self = reference.lock();
        if (cancelled || !self) return;
        if (!Quietly([&] { self->OnStalled(); })) self->owner_.OnUnread(Owner::Unread::tooLong);
    });
}

// Nothing was written for maxStall. That is the peer's doing unless this process stood still, in which case the peer
// may have made room that nobody has looked at.
void Outbox::OnStalled() {
    std::vector<Drain> drained;
    ptrdiff_t growth = 0;
    bool isStuck = false;
    {
        PMutexHold hold(lock_);
        const bool outdated = stallTimer_.expiry() > std::chrono::steady_clock::now();  // armed anew in between
        if (closed_ || !blocked_ || outdated) return;
        isStuck = WriteBacklog() <= 0;
        if (!isStuck && Waiting() > 0) return ArmStallTimer();
        if (!isStuck) growth = Empty(drained);
    }
    if (isStuck) return owner_.OnUnread(Owner::Unread::tooLong);
    Tell(growth, drained);
}

Outbox::State Outbox::WhenDrained(Drain& drain) {
    PMutexHold hold(lock_);
    if (closed_) return State::closed;
    if (backlog_.empty()) return State::empty;
    drains_.push_back(std::move(drain));
    return State::queued;
}

std::vector<Outbox::Drain> Outbox::Close() {
    std::vector<Drain> undrained;
    ptrdiff_t growth = 0;
    {
        PMutexHold hold(lock_);
        if (!closed_ && !blocked_ && Waiting() > 0) WriteBacklog();
        closed_ = true;
        growth = Empty(undrained);
    }
    if (growth != 0) owner_.CountBuffers(growth);
    return undrained;
}

bool Outbox::HasBacklog() {
    PMutexHold hold(lock_);
    return !closed_ && !backlog_.empty();
}

}  // namespace kel::transport
