// The threads of an endpoint. WorkerPool.cc opens with how they share the work.
#pragma once

#include "foundation/Locks.h"
#include "foundation/Thread.h"

#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

namespace kel::transport {

// Runs an io_context on as few threads as keep it moving, and starts more when they block. Start and Stop belong to the
// owner's thread; everything else may be called from any thread.
class WorkerPool {
public:
    static constexpr size_t maxThreads = 512;

    WorkerPool();
    ~WorkerPool();

    boost::asio::io_context& io() { return io_; }

    // Starts the first thread; std::runtime_error when the system has none to give.
    void Start();
    // Ends all threads when the handlers that they run have returned. Handlers that still wait are never run. Final.
    void Stop();
    // Whether the calling thread is one of this pool's.
    bool OnWorker() const;

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
    // Does it at once; if an exception ends it, the monitor's thread does it again until none does. Not for a chore
    // that is due already. Throws nothing and takes no memory.
    void Do(Chore& chore);

private:
    struct Worker;

public:
    // Marks code that is not the library's, which may take its time: a published method. A worker that is found inside
    // the same scope for a whole tick of the monitor no longer counts, and another thread goes on in its place.
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

    // Says that the calling thread is about to wait for something that the pool's other threads must bring about, so
    // that no time is lost until the monitor finds out. Ends with the enclosing DelegateScope.
    void AboutToBlock();
    // The same for whoever does not know of which pool the thread is, if it is of one.
    static void ThisThreadBlocks();

    // Much memory has been freed: the monitor's thread returns it to the system within a second or two. Throws nothing.
    void TidySoon();

private:
    unsigned int WorkerMain(void* worker);
    unsigned int MonitorMain(void*);
    bool Park(Worker& worker);
    void GiveUp(Worker& worker);
    void Rejoin(Worker& worker);
    bool Inspect();
    void JoinEnded();
    void WakeMonitor();
    bool DoChores();
    void SleepUntilWork();
    void TidyIfDue();
    void PromoteOne() KEL_REQUIRES(lock_);
    bool StartWorker() KEL_REQUIRES(lock_);

    std::atomic<bool> stopping_{false};

    PMutex lock_;
    std::vector<std::unique_ptr<Worker>> workers_ KEL_GUARDED_BY(lock_);
    std::vector<Worker*> parked_ KEL_GUARDED_BY(lock_);
    int active_ KEL_GUARDED_BY(lock_) = 0;    // workers that run, or are about to run, the io_context
    size_t ended_ KEL_GUARDED_BY(lock_) = 0;  // workers whose threads are to be joined
    bool complained_ KEL_GUARDED_BY(lock_) = false;

    PCondMutex monitorLock_;
    Chore* chores_ KEL_GUARDED_BY(monitorLock_) = nullptr;  // that are due
    std::atomic<bool> monitorAsleep_{false};
    std::atomic<bool> untidy_{false};
    int ticksSinceTidy_ = 0;  // the monitor's
    std::unique_ptr<PThread> monitor_;

    // Last: what its handlers hold goes first, and may still call TidySoon.
    boost::asio::io_context io_;
    boost::asio::executor_work_guard<boost::asio::io_context::executor_type> work_;
};

}  // namespace kel::transport
