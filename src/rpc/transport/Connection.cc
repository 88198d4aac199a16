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
// (paused_) and whoever finishes a call picks it up. With a message at the front for which there is no memory, the turn
// waits in the memory budget's queue (Afford) and is given back from there (GoOn). Notifications wait as the bytes that
// they came in, since there may be many of them; who runs them waits for memory likewise.
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

constexpr const char* noMessage = "the peer sent what is not a message";
constexpr size_t smallInput = 1024;        // of a connection that is idle, or gets small messages one by one
constexpr size_t ordinaryInput = 4096;     // of one that gets more at once
constexpr size_t largeInput = 256 * 1024;  // a buffer that grew beyond this is given back once it is empty
constexpr ptrdiff_t writtenOff = ptrdiff_t{1} << 48;

// What a buffer counts towards the budget; every connection has a small one.
ptrdiff_t Counting(size_t capacity) { return capacity > smallInput ? static_cast<ptrdiff_t>(capacity) : 0; }

std::atomic<uint64_t> uses{0};  // of connections

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

Connection::Connection(Socket socket, ConnectionOwner& owner, std::string peer, Opener opener)
    : owner_(owner),
      peer_(std::move(peer)),
      opener_(opener),
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

Connection::~Connection() { CountBuffers(-bufferBytes()); }

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
    const bool isUnfinished = end_ > begin_;
    if (isUnfinished) unfinished_ = 1;
    awaitsMessage_ = true;
    lastUse_.store(uses.fetch_add(1, std::memory_order_relaxed), std::memory_order_relaxed);
    bool reads = false;
    {
        PMutexHold hold(lock_);
        reads = !closed_;
        if (reads) socket_.async_read_some(space, ReadHandler{shared_from_this()});
    }
    if (!reads) {
        DropInput();
    } else if (isUnfinished) {
        owner_.OnUnfinished();
    }
}

// Leaves free space behind the bytes that wait for the rest of their message.
void Connection::MakeRoom() {
    const size_t waiting = end_ - begin_;
    if (waiting == 0) {
        const bool wasFull = end_ == capacity_;
        begin_ = end_ = 0;
        if (capacity_ == 0 || capacity_ > largeInput) {
            SetCapacity(smallInput);
        } else if (wasFull && capacity_ < ordinaryInput) {
            SetCapacity(ordinaryInput);
        }
        return;
    }
    if (end_ < capacity_) return;
    if (begin_ >= capacity_ / 2) {
        std::memmove(input_.get(), input_.get() + begin_, waiting);
        begin_ = 0;
        end_ = waiting;
    } else {
        SetCapacity(std::max(capacity_ * 2, ordinaryInput));
    }
}

// Gives the bytes that wait another buffer, in which they have room.
void Connection::SetCapacity(size_t capacity) {
    CountBuffers(Counting(capacity) - Counting(capacity_));
    if (end_ == begin_) input_.reset();
    std::unique_ptr<char[]> other(new char[capacity]);
    if (end_ > begin_) std::memcpy(other.get(), input_.get() + begin_, end_ - begin_);
    input_ = std::move(other);
    end_ -= std::exchange(begin_, 0);
    capacity_ = capacity;
}

// Of a connection that has closed.
void Connection::DropInput() {
    CountBuffers(-Counting(std::exchange(capacity_, 0)));
    input_.reset();
    begin_ = end_ = 0;
}

void Connection::OnRead(const boost::system::error_code& error, size_t size) {
    if (unfinished_.load(std::memory_order_relaxed) != 0) unfinished_ = 0;
    if (!awaitsMessage_.exchange(false) || error) {
        DropInput();
        OrFail([&] { Close(error == asio::error::eof ? "the peer hung up" : error.message().c_str()); });
        return;  // without an error: CloseIfIdle was faster
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
    SkipMessage();
    return good;
}

void Connection::SkipMessage() {
    begin_ += framer_.length();
    framer_.Reset();
}

void Connection::ProcessInput() {
    for (;;) {
        const Frame frame = LookForMessage();
        if (frame == Frame::incomplete) return StartRead();
        if (frame == Frame::malformed) return CloseForNoMessage();

        if (framer_.Is(wire::MessageKind::notification, input_.get() + begin_)) {
            const bool runs = QueueNotification({input_.get() + begin_, framer_.length()});
            SkipMessage();
            const bool paused = PauseIfFull();
            if (runs) {
                if (!paused) PassReadingTurn();
                return RunNotifications();
            }
            if (paused) return;  // another thread runs it in its order
            continue;
        }
        MemoryBudget::Share share;
        const bool isResponse = framer_.Is(wire::MessageKind::response, input_.get() + begin_);
        if (!isResponse && !Afford(framer_, MemoryBudget::Turn::reading, share)) return;
        wire::Message message;
        if (!TakeMessage(message)) return CloseForNoMessage();
        if (message.kind == wire::MessageKind::request) return RunRequest(message);
        CompleteCall(message);
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
bool Connection::QueueNotification(std::string_view bytes) {
    notificationBytes_ += bytes.size();
    ptrdiff_t growth = 0;
    bool runs = false;
    {
        PMutexHold hold(notificationLock_);
        growth = -Counting(notifications_.capacity());
        notifications_.append(bytes);
        growth += Counting(notifications_.capacity());
        runs = !std::exchange(runningNotifications_, true);
    }
    CountBuffers(growth);
    return runs;
}

void Connection::RunNotifications() {
    wire::Framer framer;
    while (LookForNotification(framer)) {
        MemoryBudget::Share share;
        if (!Afford(framer, MemoryBudget::Turn::notifications, share)) return;
        wire::Message message;
        if (TakeNotification(framer.length(), message)) owner_.OnCall(shared_from_this(), message);
        notificationBytes_ -= framer.length();
        Resume();
    }
}

// Measures the notification that is next; false when there is none, and the caller no longer runs them.
bool Connection::LookForNotification(wire::Framer& framer) {
    PMutexHold hold(notificationLock_);
    runningNotifications_ = !notifications_.empty();
    if (!runningNotifications_) return false;
    framer.Reset();
    (void)framer.Scan(notifications_.data() + notificationsBegin_, notifications_.size() - notificationsBegin_);
    return true;
}

// Takes the next notification, of `length` bytes, off the queue. False when it has been forgotten meanwhile, or is no
// message, whereupon the connection closes.
bool Connection::TakeNotification(size_t length, wire::Message& message) {
    std::string bytes;
    ptrdiff_t growth = 0;
    {
        PMutexHold hold(notificationLock_);
        if (notifications_.empty()) return false;
        bytes = notifications_.substr(notificationsBegin_, length);
        notificationsBegin_ += length;
        if (notificationsBegin_ == notifications_.size()) {
            growth = ClearNotifications();
        } else if (notificationsBegin_ > notifications_.size() / 2) {
            notifications_.erase(0, std::exchange(notificationsBegin_, 0));
        }
    }
    CountBuffers(growth);
    if (wire::Decode(bytes.data(), bytes.size(), message)) return true;
    spokeOtherwise_ = true;
    Cut(noMessage);
    return false;
}

// Returns how much less they hold than before, as a negative number.
ptrdiff_t Connection::ClearNotifications() {
    const ptrdiff_t held = Counting(notifications_.capacity());
    notifications_ = std::string();
    notificationsBegin_ = 0;
    return -held;
}

// --- Memory --------------------------------------------------------------------------------------------------------

void Connection::CountBuffers(ptrdiff_t change) {
    if (change == 0 || bufferBytes_.fetch_add(change) < 0) return;
    owner_.memory().CountBuffers(change);
    if (change > 0 && owner_.memory().BuffersAreOver()) owner_.OnBuffersOver();
}

void Connection::WriteOff() {
    const ptrdiff_t held = bufferBytes_.fetch_sub(writtenOff);
    if (held > 0) owner_.memory().CountBuffers(-held);
}

void Connection::Cut(const char* reason) {
    ptrdiff_t growth = 0;
    {
        PMutexHold hold(notificationLock_);
        growth = ClearNotifications();
    }
    CountBuffers(growth);
    Close(reason);
}

// Takes a share for the complete message that `message` has found. False when there is none now: the turn is no longer
// the caller's, and goes on by itself once there is.
bool Connection::Afford(const wire::Framer& message, MemoryBudget::Turn turn, MemoryBudget::Share& share) {
    if (message.decodedBytes() <= smallCallBytes) return true;
    share = std::move(turn == MemoryBudget::Turn::reading ? readShare_ : notificationShare_);
    return share || owner_.memory().Take(2 * message.decodedBytes(), share, shared_from_this(), turn);
}

void Connection::GoOn(MemoryBudget::Turn turn, MemoryBudget::Share share) {
    OrFail([&] {
        const bool reads = turn == MemoryBudget::Turn::reading;
        PMutexHold hold(lock_);
        if (reads && closed_) return;
        (reads ? readShare_ : notificationShare_) = std::move(share);
        asio::post(socket_.get_executor(), [self = shared_from_this(), reads] {
            self->OrFail([&] { reads ? self->ProcessInput() : self->RunNotifications(); });
        });
    });
}

int Connection::LookAtUnfinished() {
    int looks = unfinished_;
    return looks > 0 && unfinished_.compare_exchange_strong(looks, looks + 1) ? looks : 0;
}

// --- Writing -------------------------------------------------------------------------------------------------------

Connection::Sent Connection::Send(std::string_view bytes, Bytes what) {
    if (!used_.load(std::memory_order_relaxed)) used_ = true;
    Sent sent = Sent::closed;
    OrFail([&] { sent = WriteOrQueue(bytes, what); });
    return sent;
}

Connection::Sent Connection::WriteOrQueue(std::string_view bytes, Bytes what) {
    ptrdiff_t growth = -1;
    {
        PMutexHold hold(lock_);
        if (closed_) return Sent::closed;
        const bool first = backlog_.empty();
        if (first && WriteSome(bytes) && bytes.empty()) return Sent::sent;
        if (what == Bytes::call || backlog_.size() - backlogSent_ <= maxBacklogBytes) {
            backlog_.append(bytes);
            growth = what == Bytes::answer ? CountBacklog(backlog_.capacity()) : 0;
            if (first) {
                StartWriteWait();
                ArmStallTimer();
            }
        }
    }
    if (growth >= 0) {
        CountBuffers(growth);
        return Sent::queued;
    }
    CBBLog::warn(LibraryLogger(), "libkel: %s does not read its answers; disconnecting it", peer_.c_str());
    Close("too many answers wait");
    return Sent::closed;
}

// Has the backlog counted with so many bytes and returns how many more that is. Bytes of calls count only where answers
// are among them.
ptrdiff_t Connection::CountBacklog(size_t bytes) {
    return static_cast<ptrdiff_t>(bytes) - static_cast<ptrdiff_t>(std::exchange(backlogCounted_, bytes));
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
    ptrdiff_t growth = 0;
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
        growth = CountBacklog(0);
        stallTimer_.cancel();
        ready.swap(drains_);
    }
    CountBuffers(growth);
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

void Connection::CloseForNoMessage() {
    spokeOtherwise_ = true;
    Close(noMessage);
}

void Connection::Fail(const char* problem) {
    End([&] { CBBLog::error(LibraryLogger(), "libkel: disconnecting %s: %s", peer_.c_str(), problem); });
}

template <typename Say>
void Connection::End(Say&& say) {
    std::vector<Drain> undrained;
    ptrdiff_t growth = 0;
    {
        PMutexHold hold(lock_);
        if (closed_.exchange(true)) return;
        undrained.swap(drains_);
        backlog_ = std::string();
        growth = CountBacklog(0);
        boost::system::error_code ignored;
        socket_.shutdown(Socket::shutdown_both, ignored);
        socket_.cancel(ignored);
        stallTimer_.cancel();
    }
    CountBuffers(growth);
    Quietly(say);
    owner_.OnClosed(shared_from_this());
    LoseCalls();
    for (const Drain& drain : undrained) drain.closed();
}

bool Connection::IsIdle() {
    const bool isUsed = openedByPeer() || used_;
    if (closed_ || !isUsed || !awaitsMessage_ || outstanding_ > 0 || notificationBytes_ > 0 || HasBacklog())
        return false;
    PMutexHold hold(callsLock_);
    return calls_.empty();
}

// Whether the system has bytes of the peer that have not been read.
bool Connection::HasUnread() {
    char byte;
    return ::recv(descriptor_, &byte, 1, MSG_PEEK | MSG_DONTWAIT) > 0;
}

bool Connection::CloseIfIdle() {
    if (!IsIdle() || HasUnread()) return false;
    {
        PMutexHold hold(callsLock_);
        if (!calls_.empty() || !awaitsMessage_.exchange(false)) return false;
        callsClosed_ = true;
    }
    gaveRoom_ = true;
    Close("its descriptor is needed");
    return true;
}

}  // namespace kel::transport
