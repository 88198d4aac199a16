// What the threads of an endpoint have to do next. WorkQueue.cc opens with how it is kept.
#pragma once

#include "foundation/Locks.h"
#include "platform/SocketEvents.h"

#include <array>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

namespace kel::transport {

class WorkQueue;

// What can be due, for one reason or for several. Held by shared pointers; the queue holds it while it is due.
class Work {
public:
    virtual ~Work() = default;

    // Bits of `reasons`; the others are the implementation's own.
    static constexpr unsigned readable = 1;
    static constexpr unsigned writable = 2;
    static constexpr unsigned ended = 4;
    static constexpr unsigned firstOwn = 8;

    // On a worker thread: does what is due, for all that it was queued for since the last call. Several threads may be
    // here at once. What it throws goes to the log.
    virtual void Run(unsigned reasons) = 0;

private:
    friend WorkQueue;
    // Guarded by the queue's lock.
    unsigned due_ = 0;  // 0: not queued
    Work* next_ = nullptr;
    std::shared_ptr<Work> self_;  // while it is queued
};
using WorkPtr = std::shared_ptr<Work>;

// Any thread.
class WorkQueue {
public:
    using For = platform::SocketEvents::For;

    WorkQueue() = default;
    ~WorkQueue();
    WorkQueue(const WorkQueue&) = delete;
    WorkQueue& operator=(const WorkQueue&) = delete;

    // Has `work` run behind what is queued already. Takes no memory.
    void Add(const WorkPtr& work, unsigned reasons);

    // Whether many others have their turn before the system is asked again. A hint: they may have had it by now.
    bool IsBusy() const { return leftOfRound_.load(std::memory_order_relaxed) >= many; }
    // Has `work` run when those have had their turn, or soon. False, and it is not queued, when there are none left, or
    // too much has been put behind them already. Takes no memory.
    bool AddBehindOthers(const WorkPtr& work, unsigned reasons);

    // Has `work` run for the events of `socket`, which it keeps open, until Unwatch; std::exception when that cannot
    // be.
    void Watch(int socket, const WorkPtr& work, For what);
    // What it is watched for from now on; tells of what is there already. Nothing when it is not watched any more.
    void Change(int socket, For what);
    void Unwatch(int socket);

    struct Due {
        WorkPtr work;  // null: the queue has been stopped
        unsigned reasons = 0;
    };
    // Waits for what is next.
    Due Take();

    // A thread that was to take what is queued is held up: if another one waits in the system it comes for it.
    void WakeOne();

    // Ends every Take, now and later, and forgets what is queued.
    void Stop();

private:
    static constexpr size_t many = 16;
    static constexpr size_t maxBehind = 64;

    struct Watched {
        WorkPtr work;
        uint32_t generation = 0;  // of the sockets that had the number
    };

    void Append(Work& work, const WorkPtr& self, unsigned reasons) KEL_REQUIRES(lock_);
    Due Pop() KEL_REQUIRES(lock_);
    bool RoundGoesOn() const KEL_REQUIRES(lock_) { return leftOfRound_ > 0 && first_; }
    bool IsBehindDue() const KEL_REQUIRES(lock_);
    Due PopBehind() KEL_REQUIRES(lock_);
    void AddEvents(const platform::SocketEvents::Event* events, int count) KEL_REQUIRES(lock_);
    bool TakeQueued(Due& due, bool& waits) KEL_REQUIRES(lock_);
    bool Look(Due& due, bool& waits);

    platform::SocketEvents events_;

    PMutex lock_;
    Work* first_ KEL_GUARDED_BY(lock_) = nullptr;
    Work* last_ KEL_GUARDED_BY(lock_) = nullptr;
    size_t queued_ KEL_GUARDED_BY(lock_) = 0;
    std::atomic<size_t> leftOfRound_{0};                       // changes with the lock held
    std::array<Due, maxBehind> behind_ KEL_GUARDED_BY(lock_);  // the round; in use: [nextBehind_, endBehind_)
    size_t nextBehind_ KEL_GUARDED_BY(lock_) = 0;
    size_t endBehind_ KEL_GUARDED_BY(lock_) = 0;
    std::chrono::steady_clock::time_point behindUntil_ KEL_GUARDED_BY(lock_);
    int waiting_ KEL_GUARDED_BY(lock_) = 0;  // threads
    bool woken_ KEL_GUARDED_BY(lock_) = false;
    bool stopped_ KEL_GUARDED_BY(lock_) = false;
    std::vector<Watched> watched_ KEL_GUARDED_BY(lock_);  // by socket
};

// A piece of work that is done once.
class Task : public Work {
public:
    explicit Task(std::function<void()> code) : code_(std::move(code)) {}
    void Run(unsigned) override { code_(); }

private:
    const std::function<void()> code_;
};

}  // namespace kel::transport
