// How threads take turns on a connection
//
// Reading. At any moment at most one thread, or one read operation under way, holds the reading turn: it alone touches
// the input buffer. The holder takes one message out of the buffer and, before it runs the method, passes the turn on:
// to a further task when another message is there already, else to the next read. So a method that blocks never holds
// up the calls behind it on the same connection, and a short one is run by the thread that read it.
//
// Requests run as they come, several at once. Notifications of one connection run one after the other, in the order in
// which they came, since a sender relies on it: the first thread to get one runs those that arrive meanwhile too.
//
// With maxOutstandingCalls taken and not answered, or with many bytes of notifications waiting, the turn is put aside
// (paused_) and whoever finishes a call picks it up.
//
// Writing. Bytes are written straight to the socket by the thread that has them. What the system does not take becomes
// the backlog, and everything else queues behind it until the socket is writable again.
//
// Closing shuts the socket down and cancels what is under way, but leaves the descriptor open: the destructor closes
// it.
//
// Without memory. A thread that an exception throws out of the library's part takes the reading turn with it, or leaves
// half a message sent, and nobody would ever pick that up. So an exception there ends the connection (OrFail), and
// closing takes no memory. The other side sees a connection that broke, which it has to live with anyway.
#include "rpc/transport/Connection.h"

#include "foundation/NetworkUtils.h"
#include "rpc/LibraryLog.h"
#include "rpc/transport/Quietly.h"
#include "rpc/wire/Codec.h"

#include <boost/asio/buffer.hpp>
#include <boost/asio/post.hpp>

#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <exception>
#include <new>

namespace kel::transport {

namespace asio = boost::asio;
using asio::ip::tcp;

namespace {

constexpr size_t smallInput = 4096;
constexpr size_t largeInput = 256 * 1024;  // a buffer that grew beyond this is given back once it is empty

// Counts a call for as long as it lives.
class Counted {
public:
    explicit Counted(std::atomic<int>& count) : count_(count) { count_.fetch_add(1); }
    ~Counted() { count_.fetch_sub(1); }
    Counted(const Counted&) = delete;
    Counted& operator=(const Counted&) = delete;

private:
    std::atomic<int>& count_;
};

}  // namespace

struct Connection::ReadHandler {
    ConnectionPtr connection;
    void operator()(const boost::system::error_code& error, size_t size) const { connection->OnRead(error, size); }
};

Connection::Connection(Socket socket, ConnectionOwner& owner, std::string peer)
    : owner_(owner),
      peer_(std::move(peer)),
      descriptor_(socket.native_handle()),
      socket_(std::move(socket)),
      stallTimer_(socket_.get_executor()) {
    CloseOnExec(descriptor_);
    boost::system::error_code ignored;
    const tcp::endpoint remote = socket_.remote_endpoint(ignored);
    if (!ignored) peerAddress_.s_addr = htonl(remote.address().to_v4().to_uint());
    socket_.set_option(tcp::no_delay(true), ignored);
    yar::networkutils::GiveUpOnDeadPeers(descriptor_, static_cast<unsigned>(maxStall.count()));
    socket_.non_blocking(true, ignored);
}

void Connection::Start() {
    OrFail([this] { StartRead(); });
}

template <typename Work>
void Connection::OrFail(Work&& work) {
    try {
        work();
    } catch (const std::bad_alloc&) {
        Fail("no memory");
    } catch (const std::exception& error) {
        Fail(error.what());
    } catch (...) {
        Fail("an exception of an unknown type");
    }
}

// --- Reading -------------------------------------------------------------------------------------------------------

void Connection::StartRead() {
    MakeRoom();
    const auto space = asio::buffer(input_.get() + end_, capacity_ - end_);
    PMutexHold hold(lock_);
    if (!closed_) socket_.async_read_some(space, ReadHandler{shared_from_this()});
}

// Leaves free space behind the bytes that wait for the rest of their message.
void Connection::MakeRoom() {
    const size_t waiting = end_ - begin_;
    if (waiting == 0) {
        begin_ = end_ = 0;
        if (capacity_ == 0 || capacity_ > largeInput) {
            input_.reset(new char[smallInput]);
            capacity_ = smallInput;
        }
        return;
    }
    if (end_ < capacity_) return;
    if (begin_ >= capacity_ / 2) {
        std::memmove(input_.get(), input_.get() + begin_, waiting);
    } else {
        std::unique_ptr<char[]> larger(new char[capacity_ * 2]);
        std::memcpy(larger.get(), input_.get() + begin_, waiting);
        input_ = std::move(larger);
        capacity_ *= 2;
    }
    begin_ = 0;
    end_ = waiting;
}

void Connection::OnRead(const boost::system::error_code& error, size_t size) {
    if (error) {
        OrFail([&] { Close(error == asio::error::eof ? "the peer hung up" : error.message().c_str()); });
        return;
    }
    end_ += size;
    OrFail([this] { ProcessInput(); });
}

Connection::Frame Connection::LookForMessage() {
    if (begin_ == end_) return Frame::incomplete;
    switch (framer_.Scan(input_.get() + begin_, end_ - begin_)) {
        case wire::Framer::Status::incomplete:
            return Frame::incomplete;
        case wire::Framer::Status::complete:
            return Frame::complete;
        case wire::Framer::Status::malformed:
            break;
    }
    return Frame::malformed;
}

// Decodes the complete message at the front of the buffer; false when it is none after all.
bool Connection::TakeMessage(wire::Message& message) {
    const bool good = wire::Decode(input_.get() + begin_, framer_.length(), message);
    begin_ += framer_.length();
    framer_.Reset();
    return good;
}

void Connection::ProcessInput() {
    for (;;) {
        const Frame frame = LookForMessage();
        if (frame == Frame::incomplete) return StartRead();
        wire::Message message;
        const size_t length = framer_.length();
        if (frame == Frame::malformed || !TakeMessage(message)) return Close("the peer sent what is not a message");

        if (message.kind == wire::MessageKind::response) {
            CompleteCall(message);
            continue;
        }
        if (message.kind == wire::MessageKind::request) return RunRequest(message);
        if (QueueNotification(message, length)) {
            if (!PauseIfFull()) PassReadingTurn();
            return RunNotifications();
        }
        if (PauseIfFull()) return;  // another thread runs it in its order
    }
}

void Connection::RunRequest(wire::Message& request) {
    {
        const Counted outstanding(outstanding_);
        if (!PauseIfFull()) PassReadingTurn();
        owner_.OnCall(shared_from_this(), request);
    }
    Resume();
}

void Connection::PassReadingTurn() {
    if (LookForMessage() == Frame::incomplete) return StartRead();
    PMutexHold hold(lock_);
    if (closed_) return;
    asio::post(socket_.get_executor(),
               [self = shared_from_this()] { self->OrFail([&self] { self->ProcessInput(); }); });
}

// Puts the reading turn aside when enough calls are under way; true when the caller no longer holds it.
bool Connection::PauseIfFull() {
    if (!IsFull()) return false;
    paused_ = true;
    // A call that finished in between has not seen the flag: take the turn back, unless somebody did.
    return IsFull() || !paused_.exchange(false);
}

// Notifications do not count as calls: a peer that sends many while one of them blocks is still asked and answered.
bool Connection::IsFull() const {
    return outstanding_ >= maxOutstandingCalls || notificationBytes_ > maxNotificationBytes;
}

// A call has been run.
void Connection::Resume() {
    if (paused_ && !IsFull() && paused_.exchange(false)) PassReadingTurn();
}

void Connection::EndLateCall() {
    --outstanding_;
    OrFail([this] { Resume(); });
}

// --- Notifications -------------------------------------------------------------------------------------------------

// True when the caller is to run what is queued.
bool Connection::QueueNotification(wire::Message& message, size_t size) {
    notificationBytes_ += size;
    PMutexHold hold(notificationLock_);
    notifications_.push_back({std::move(message), size});
    return !std::exchange(runningNotifications_, true);
}

void Connection::RunNotifications() {
    for (;;) {
        Notification next;
        {
            PMutexHold hold(notificationLock_);
            if (notifications_.empty()) {
                runningNotifications_ = false;
                return;
            }
            next = std::move(notifications_.front());
            notifications_.pop_front();
        }
        owner_.OnCall(shared_from_this(), next.message);
        notificationBytes_ -= next.size;
        Resume();
    }
}

// --- Writing -------------------------------------------------------------------------------------------------------

Connection::Sent Connection::Send(std::string_view bytes, Bytes what) {
    if (!used_.load(std::memory_order_relaxed)) used_ = true;
    Sent sent = Sent::closed;
    OrFail([&] { sent = WriteOrQueue(bytes, what); });
    return sent;
}

Connection::Sent Connection::WriteOrQueue(std::string_view bytes, Bytes what) {
    {
        PMutexHold hold(lock_);
        if (closed_) return Sent::closed;
        const bool first = backlog_.empty();
        if (first && WriteSome(bytes) && bytes.empty()) return Sent::sent;
        if (what == Bytes::call || backlog_.size() - backlogSent_ <= maxBacklogBytes) {
            backlog_.append(bytes);
            if (first) {
                StartWriteWait();
                ArmStallTimer();
            }
            return Sent::queued;
        }
    }
    CBBLog::warn(LibraryLogger(), "libkel: %s does not read its answers; disconnecting it", peer_.c_str());
    Close("too many answers wait");
    return Sent::closed;
}

// Writes what the system takes and cuts it off the front of `bytes`. An error is left to the next read to find.
bool Connection::WriteSome(std::string_view& bytes) {
    ssize_t written;
    do written = ::send(descriptor_, bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    while (written < 0 && errno == EINTR);
    if (written < 0) return errno == EAGAIN || errno == EWOULDBLOCK;
    bytes.remove_prefix(static_cast<size_t>(written));
    return true;
}

void Connection::StartWriteWait() {
    socket_.async_wait(Socket::wait_write, [self = shared_from_this()](const boost::system::error_code& error) {
        self->OrFail([&] { self->OnWritable(error); });
    });
}

void Connection::ArmStallTimer() {
    stallTimer_.expires_after(maxStall);
    stallTimer_.async_wait([weak = weak_from_this()](const boost::system::error_code& error) {
        const ConnectionPtr self = weak.lock();
        if (!error && self) self->OrFail([&self] { self->OnStalled(); });
    });
}

// Nothing was written for maxStall. That is the peer's doing unless this process stood still, in which case the peer
// may have made room that nobody has looked at.
void Connection::OnStalled() {
    {
        PMutexHold hold(lock_);
        const bool outdated = stallTimer_.expiry() > std::chrono::steady_clock::now();  // armed anew in between
        if (closed_ || backlog_.empty() || outdated) return;
        if (WriteBacklog() > 0) return ArmStallTimer();  // the wait for the socket is under way and finds the rest
    }
    CBBLog::warn(LibraryLogger(), "libkel: %s took nothing for %lld s; disconnecting it", peer_.c_str(),
                 static_cast<long long>(maxStall.count()));
    Close("the peer does not read");
}

// Writes what the system takes of the backlog and returns how many bytes that is; -1 for an error.
ssize_t Connection::WriteBacklog() {
    std::string_view rest(backlog_.data() + backlogSent_, backlog_.size() - backlogSent_);
    const size_t before = rest.size();
    if (!WriteSome(rest)) return -1;
    backlogSent_ += before - rest.size();
    return static_cast<ssize_t>(before - rest.size());
}

void Connection::OnWritable(const boost::system::error_code& error) {
    if (error) return;
    std::vector<Drain> ready;
    {
        PMutexHold hold(lock_);
        if (closed_) return;
        const ssize_t written = WriteBacklog();
        if (written < 0) return;
        const size_t left = backlog_.size() - backlogSent_;
        if (left > 0) {
            if (backlogSent_ > left) {  // a peer that is always a little behind must not make it grow
                backlog_.erase(0, backlogSent_);
                backlogSent_ = 0;
            }
            if (written > 0) ArmStallTimer();
            StartWriteWait();
            return;
        }
        backlog_ = std::string();
        backlogSent_ = 0;
        stallTimer_.cancel();
        ready.swap(drains_);
    }
    for (const Drain& drain : ready) drain.drained();
}

bool Connection::WhenDrained(std::function<void()> drained, std::function<void()> closed) {
    PMutexHold hold(lock_);
    if (closed_) return false;
    if (backlog_.empty()) {
        asio::post(socket_.get_executor(), std::move(drained));
    } else {
        drains_.push_back({std::move(drained), std::move(closed)});
    }
    return true;
}

bool Connection::HasBacklog() {
    PMutexHold hold(lock_);
    return !closed_ && !backlog_.empty();
}

// --- Calls of this side --------------------------------------------------------------------------------------------

Connection::Begun Connection::Call(std::string_view method, std::string_view caller, const tagVARIANT& in,
                                   AnswerHandler handler, uint32_t* id) {
    uint32_t call;
    {
        PMutexHold hold(callsLock_);
        call = nextCall_++;
    }
    std::string bytes;
    if (!wire::EncodeRequest(bytes, call, method, caller, in)) return Begun::tooLarge;
    {
        PMutexHold hold(callsLock_);
        if (callsClosed_) return Begun::closed;
        calls_.emplace(call, std::move(handler));
    }
    if (id) *id = call;
    if (Send(bytes, Bytes::call) == Sent::closed) {
        PMutexHold hold(callsLock_);
        if (calls_.erase(call) > 0) return Begun::closed;  // else LoseCalls has it
    }
    return Begun::begun;
}

void Connection::Abandon(uint32_t id) {
    AnswerHandler forgotten;
    PMutexHold hold(callsLock_);
    const auto found = calls_.find(id);
    if (found == calls_.end()) return;
    forgotten = std::move(found->second);
    calls_.erase(found);
}

void Connection::CompleteCall(wire::Message& answer) {
    AnswerHandler handler;
    {
        PMutexHold hold(callsLock_);
        const auto found = calls_.find(answer.id);
        if (found == calls_.end()) return;
        handler = std::move(found->second);
        calls_.erase(found);
    }
    handler(answer.failed ? CallEnd::failed : CallEnd::answered, answer);
}

void Connection::LoseCalls() {
    std::unordered_map<uint32_t, AnswerHandler> lost;
    {
        PMutexHold hold(callsLock_);
        callsClosed_ = true;
        lost.swap(calls_);
    }
    wire::Message nothing;
    for (auto& [id, handler] : lost) handler(CallEnd::lost, nothing);
}

// --- Closing -------------------------------------------------------------------------------------------------------

void Connection::Close(const char* reason) {
    End([&] {
        if (!CBBLog::isDebugEnabled()) return;
        CBBLog::debug(LibraryLogger(), "libkel: connection to %s closed: %s", peer_.c_str(), reason);
    });
}

void Connection::Fail(const char* problem) {
    End([&] { CBBLog::error(LibraryLogger(), "libkel: disconnecting %s: %s", peer_.c_str(), problem); });
}

template <typename Say>
void Connection::End(Say&& say) {
    std::vector<Drain> undrained;
    {
        PMutexHold hold(lock_);
        if (closed_.exchange(true)) return;
        undrained.swap(drains_);
        boost::system::error_code ignored;
        socket_.shutdown(Socket::shutdown_both, ignored);
        socket_.cancel(ignored);
        stallTimer_.cancel();
    }
    Quietly(say);
    owner_.OnClosed(shared_from_this());
    LoseCalls();
    for (const Drain& drain : undrained) drain.closed();
}

bool Connection::CloseIfIdle() {
    if (!used_ || outstanding_ > 0 || HasBacklog()) return false;
    {
        PMutexHold hold(callsLock_);
        if (!calls_.empty()) return false;
        callsClosed_ = true;
    }
    gaveRoom_ = true;
    Close("its descriptor is needed");
    return true;
}

}  // namespace kel::transport
