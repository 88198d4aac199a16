// The threads of an endpoint. WorkerPool.cc opens with how they share the work.
#pragma once

#include "foundation/Locks.h"
#include "foundation/Thread.h"
#include "rpc/transport/WorkQueue.h"

#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <vector>

namespace kel::transport {

// Runs the work of a queue on as few threads as keep it moving, and starts more when they block. Start and Stop belong
// to the owner's thread; everything else may be called from any thread.
class WorkerPool {
public:
    static constexpr size_t maxThreads = 512;

    WorkerPool();
    ~WorkerPool();

    // For timers, for connecting and for accepting: its handlers run on the housekeeper's thread, and must not wait.
    boost::asio::io_context& io() { return io_; }

    // Starts the first threads; std::runtime_error when the system has none to give.
    void Start();
    // Ends all threads when what they run has returned. What still waits is never run. Final.
    void Stop();
    // Whether the calling thread is one of the workers.
    bool OnWorker() const;

    WorkQueue& queue() { return queue_; }
    // Has `code` run by a worker.
    void Post(std::function<void()> code) { queue_.Add(std::make_shared<Task>(std::move(code)), Work::firstOwn); }

    // What must be done though there may be no memory for it now, such as the next wait for a connection. Belongs to
    // whoever has it done, and must outlive the threads.
    class Chore {
    public:
        explicit Chore(std::function<void()> work) : work_(std::move(work)) {}
        Chore(const Chore&) = delete;
        Chore& operator=(const Chore&) = delete;

    private:
        friend WorkerPool;
        const std::function<void()> work_;
        Chore* next_ = nullptr;  // of those that are due
    };
    // Does it at once; if an exception ends it, the housekeeper does it again until none does. Not for a chore that is
    // due already. Throws nothing and takes no memory.
    void Do(Chore& chore);

private:
    struct Worker;

public:
    // Marks code that is not the library's, which may take its time: a published method. A worker that is found inside
    // the same scope for a whole tick of the housekeeper no longer counts, and another thread goes on in its place.
    class DelegateScope {
    public:
        explicit DelegateScope(WorkerPool& pool);
        ~DelegateScope();
        DelegateScope(const DelegateScope&) = delete;
        DelegateScope& operator=(const DelegateScope&) = delete;

    private:
        WorkerPool& pool_;
        Worker* worker_;
    };

    // What a worker was about to do next, and somebody else has to do when it is held up.
    class Relay {
    public:
        virtual ~Relay() = default;
        // Any thread, no lock held. Throws nothing.
        virtual void TakeOver() = 0;
    };
    // Offers a relay while it lives: around a DelegateScope, by a worker, one at a time.
    class Offer {
    public:
        Offer(const WorkerPool& pool, Relay& relay);
        ~Offer() { Withdraw(); }
        Offer(const Offer&) = delete;
        Offer& operator=(const Offer&) = delete;

        // Ends the offer; false when it has been taken over. Waits for a TakeOver that is under way.
        bool Withdraw();

    private:
        Worker* worker_;  // null: not on a worker, or withdrawn
    };

    // Says that the calling thread is about to wait for something that the pool's other threads must bring about, so
    // that no time is lost until the housekeeper finds out. Ends with the enclosing DelegateScope.
    void AboutToBlock();
    // The same for whoever does not know of which pool the thread is, if it is of one.
    static void ThisThreadBlocks();

    // Much memory has been freed: the housekeeper returns it to the system within a second or two. Throws nothing.
    void TidySoon();

private:
    unsigned int WorkerMain(void* worker);
    bool RunWork(const WorkQueue::Due& due);
    unsigned int HousekeeperMain(void*);
    void RunHandlers(bool untilWoken);
    bool Park(Worker& worker);
    void GiveUp(Worker& worker);
    void Relieve(Worker& worker);
    void Rejoin(Worker& worker);
    bool Inspect();
    bool GiveUpThoseHeldUp() KEL_REQUIRES(lock_);
    void JoinEnded();
    void WakeHousekeeper();
    bool DoChores();
    bool MaySleep();
    void TidyIfDue();
    void PromoteOne() KEL_REQUIRES(lock_);
    bool StartWorker() KEL_REQUIRES(lock_);

    std::atomic<bool> stopping_{false};

    PMutex lock_;
    std::vector<std::unique_ptr<Worker>> workers_ KEL_GUARDED_BY(lock_);
    std::vector<Worker*> parked_ KEL_GUARDED_BY(lock_);
    int active_ KEL_GUARDED_BY(lock_) = 0;    // workers that take work from the queue, or are about to
    size_t ended_ KEL_GUARDED_BY(lock_) = 0;  // workers whose threads are to be joined
    bool complained_ KEL_GUARDED_BY(lock_) = false;

    PMutex choresLock_;
    Chore* chores_ KEL_GUARDED_BY(choresLock_) = nullptr;  // that are due
    std::atomic<bool> asleep_{false};                      // the housekeeper
    std::atomic<bool> untidy_{false};
    std::vector<Worker*> relieved_;                                // the housekeeper's
    std::optional<std::chrono::steady_clock::time_point> tidyAt_;  // likewise
    std::unique_ptr<PThread> housekeeper_;

    // Last: what they hold goes first, and may still call TidySoon.
    WorkQueue queue_;
    boost::asio::io_context io_{1};
    boost::asio::executor_work_guard<boost::asio::io_context::executor_type> work_;
};

}  // namespace kel::transport
