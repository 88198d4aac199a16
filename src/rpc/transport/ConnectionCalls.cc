// The calls that this side makes over a connection, and how their answers are read. Connection.cc opens with how
// threads take turns at that.
#include "rpc/transport/Connection.h"

#include "rpc/wire/Codec.h"

#include <poll.h>
#include <sched.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>

namespace kel::transport {

namespace {

// A thread that is woken by another processor is back later than one that has stayed awake, by more than a short call
// takes. So a thread that waits for its answer looks for it for a while before it sleeps, giving way to all others.
// When that was in vain it sleeps at once for the next few calls.
constexpr std::chrono::microseconds waitAwake{100};
constexpr int sleepsInARow = 15;

}  // namespace

Connection::Begun Connection::Call(std::string_view method, std::string_view caller, const tagVARIANT& in,
                                   AnswerHandler handler, uint32_t* id) {
    *id = calls_.NewId();
    std::string bytes;
    if (!wire::EncodeRequest(bytes, *id, method, caller, in)) return Begun::tooLarge;
    const CallTable::Added added = calls_.Add(*id, std::move(handler));
    if (added == CallTable::Added::closed) return Begun::closed;
    Sent sent = Sent::closed;
    used_ = true;
    OrFail([&] {
        sent = added == CallTable::Added::theOnlyOne ? outbox_.Send(bytes, WhenFull::queue)
                                                     : outbox_.SendWithOthers(bytes);
    });
    const bool isLost = sent == Sent::closed && calls_.Take(*id);  // else its handler has been told
    return isLost ? Begun::closed : Begun::begun;
}

void Connection::Abandon(uint32_t id) {
    ++owed_;
    if (!calls_.Take(id)) --owed_;
    ReadByWorkers();
}

void Connection::CompleteCall(wire::Message& answer) {
    const AnswerHandler handler = calls_.Take(answer.id);
    if (handler) return handler(answer.failed ? CallEnd::failed : CallEnd::answered, answer);
    if (owed_ > 0) --owed_;
}

void Connection::ReadAnswer(const std::function<bool()>& isThere, Deadline deadline) {
    if (openedByPeer() || calls_.size() > 1 || owed_ > 0 || !TakeTurn()) return ReadByWorkers();
    if (workersRead_.exchange(false)) Watch();
    bool isMine = true;
    OrFail([&] { isMine = ReadAnswers(isThere, deadline); });
    if (!isMine) return;
    OrFail([this] {
        while (!PutTurnDown()) {
        }
    });
    // Whoever made a call meanwhile has left the reading to this thread, and to whom the system has told of the end,
    // the turn was taken.
    if (calls_.size() > 0) workersRead_ = true;
    if (workersRead_ || peerEnded_) Watch();
}

// False when the turn is no longer the caller's.
bool Connection::ReadAnswers(const std::function<bool()>& isThere, Deadline deadline) {
    do {
        if (!CompleteCalls()) {
            ReadByWorkers();
            PassTurn();
            return false;
        }
    } while (!isThere() && WaitAndReceive(deadline) == Received::bytes);
    return true;
}

// Takes the answers that are complete; false when there is something else to run.
bool Connection::CompleteCalls() {
    for (;;) {
        const Frame frame = LookForMessage();
        if (frame == Frame::malformed) CloseForNoMessage();
        if (frame != Frame::complete || closed_) return true;
        if (!IsOf(wire::MessageKind::response)) return false;
        wire::Message answer;
        if (TakeMessage(answer)) CompleteCall(answer);
    }
}

// Receive once there is something; `nothing` at the deadline.
Connection::Received Connection::WaitAndReceive(Deadline deadline) {
    if (waitsAsleep_ > 0) {
        --waitsAsleep_;
        return SleepAndReceive(deadline);
    }
    const Deadline asleepFrom = std::min(deadline, std::chrono::steady_clock::now() + waitAwake);
    do {
        const Received received = Receive();
        if (received != Received::nothing) return received;
        ::sched_yield();
    } while (std::chrono::steady_clock::now() < asleepFrom);
    waitsAsleep_ = sleepsInARow;
    return SleepAndReceive(deadline);
}

Connection::Received Connection::SleepAndReceive(Deadline deadline) {
    using std::chrono::milliseconds;
    CountBuffers(input_.Prepare());
    for (;;) {
        const auto left = std::chrono::ceil<milliseconds>(deadline - std::chrono::steady_clock::now());
        if (left <= milliseconds(0)) return Received::nothing;
        const bool isLong = left > 2 * longWait;
        pollfd waited{descriptor(), POLLIN, 0};
        if (!isLong) (void)::poll(&waited, 1, static_cast<int>(left.count()));
        const ssize_t result = ::recv(descriptor(), input_.space(), input_.spaceSize(), isLong ? 0 : MSG_DONTWAIT);
        const bool isInVain = result < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR);
        if (!isInVain) return Account(result);
    }
}

}  // namespace kel::transport
