// How threads take turns on a connection
//
// Reading. At any moment at most one thread has the reading turn: it alone touches the input buffer and takes bytes
// from the system. The system tells a worker that there are some; it takes the turn, reads what is there with one call,
// runs the messages one after the other and puts the turn down when the system has no more. What comes while somebody
// has the turn is marked in it, and he reads again before he puts it down.
//
// While a method runs the turn is on offer (WorkerPool::Offer). If the method blocks, whoever gives the worker up takes
// the turn over: what was read and not run is kept with the connection, and a worker that is free goes on with it. So a
// method that blocks never holds up the calls behind it on the same connection, and short ones are run by the thread
// that read them. After maxBatch messages the turn goes to the end of the queue of work: others have their turn then.
//
// Requests run as they come, several at once if one blocks. Notifications of one connection run one after the other, in
// the order in which they came, since a sender relies on it: the first thread to get one runs those that arrive
// meanwhile too, from the buffer as long as it has the reading turn, from NotificationQueue once it has lost it.
//
// With maxOutstandingCalls taken and not answered, or with many bytes of notifications waiting, the turn is put aside
// (paused_) and whoever finishes a call picks it up. With a message at the front for which there is no memory, the turn
// waits in the memory budget's queue (Afford) and is given back from there (GoOn).
//
// A connection that was opened here brings nothing but answers, so the workers need not hear of it while no call is
// under way. A thread that has made the only one reads it itself (ReadAnswer): it takes the turn and waits inside the
// system until its answer is there. As soon as others wait as well the workers read (ReadByWorkers), until a thread is
// alone with the connection again.
//
// Calls of this side are in ConnectionCalls.cc. Writing is Outbox. The answers of messages that were read together
// leave together: they are held back from the first of them on until the last has been run, or until the turn changes
// hands; where many connections have something to run, until those have had their turn too (sendHeld).
//
// Closing shuts the socket down, but leaves the descriptor open: the destructor closes it. The turn of a connection
// that has closed is never put down again.
//
// Without memory. A thread that an exception throws out of the library's part takes the reading turn with it, or leaves
// half a message sent, and nobody would ever pick that up. So an exception there ends the connection (OrFail), and
// closing takes no memory. The other side sees a connection that broke, which it has to live with anyway.
#include "rpc/transport/Connection.h"

#include "foundation/NetworkUtils.h"
#include "rpc/transport/LibraryLog.h"
#include "rpc/transport/Quietly.h"
#include "rpc/wire/Codec.h"

#include <netinet/tcp.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>
#include <utility>

namespace kel::transport {

namespace {

constexpr const char* noMessage = "the peer sent what is not a message";
constexpr int maxBatch = 32;
constexpr ptrdiff_t writtenOff = ptrdiff_t{1} << 48;

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

void SetUp(int socket, Connection::Opener opener) {
    const int on = 1;
    CloseOnExec(socket);
    ::setsockopt(socket, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    yar::networkutils::GiveUpOnDeadPeers(socket, static_cast<unsigned>(maxStall.count()));
    if (opener == Connection::Opener::peer) return;
    // For ReadAnswer; everything else asks not to wait each time.
    const timeval timeout{longWait.count(), 0};
    ::fcntl(socket, F_SETFL, ::fcntl(socket, F_GETFL) & ~O_NONBLOCK);
    ::setsockopt(socket, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
}

}  // namespace

// What a thread runs before others have their turn.
struct Connection::Batch {
    int left = maxBatch;
    bool runsNotifications = false;  // is the one who does
};

Connection::Connection(Descriptor socket, ConnectionOwner& owner, std::string peer, Opener opener)
    : owner_(owner),
      peer_(std::move(peer)),
      opener_(opener),
      socket_(std::move(socket)),
      workersRead_(opener == Opener::peer),
      input_(opener == Opener::peer ? InputBuffer::Reads::byThread : InputBuffer::Reads::byItself),
      outbox_(socket_.get(), owner.pool().io().get_executor(), *this) {
    SetUp(socket_.get(), opener);
    sockaddr_in remote{};
    socklen_t size = sizeof remote;
    if (::getpeername(socket_.get(), reinterpret_cast<sockaddr*>(&remote), &size) == 0) peerAddress_ = remote.sin_addr;
    peerAddressText_ = yar::networkutils::inet_ntos(peerAddress_);
}

Connection::~Connection() { CountBuffers(-bufferBytes()); }

void Connection::Start() {
    const WorkQueue::For what = openedByPeer() ? WorkQueue::For::reading : WorkQueue::For::end;
    OrFail([&] { owner_.pool().queue().Watch(descriptor(), shared_from_this(), what); });
    if (!openedByPeer() && (workersRead_ || watchesWriting_)) Watch();  // others have it already, and have used it
    if (closed_) owner_.pool().queue().Unwatch(descriptor());
}

// Has the system tell of what is there and of what comes.
void Connection::Watch() {
    PMutexHold hold(watchLock_);  // so that the last word is of the last state
    const WorkQueue::For reading = workersRead_ ? WorkQueue::For::reading : WorkQueue::For::end;
    owner_.pool().queue().Change(descriptor(), watchesWriting_ ? WorkQueue::For::readingAndWriting : reading);
}

void Connection::WatchWritable() {
    watchesWriting_ = true;
    Watch();
}

void Connection::ReadByWorkers() {
    if (!workersRead_.exchange(true)) Watch();
}

// --- The reading turn ----------------------------------------------------------------------------------------------

void Connection::Run(unsigned reasons) {
    OrFail([&] {
        if (reasons & ended) peerEnded_ = true;
        if (reasons & writable) outbox_.OnWritable();
        if (reasons & sendHeld) outbox_.Release();
        const bool tookTurn = (reasons & readable) && TakeTurn();
        const bool reads = tookTurn || (reasons & readOn);
        if ((reasons & runNotifications) && !reads) return RunQueuedNotifications();
        if (reasons & runNotifications) Due(runNotifications);
        if (reads) ReadOn();
    });
}

// Takes the turn, or has whoever has it read again.
bool Connection::TakeTurn() {
    int turn = isFree;
    while (!turn_.compare_exchange_weak(turn, turn == isFree ? isTaken : isTakenAndMoreCame)) {
    }
    if (turn != isFree) return false;
    isDrained_ = false;
    return true;
}

// False when more came and the turn is still the caller's.
bool Connection::PutTurnDown() {
    if (closed_) {
        DropInput();
        return true;
    }
    CountBuffers(input_.Keep());
    const bool isUnfinished = input_.size() > 0;
    int none = 0;
    if (isUnfinished) unfinished_.compare_exchange_strong(none, 1);
    int taken = isTaken;
    if (!turn_.compare_exchange_strong(taken, isFree)) {
        turn_ = isTaken;
        isDrained_ = false;
        return false;
    }
    if (isUnfinished) owner_.OnUnfinished();
    return true;
}

void Connection::PassTurn() {
    CountBuffers(input_.Keep());
    Due(readOn);
}

// The thread that had the turn is held up.
void Connection::TakeOver() {
    if (offersCall_) ++outstanding_;  // which it takes back
    OrFail([this] {
        EndHold();
        PassTurn();
    });
}

void Connection::DropInput() {
    CountBuffers(input_.Drop());
    readShare_ = {};
}

// --- Reading -------------------------------------------------------------------------------------------------------

void Connection::ReadOn() {
    Batch batch;
    while (RunMessages(batch)) {
        if (isDrained_ && PutTurnDown()) return;
        const Received received = Receive();
        if (received == Received::theEnd) return;
        isDrained_ |= received == Received::nothing;
    }
}

Connection::Received Connection::Receive() {
    CountBuffers(input_.Prepare());
    ssize_t result;
    do result = ::recv(descriptor(), input_.space(), input_.spaceSize(), MSG_DONTWAIT);
    while (result < 0 && errno == EINTR);
    return Account(result);
}

// Of what recv returned. A stream that gave less than was asked for has no more.
Connection::Received Connection::Account(ssize_t result) {
    if (result > 0) {
        const auto size = static_cast<size_t>(result);
        isDrained_ = size < input_.spaceSize() && !peerEnded_;
        input_.Got(size);
        if (unfinished_.load(std::memory_order_relaxed) != 0) unfinished_ = 0;
        lastUse_.store(uses.fetch_add(1, std::memory_order_relaxed), std::memory_order_relaxed);
        return Received::bytes;
    }
    if (result < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) return Received::nothing;
    Close(result == 0 ? "the peer hung up" : std::strerror(errno));
    DropInput();
    return Received::theEnd;
}

// Runs the messages that are complete. False when the turn is no longer the caller's.
bool Connection::RunMessages(Batch& batch) {
    for (;;) {
        const Frame frame = closed_ ? Frame::incomplete : LookForMessage();
        if (frame == Frame::complete && batch.left-- > 0) {
            if (RunNext(batch)) continue;
            return false;
        }
        EndBatch(batch);
        if (closed_) {
            DropInput();
            return false;
        }
        if (frame == Frame::incomplete) return true;
        if (frame == Frame::complete) {
            PassTurn();
            return false;
        }
        CloseForNoMessage();
    }
}

void Connection::EndBatch(Batch& batch) {
    EndNotifications(batch);
    if (holds_ && owner_.pool().queue().AddBehindOthers(shared_from_this(), sendHeld)) holds_ = false;
    EndHold();
}

// Nobody can have queued one meanwhile: the reading turn was here.
void Connection::EndNotifications(Batch& batch) {
    if (!std::exchange(batch.runsNotifications, false)) return;
    wire::Framer none;
    (void)notifications_.Next(none);
}

void Connection::EndHold() {
    if (std::exchange(holds_, false)) outbox_.Release();
}

bool Connection::RunNext(Batch& batch) {
    if (IsOf(wire::MessageKind::notification)) return RunNotification(batch);
    if (!IsOf(wire::MessageKind::response)) return RunRequest(batch);
    wire::Message answer;
    if (TakeMessage(answer)) CompleteCall(answer);
    return true;
}

bool Connection::RunRequest(Batch& batch) {
    EndNotifications(batch);
    MemoryBudget::Share share;
    if (!AffordFirst(batch, share)) return false;
    wire::Message request;
    if (!TakeMessage(request)) return true;
    if (outstanding_ + 1 >= maxOutstandingCalls && RunAsLast(batch, request)) return false;
    if (!holds_ && (LookForMessage() == Frame::complete || owner_.pool().queue().IsBusy())) {
        holds_ = true;
        outbox_.Hold();
    }
    if (RunWhileOffered(request)) return true;
    --outstanding_;
    Resume();
    return false;
}

// With this call there may be as many as a connection can have: then it runs without the turn, which is put aside.
bool Connection::RunAsLast(Batch& batch, wire::Message& request) {
    {
        const Counted outstanding(outstanding_);
        if (!PauseIfFull(batch)) return false;
        owner_.OnCall(*this, request);
    }
    Resume();
    return true;
}

// Whether the turn is still the caller's.
bool Connection::RunWhileOffered(wire::Message& call) {
    offersCall_ = call.kind == wire::MessageKind::request;
    WorkerPool::Offer offer(owner_.pool(), *this);
    owner_.OnCall(*this, call);
    return offer.Withdraw();
}

Connection::Frame Connection::LookForMessage() {
    if (input_.size() == 0) return Frame::incomplete;
    switch (framer_.Scan(input_.data(), input_.size())) {
        case wire::Framer::Status::incomplete:
            return Frame::incomplete;
        case wire::Framer::Status::complete:
            return Frame::complete;
        case wire::Framer::Status::malformed:
            break;
    }
    return Frame::malformed;
}

// Decodes the complete message at the front of the buffer; false, and the connection ends, when it is none after all.
bool Connection::TakeMessage(wire::Message& message) {
    const bool good = wire::Decode(input_.data(), framer_.length(), message);
    SkipMessage();
    if (!good) {
        EndHold();
        CloseForNoMessage();
    }
    return good;
}

void Connection::SkipMessage() {
    input_.Use(framer_.length());
    framer_.Reset();
}

// Puts the turn aside when enough calls are under way; true when the caller no longer has it.
bool Connection::PauseIfFull(Batch& batch) {
    if (!IsFull()) return false;
    EndBatch(batch);
    CountBuffers(input_.Keep());
    paused_ = true;
    // A call that finished in between has not seen the flag: take the turn back, unless somebody did.
    return IsFull() || !paused_.exchange(false);
}

// Notifications do not count as calls: a peer that sends many while one of them blocks is still asked and answered.
bool Connection::IsFull() const {
    return outstanding_ >= maxOutstandingCalls || notifications_.waiting() > maxNotificationBytes;
}

// A call has been run.
void Connection::Resume() {
    if (paused_ && !IsFull() && paused_.exchange(false)) Due(readOn);
}

void Connection::EndLateCall() {
    --outstanding_;
    OrFail([this] { Resume(); });
}

// --- Notifications -------------------------------------------------------------------------------------------------

bool Connection::RunNotification(Batch& batch) {
    const bool isSmall = framer_.decodedBytes() <= smallCallBytes;
    if (!isSmall || !(batch.runsNotifications || notifications_.Begin())) return QueueNotification(batch);
    batch.runsNotifications = true;
    wire::Message notification;
    if (!TakeMessage(notification)) return true;
    if (RunWhileOffered(notification)) return true;
    RunQueuedNotifications();
    return false;
}

bool Connection::QueueNotification(Batch& batch) {
    EndBatch(batch);
    bool runs = false;
    CountBuffers(notifications_.Add({input_.data(), framer_.length()}, runs));
    SkipMessage();
    const bool isPaused = PauseIfFull(batch);
    if (!runs) return !isPaused;
    if (!isPaused) PassTurn();
    RunQueuedNotifications();
    return false;
}

void Connection::RunQueuedNotifications() {
    wire::Framer framer;
    while (notifications_.Next(framer)) {
        MemoryBudget::Share share;
        if (!Afford(framer, MemoryBudget::Turn::notifications, share)) return;
        std::string bytes;
        ptrdiff_t growth = 0;
        if (notifications_.Take(framer.length(), bytes, growth)) {
            CountBuffers(growth);
            wire::Message message;
            if (wire::Decode(bytes.data(), bytes.size(), message)) {
                owner_.OnCall(*this, message);
            } else {
                spokeOtherwise_ = true;
                Cut(noMessage);
            }
        }
        notifications_.Ran(framer.length());
        Resume();
    }
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
    CountBuffers(notifications_.Forget());
    ResetOnClose();
    Close(reason);
}

// Has the peer hear of the end at once, though it does not read, or still sends. What it has not taken is lost.
void Connection::ResetOnClose() {
    const linger atOnce{1, 0};
    ::setsockopt(descriptor(), SOL_SOCKET, SO_LINGER, &atOnce, sizeof atOnce);
}

// Takes a share for the complete message that `message` has found. False when there is none now: the turn is no longer
// the caller's, and goes on by itself once there is.
bool Connection::Afford(const wire::Framer& message, MemoryBudget::Turn turn, MemoryBudget::Share& share) {
    if (message.decodedBytes() <= smallCallBytes) return true;
    share = std::move(turn == MemoryBudget::Turn::reading ? readShare_ : notificationShare_);
    return share || owner_.memory().Take(2 * message.decodedBytes(), share, shared_from_this(), turn);
}

// The same for the message at the front of the buffer.
bool Connection::AffordFirst(Batch& batch, MemoryBudget::Share& share) {
    if (framer_.decodedBytes() > smallCallBytes) {
        EndBatch(batch);
        CountBuffers(input_.Keep());
    }
    return Afford(framer_, MemoryBudget::Turn::reading, share);
}

void Connection::GoOn(MemoryBudget::Turn turn, MemoryBudget::Share share) {
    const bool reads = turn == MemoryBudget::Turn::reading;
    (reads ? readShare_ : notificationShare_) = std::move(share);
    Due(reads ? readOn : runNotifications);
}

int Connection::LookAtUnfinished() {
    int looks = unfinished_;
    return looks > 0 && unfinished_.compare_exchange_strong(looks, looks + 1) ? looks : 0;
}

// --- Writing -------------------------------------------------------------------------------------------------------

Connection::Sent Connection::Send(std::string_view bytes, WhenFull whenFull) {
    if (!used_.load(std::memory_order_relaxed)) used_ = true;
    Sent sent = Sent::closed;
    OrFail([&] { sent = outbox_.Send(bytes, whenFull); });
    return sent;
}

void Connection::OnUnread(Unread what) {
    Quietly([&] {
        if (what == Unread::tooMuch) {
            CBBLog::warn(LibraryLogger(), "libkel: %s does not read its answers; disconnecting it", peer_.c_str());
        } else {
            CBBLog::warn(LibraryLogger(), "libkel: %s took nothing for %lld s; disconnecting it", peer_.c_str(),
                         static_cast<long long>(maxStall.count()));
        }
    });
    ResetOnClose();
    Close(what == Unread::tooMuch ? "too many answers wait" : "the peer does not read");
}

bool Connection::WhenDrained(std::function<void()> drained, std::function<void()> closed) {
    Outbox::Drain drain{std::move(drained), std::move(closed)};
    const Outbox::State state = outbox_.WhenDrained(drain);
    if (state == Outbox::State::empty) owner_.pool().Post(std::move(drain.drained));
    return state != Outbox::State::closed;
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
    if (closed_.exchange(true)) return;
    const std::vector<Outbox::Drain> undrained = outbox_.Close();
    ::shutdown(descriptor(), SHUT_RDWR);
    owner_.pool().queue().Unwatch(descriptor());
    if (TakeTurn()) DropInput();
    Quietly(say);
    owner_.OnClosed(shared_from_this());
    calls_.Close();
    for (const Outbox::Drain& drain : undrained) drain.closed();
}

bool Connection::IsIdle() {
    const bool isUsed = openedByPeer() || used_;
    const bool isBusy = turn_ != isFree || outstanding_ > 0 || notifications_.waiting() > 0;
    return !closed_ && isUsed && !isBusy && !HasBacklog() && calls_.size() == 0;
}

// Whether the system has bytes of the peer that have not been read.
bool Connection::HasUnread() {
    char byte;
    return ::recv(descriptor(), &byte, 1, MSG_PEEK | MSG_DONTWAIT) > 0;
}

bool Connection::CloseIfIdle() {
    if (!IsIdle() || !TakeTurn()) return false;
    // Before the turn was here a call may have come, have been read or begun.
    if (HasUnread() || outstanding_ > 0 || !calls_.CloseIfEmpty([this] { gaveRoom_ = true; })) {
        PassTurn();
        return false;
    }
    DropInput();
    Close("its descriptor is needed");
    return true;
}

}  // namespace kel::transport
