// How the threads share the work
//
// One thread, the leader, waits for the sockets and runs what their bytes ask for itself: a short method is read, run
// and answered on one thread, with no hand-over and no lock that anybody contends for. A second running thread would
// win nothing for short methods; it would only be woken and find nothing to do.
//
// A method that blocks must not stop the rest. So every worker says when it enters and leaves code that is not the
// library's (DelegateScope, two atomic exchanges), and the housekeeper looks once a millisecond while there is work: a
// worker that is still inside the same method as at the last look is given up (it no longer counts as running), and
// when nobody is left another leader is promoted: a parked thread, or a new one, up to maxThreads. A worker that knows
// that it is going to wait says so itself (AboutToBlock) and is replaced at once.
//
// What a worker has at hand besides that method, further calls that came with it for instance, it offers meanwhile
// (Offer): one word that holds the relay, is emptied by the worker when the method has returned, and by whoever gives
// the worker up, who then sees to it that somebody else goes on. While he does so the word says `beingTaken`, and a
// worker that comes back waits for him: what was offered is the worker's to destroy.
//
// A worker that was given up finds out when its method returns. It counts again then, and since a leader exists by that
// time it parks until it is needed.
//
// A worker's state is one word: two bits say where it is, the rest counts the methods that it has entered, so that the
// housekeeper can tell one long method from two short ones. Whoever changes `inMethod` to `givenUp` (by
// compare-and-swap) takes the worker off the count; the worker, leaving, sees that in what its exchange returns.
//
// The housekeeper's thread also runs the handlers of the io_context, which are few: timers, connections that are made
// or accepted. With nothing of all that to do it sleeps until a handler is due or a worker enters a method.
//
// No lack of memory ends a thread or loses one: what the threads need to be kept in is taken beforehand, a thread that
// cannot be started is tried again at the next look, and the housekeeper repeats the chores that failed.
#include "rpc/transport/WorkerPool.h"

#include "foundation/FreeMemory.h"
#include "rpc/transport/LibraryLog.h"
#include "rpc/transport/Quietly.h"

#include <algorithm>
#include <chrono>
#include <exception>
#include <iterator>
#include <stdexcept>
#include <thread>
#include <utility>

namespace kel::transport {

namespace {

constexpr auto tick = std::chrono::milliseconds(1);
constexpr int quietLooksBeforeSleep = 3;
constexpr auto tidyDelay = std::chrono::seconds(1);
constexpr size_t maxParked = 16;  // threads kept for the next burst; what is more ends

constexpr uint64_t placeMask = 3;
constexpr uint64_t inLibrary = 0;
constexpr uint64_t inMethod = 1;
constexpr uint64_t givenUp = 2;
constexpr uint64_t oneMethod = 4;

// What is offered: an address, or one of these.
constexpr uintptr_t nothing = 0;
constexpr uintptr_t beingTaken = 1;

}  // namespace

struct WorkerPool::Worker {
    std::atomic<uint64_t> state{inLibrary};
    std::atomic<uintptr_t> offered{nothing};
    uint64_t lastSeen = inLibrary;  // the housekeeper's
    bool surplus = false;           // the worker's own
    bool ended = false;             // guarded by the pool's lock: its thread is to be joined
    PManualEvent promoted;
    std::unique_ptr<PThread> thread;
};

namespace {
thread_local WorkerPool* currentPool = nullptr;
thread_local void* currentWorker = nullptr;
}  // namespace

WorkerPool::WorkerPool() : work_(boost::asio::make_work_guard(io_)) {
    parked_.reserve(maxParked);
    relieved_.reserve(maxThreads);
}

WorkerPool::~WorkerPool() { Stop(); }

void WorkerPool::Start() {
    {
        PMutexHold hold(lock_);
        if (!StartWorker()) throw std::runtime_error("no thread for the remote-call library");
    }
    housekeeper_ =
        std::make_unique<PThread>(new PThreadDelegateMember<WorkerPool>(this, &WorkerPool::HousekeeperMain), nullptr);
    housekeeper_->Start();
}

void WorkerPool::Stop() {
    if (stopping_.exchange(true)) return;
    work_.reset();
    WakeHousekeeper();
    queue_.Stop();
    if (housekeeper_) housekeeper_->Join();
    std::vector<std::unique_ptr<Worker>> workers;
    {
        PMutexHold hold(lock_);
        workers.swap(workers_);
        parked_.clear();
        for (const auto& worker : workers) worker->promoted.set();
    }
    for (const auto& worker : workers) worker->thread->Join();
}

bool WorkerPool::OnWorker() const { return currentPool == this; }

unsigned int WorkerPool::WorkerMain(void* argument) {
    Worker& worker = *static_cast<Worker*>(argument);
    currentPool = this;
    currentWorker = &worker;
    while (!stopping_.load(std::memory_order_relaxed)) {
        if (!RunWork(queue_.Take())) break;
        if (worker.surplus && !Park(worker)) break;
    }
    return 0;
}

// False when there is no more to come.
bool WorkerPool::RunWork(const WorkQueue::Due& due) {
    if (!due.work) return false;
    try {
        due.work->Run(due.reasons);
    } catch (const std::exception& error) {
        Quietly([&] { CBBLog::error(LibraryLogger(), "libkel: an exception ended a handler: %s", error.what()); });
    } catch (...) {
        Quietly([] { CBBLog::error(LibraryLogger(), "libkel: an exception of an unknown type ended a handler"); });
    }
    return true;
}

// Waits until the worker is needed again; false when its thread is to end.
bool WorkerPool::Park(Worker& worker) {
    {
        PMutexHold hold(lock_);
        worker.surplus = false;
        if (active_ == 1 || stopping_) return !stopping_;
        --active_;
        worker.ended = parked_.size() >= maxParked;
        if (worker.ended) {
            ++ended_;
            return false;
        }
        worker.promoted.reset();
        parked_.push_back(&worker);
    }
    worker.promoted.waitSignalled();
    return !stopping_;
}

bool WorkerPool::StartWorker() {
    try {
        workers_.reserve(workers_.size() + 1);
        auto worker = std::make_unique<Worker>();
        worker->thread = std::make_unique<PThread>(new PThreadDelegateMember<WorkerPool>(this, &WorkerPool::WorkerMain),
                                                   worker.get());
        worker->thread->Start();
        ++active_;
        workers_.push_back(std::move(worker));
        return true;
    } catch (const std::exception& error) {
        if (!std::exchange(complained_, true)) {
            Quietly([&] {
                CBBLog::error(LibraryLogger(), "libkel: %s; calls wait for a running one to end", error.what());
            });
        }
        return false;
    }
}

void WorkerPool::PromoteOne() {
    if (active_ > 0 || stopping_) return;
    if (!parked_.empty()) {
        Worker* worker = parked_.back();
        parked_.pop_back();
        ++active_;
        worker->promoted.set();
    } else if (workers_.size() - ended_ < maxThreads) {
        if (StartWorker()) complained_ = false;
    } else if (!complained_) {
        complained_ = true;
        Quietly([] {
            CBBLog::warn(LibraryLogger(), "libkel: all %zu threads are inside methods; calls wait", maxThreads);
        });
    }
}

// Takes a worker that is inside a method off the count, unless somebody has done so already.
void WorkerPool::GiveUp(Worker& worker) {
    uint64_t state = worker.state.load();
    if ((state & placeMask) != inMethod) return;
    if (!worker.state.compare_exchange_strong(state, (state & ~placeMask) | givenUp)) return;
    Relieve(worker);
    {
        PMutexHold hold(lock_);
        --active_;
        PromoteOne();
    }
    queue_.WakeOne();
}

// Takes over what a worker that has been given up offers.
void WorkerPool::Relieve(Worker& worker) {
    uintptr_t offered = worker.offered.load();
    if (offered <= beingTaken || !worker.offered.compare_exchange_strong(offered, beingTaken)) return;
    reinterpret_cast<Relay*>(offered)->TakeOver();
    worker.offered = nothing;
}

void WorkerPool::Rejoin(Worker& worker) {
    PMutexHold hold(lock_);
    ++active_;
    worker.surplus = active_ > 1;
}

void WorkerPool::AboutToBlock() {
    if (currentPool == this) GiveUp(*static_cast<Worker*>(currentWorker));
}

void WorkerPool::ThisThreadBlocks() {
    if (currentPool) currentPool->AboutToBlock();
}

WorkerPool::DelegateScope::DelegateScope(WorkerPool& pool)
    : pool_(pool), worker_(currentPool == &pool ? static_cast<Worker*>(currentWorker) : nullptr) {
    if (!worker_) return;
    const uint64_t before = worker_->state.load(std::memory_order_relaxed);
    worker_->state.exchange(((before & ~placeMask) + oneMethod) | inMethod);
    if (pool_.asleep_.load()) pool_.WakeHousekeeper();
}

WorkerPool::DelegateScope::~DelegateScope() {
    if (!worker_) return;
    const uint64_t current = worker_->state.load(std::memory_order_relaxed) & ~placeMask;
    if ((worker_->state.exchange(current | inLibrary) & placeMask) == givenUp) pool_.Rejoin(*worker_);
}

WorkerPool::Offer::Offer(const WorkerPool& pool, Relay& relay)
    : worker_(currentPool == &pool ? static_cast<Worker*>(currentWorker) : nullptr) {
    // Seen by whoever gives the worker up, since its entering a method comes after it.
    if (worker_) worker_->offered.store(reinterpret_cast<uintptr_t>(&relay), std::memory_order_release);
}

bool WorkerPool::Offer::Withdraw() {
    Worker* const worker = std::exchange(worker_, nullptr);
    if (!worker) return true;
    uintptr_t offered = worker->offered.load();
    if (offered > beingTaken && worker->offered.compare_exchange_strong(offered, nothing)) return true;
    while (worker->offered == beingTaken) std::this_thread::yield();
    return false;
}

unsigned int WorkerPool::HousekeeperMain(void*) {
    int quietLooks = 0;
    while (!stopping_) {
        RunHandlers(quietLooks >= quietLooksBeforeSleep && MaySleep());
        const bool hadChores = DoChores();
        const bool busy = Inspect() || hadChores;
        quietLooks = busy ? 0 : quietLooks + 1;
        TidyIfDue();
        Quietly([this] { JoinEnded(); });
    }
    return 0;
}

// Runs what is due of the io_context: for a tick, or until something was or until somebody wakes this thread.
void WorkerPool::RunHandlers(bool untilWoken) {
    io_.restart();
    if (!asleep_ || stopping_) untilWoken = false;  // woken before it slept
    try {
        if (!untilWoken) {
            io_.run_for(tick);
        } else if (tidyAt_) {
            io_.run_one_until(*tidyAt_);
        } else {
            io_.run_one();
        }
    } catch (const std::exception& error) {
        Quietly([&] { CBBLog::error(LibraryLogger(), "libkel: an exception ended a handler: %s", error.what()); });
    } catch (...) {
        Quietly([] { CBBLog::error(LibraryLogger(), "libkel: an exception of an unknown type ended a handler"); });
    }
    asleep_ = false;
}

// Says that the housekeeper sleeps, unless something came before that could be seen.
bool WorkerPool::MaySleep() {
    asleep_ = true;
    bool chores = false;
    {
        PMutexHold hold(choresLock_);
        chores = chores_ != nullptr;
    }
    if (chores || stopping_ || (untidy_ && !tidyAt_) || Inspect()) asleep_ = false;
    return asleep_;
}

void WorkerPool::WakeHousekeeper() {
    asleep_ = false;
    io_.stop();  // until RunHandlers goes on
}

void WorkerPool::TidySoon() {
    if (!untidy_.exchange(true) && asleep_) WakeHousekeeper();
}

// Some time after it was asked for, since it holds up whoever needs memory meanwhile.
void WorkerPool::TidyIfDue() {
    if (!untidy_) return;
    const auto now = std::chrono::steady_clock::now();
    if (!tidyAt_) tidyAt_ = now + tidyDelay;
    if (now < *tidyAt_) return;
    tidyAt_.reset();
    untidy_ = false;
    yar::ReturnFreeMemory();
}

void WorkerPool::Do(Chore& chore) {
    if (Quietly(chore.work_)) return;
    {
        PMutexHold hold(choresLock_);
        chore.next_ = std::exchange(chores_, &chore);
    }
    WakeHousekeeper();
}

// Whether there were any.
bool WorkerPool::DoChores() {
    Chore* due = nullptr;
    {
        PMutexHold hold(choresLock_);
        due = std::exchange(chores_, nullptr);
    }
    const bool any = due != nullptr;
    while (due) {
        Chore& chore = *due;
        due = chore.next_;  // which changes when it fails again
        Do(chore);
    }
    return any;
}

// Joins the threads that ended because enough others were parked.
void WorkerPool::JoinEnded() {
    std::vector<std::unique_ptr<Worker>> ended;
    {
        PMutexHold hold(lock_);
        if (ended_ == 0) return;
        const auto first =
            std::partition(workers_.begin(), workers_.end(), [](const auto& worker) { return !worker->ended; });
        ended.assign(std::make_move_iterator(first), std::make_move_iterator(workers_.end()));
        workers_.erase(first, workers_.end());
        ended_ = 0;
    }
    for (const auto& worker : ended) worker->thread->Join();
}

// One look at all workers; whether any of them did or does anything.
bool WorkerPool::Inspect() {
    bool busy = false;
    {
        PMutexHold hold(lock_);
        busy = GiveUpThoseHeldUp();
    }
    for (Worker* const worker : relieved_) Relieve(*worker);
    {
        PMutexHold hold(lock_);
        busy |= active_ == 0;
        PromoteOne();
    }
    if (!relieved_.empty()) queue_.WakeOne();
    relieved_.clear();
    return busy;
}

bool WorkerPool::GiveUpThoseHeldUp() {
    bool busy = false;
    for (const auto& worker : workers_) {
        uint64_t state = worker->state.load();
        const bool same = state == worker->lastSeen;
        worker->lastSeen = state;
        if ((state & placeMask) != inMethod) {
            busy |= !same;
            continue;
        }
        busy = true;
        if (!same || !worker->state.compare_exchange_strong(state, (state & ~placeMask) | givenUp)) continue;
        --active_;
        relieved_.push_back(worker.get());
    }
    return busy;
}

}  // namespace kel::transport
