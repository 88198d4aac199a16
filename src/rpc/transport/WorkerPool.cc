// How the threads share the work
//
// One thread, the leader, waits for the sockets and runs what their bytes ask for itself: a short method is read, run
// and answered on one thread, with no hand-over and no lock that anybody contends for. A second running thread would
// win nothing for short methods; it would only be woken and find nothing to do.
//
// A method that blocks must not stop the rest. So every worker says when it enters and leaves code that is not the
// library's (DelegateScope, two atomic exchanges), and a monitor thread looks once a millisecond while there is work: a
// worker that is still inside the same method as at the last look is given up (it no longer counts as running), and
// when nobody is left another leader is promoted: a parked thread, or a new one, up to maxThreads. A worker that knows
// that it is going to wait says so itself (AboutToBlock) and is replaced at once.
//
// A worker that was given up finds out when its method returns. It counts again then, and since a leader exists by that
// time it parks until it is needed. With nothing to do for a while the monitor sleeps as well, and the first worker
// that enters a method wakes it.
//
// A worker's state is one word: two bits say where it is, the rest counts the methods that it has entered, so that the
// monitor can tell one long method from two short ones. Whoever changes `inMethod` to `givenUp` (by compare-and-swap)
// takes the worker off the count; the worker, leaving, sees that in what its exchange returns.
//
// No lack of memory ends a thread or loses one: what the threads need to be kept in is taken beforehand, a thread that
// cannot be started is tried again at the next look, and the monitor repeats the chores that failed.
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
constexpr int idleTicksBeforeSleep = 100;
constexpr int ticksBetweenTidying = 1000;
constexpr size_t maxParked = 16;  // threads kept for the next burst; what is more ends

constexpr uint64_t placeMask = 3;
constexpr uint64_t inLibrary = 0;
constexpr uint64_t inMethod = 1;
constexpr uint64_t givenUp = 2;
constexpr uint64_t oneMethod = 4;

}  // namespace

struct WorkerPool::Worker {
    std::atomic<uint64_t> state{inLibrary};
    uint64_t lastSeen = inLibrary;  // the monitor's
    bool surplus = false;           // the worker's own
    bool ended = false;             // guarded by the pool's lock: its thread is to be joined
    PManualEvent promoted;
    std::unique_ptr<PThread> thread;
};

namespace {
thread_local WorkerPool* currentPool = nullptr;
thread_local void* currentWorker = nullptr;
}  // namespace

WorkerPool::WorkerPool() : work_(boost::asio::make_work_guard(io_)) { parked_.reserve(maxParked); }

WorkerPool::~WorkerPool() { Stop(); }

void WorkerPool::Start() {
    {
        PMutexHold hold(lock_);
        if (!StartWorker()) throw std::runtime_error("no thread for the remote-call library");
    }
    monitor_ =
        std::make_unique<PThread>(new PThreadDelegateMember<WorkerPool>(this, &WorkerPool::MonitorMain), nullptr);
    monitor_->Start();
}

void WorkerPool::Stop() {
    if (stopping_.exchange(true)) return;
    work_.reset();
    io_.stop();
    if (monitor_) {
        WakeMonitor();
        monitor_->Join();
    }
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
        try {
            if (io_.run_one() == 0) break;
        } catch (const std::exception& error) {
            Quietly([&] { CBBLog::error(LibraryLogger(), "libkel: an exception ended a handler: %s", error.what()); });
        } catch (...) {
            Quietly([] { CBBLog::error(LibraryLogger(), "libkel: an exception of an unknown type ended a handler"); });
        }
        if (worker.surplus && !Park(worker)) break;
    }
    return 0;
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
    PMutexHold hold(lock_);
    --active_;
    PromoteOne();
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
    if (pool_.monitorAsleep_.load()) pool_.WakeMonitor();
}

WorkerPool::DelegateScope::~DelegateScope() {
    if (!worker_) return;
    const uint64_t current = worker_->state.load(std::memory_order_relaxed) & ~placeMask;
    if ((worker_->state.exchange(current | inLibrary) & placeMask) == givenUp) pool_.Rejoin(*worker_);
}

unsigned int WorkerPool::MonitorMain(void*) {
    int idleTicks = 0;
    while (!stopping_) {
        if (idleTicks >= idleTicksBeforeSleep) {
            SleepUntilWork();
            idleTicks = 0;
        }
        std::this_thread::sleep_for(tick);
        const bool hadChores = DoChores();
        const bool busy = Inspect() || hadChores;
        idleTicks = busy || untidy_ ? 0 : idleTicks + 1;
        TidyIfDue();
        Quietly([this] { JoinEnded(); });
    }
    return 0;
}

void WorkerPool::TidySoon() {
    if (!untidy_.exchange(true) && monitorAsleep_) WakeMonitor();
}

// At most once a second, since it holds up whoever needs memory meanwhile.
void WorkerPool::TidyIfDue() {
    if (++ticksSinceTidy_ < ticksBetweenTidying || !untidy_.exchange(false)) return;
    ticksSinceTidy_ = 0;
    yar::ReturnFreeMemory();
}

void WorkerPool::Do(Chore& chore) {
    if (Quietly(chore.work_)) return;
    PMutexHold hold(monitorLock_);
    chore.next_ = std::exchange(chores_, &chore);
    monitorAsleep_ = false;
    monitorLock_.signal();
}

// Whether there were any.
bool WorkerPool::DoChores() {
    Chore* due = nullptr;
    {
        PMutexHold hold(monitorLock_);
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
    PMutexHold hold(lock_);
    for (const auto& worker : workers_) {
        uint64_t state = worker->state.load();
        const bool same = state == worker->lastSeen;
        worker->lastSeen = state;
        if ((state & placeMask) != inMethod) {
            busy |= !same;
            continue;
        }
        busy = true;
        if (same && worker->state.compare_exchange_strong(state, (state & ~placeMask) | givenUp)) --active_;
    }
    if (active_ == 0) {
        busy = true;
        PromoteOne();
    }
    return busy;
}

void WorkerPool::WakeMonitor() {
    PMutexHold hold(monitorLock_);
    monitorAsleep_ = false;
    monitorLock_.signal();
}

void WorkerPool::SleepUntilWork() {
    PMutexHold hold(monitorLock_);
    monitorAsleep_ = true;
    if (chores_ || untidy_ || Inspect())
        monitorAsleep_ = false;  // that came before it could be seen that the monitor sleeps
    while (monitorAsleep_ && !stopping_) monitorLock_.wait();
}

}  // namespace kel::transport
