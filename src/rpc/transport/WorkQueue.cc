// How the queue is kept
//
// What is due is linked through its own members, and what is queued already is only given a further reason: so nothing
// that happens is lost for want of memory, and a connection of which much is to be told stands in the queue once.
//
// The threads run what is queued in rounds. After as many pieces of work as there were at the beginning of the round,
// whoever wants the next one asks the system what has happened meanwhile and puts that behind what is left. So a
// connection that always has more to do, and queues itself again and again, waits for everybody else each time. With
// nothing queued the thread waits in the system; somebody who adds work then wakes it.
//
// Where many have their turn in a round, what can be put off until the others have had theirs stands behind the round
// (AddBehindOthers): answers, sent one after the other, find their readers awake from the first of them on.
//
// The system tells of a socket by its number and the generation of that number, since a socket that has closed may
// still be told of.
#include "rpc/transport/WorkQueue.h"

#include <array>
#include <system_error>
#include <utility>

namespace kel::transport {

namespace {

constexpr int maxEvents = 64;
constexpr std::chrono::microseconds longestBehind{100};
constexpr size_t clockEvery = 4;  // pieces of work
constexpr unsigned generationShift = 32;

uint64_t TagOf(int socket, uint32_t generation) {
    return uint64_t{generation} << generationShift | static_cast<uint32_t>(socket);
}

}  // namespace

WorkQueue::~WorkQueue() { Stop(); }

void WorkQueue::Append(Work& work, const WorkPtr& self, unsigned reasons) {
    const bool isQueued = work.due_ != 0;
    work.due_ |= reasons;
    if (isQueued || stopped_) return;
    work.self_ = self;
    work.next_ = nullptr;
    (last_ ? last_->next_ : first_) = &work;
    last_ = &work;
    ++queued_;
}

WorkQueue::Due WorkQueue::Pop() {
    Work& work = *first_;
    first_ = work.next_;
    if (!first_) last_ = nullptr;
    --queued_;
    return {std::move(work.self_), std::exchange(work.due_, 0)};
}

void WorkQueue::Add(const WorkPtr& work, unsigned reasons) {
    {
        PMutexHold hold(lock_);
        Append(*work, work, reasons);
        if (waiting_ == 0 || std::exchange(woken_, true)) return;
    }
    events_.Wake();
}

void WorkQueue::Watch(int socket, const WorkPtr& work, For what) {
    const auto index = static_cast<size_t>(socket);
    PMutexHold hold(lock_);
    if (watched_.size() <= index) watched_.resize(index + 1);
    Watched& entry = watched_[index];
    ++entry.generation;
    entry.work = work;
    const int error = events_.Watch(socket, TagOf(socket, entry.generation), what);
    if (error == 0) return;
    entry.work = nullptr;
    throw std::system_error(error, std::generic_category(), "watching a socket");
}

void WorkQueue::Change(int socket, For what) {
    PMutexHold hold(lock_);
    const auto index = static_cast<size_t>(socket);
    if (index < watched_.size() && watched_[index].work)
        events_.Change(socket, TagOf(socket, watched_[index].generation), what);
}

void WorkQueue::Unwatch(int socket) {
    WorkPtr forgotten;
    PMutexHold hold(lock_);
    const auto index = static_cast<size_t>(socket);
    if (index >= watched_.size() || !watched_[index].work) return;
    forgotten = std::move(watched_[index].work);
    events_.Forget(socket);
}

void WorkQueue::AddEvents(const platform::SocketEvents::Event* events, int count) {
    for (int i = 0; i < count; ++i) {
        const auto& event = events[i];
        const auto index = static_cast<uint32_t>(event.tag);
        if (index >= watched_.size()) continue;
        const Watched& entry = watched_[index];
        if (!entry.work || entry.generation != event.tag >> generationShift) continue;
        const unsigned reasons = (event.readable ? Work::readable : 0) | (event.writable ? Work::writable : 0) |
                                 (event.ended ? Work::ended : 0);
        Append(*entry.work, entry.work, reasons);
    }
}

// Asks the system what has happened, and waits for it if `waits`; the rest as TakeQueued.
bool WorkQueue::Look(Due& due, bool& waits) {
    std::array<platform::SocketEvents::Event, maxEvents> events;
    const int count = events_.Wait(events.data(), maxEvents, waits ? -1 : 0);
    PMutexHold hold(lock_);
    if (waits) --waiting_;
    woken_ = false;
    AddEvents(events.data(), count);
    leftOfRound_ = queued_;
    return TakeQueued(due, waits);
}

void WorkQueue::WakeOne() {
    {
        PMutexHold hold(lock_);
        if ((!first_ && endBehind_ == 0) || waiting_ == 0) return;
    }
    events_.Wake();
}

bool WorkQueue::AddBehindOthers(const WorkPtr& work, unsigned reasons) {
    PMutexHold hold(lock_);
    if (!RoundGoesOn() || endBehind_ == maxBehind || stopped_) return false;
    if (endBehind_ == 0) behindUntil_ = std::chrono::steady_clock::now() + longestBehind;
    behind_[endBehind_++] = {work, reasons};
    return true;
}

bool WorkQueue::IsBehindDue() const {
    if (nextBehind_ == endBehind_) return false;
    if (nextBehind_ > 0 || !RoundGoesOn()) return true;
    return leftOfRound_ % clockEvery == 0 && std::chrono::steady_clock::now() >= behindUntil_;
}

WorkQueue::Due WorkQueue::PopBehind() {
    Due due = std::move(behind_[nextBehind_++]);
    if (nextBehind_ == endBehind_) nextBehind_ = endBehind_ = 0;
    return due;
}

// False when the system is to be asked first; `waits` says whether there is time for it.
bool WorkQueue::TakeQueued(Due& due, bool& waits) {
    if (stopped_) return true;
    if (IsBehindDue()) {
        due = PopBehind();
        return true;
    }
    if (RoundGoesOn()) {
        --leftOfRound_;
        due = Pop();
        return true;
    }
    waits = !first_;
    if (waits) ++waiting_;
    return false;
}

WorkQueue::Due WorkQueue::Take() {
    Due due;
    bool waits = false;
    bool isThere = false;
    {
        PMutexHold hold(lock_);
        isThere = TakeQueued(due, waits);
    }
    while (!isThere) isThere = Look(due, waits);
    if (!due.work) events_.Wake();  // the next one that waits
    return due;
}

void WorkQueue::Stop() {
    std::vector<Watched> watched;
    {
        PMutexHold hold(lock_);
        stopped_ = true;
        watched.swap(watched_);
        leftOfRound_ = 0;
    }
    events_.Wake();
    for (;;) {
        WorkPtr forgotten;
        PMutexHold hold(lock_);
        if (!first_ && endBehind_ == 0) return;
        forgotten = first_ ? Pop().work : PopBehind().work;
    }
}

}  // namespace kel::transport
