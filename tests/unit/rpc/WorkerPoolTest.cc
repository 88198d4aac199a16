#include "rpc/transport/WorkerPool.h"

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <set>
#include <thread>

using kel::transport::WorkerPool;

namespace {

// Counts arrivals and lets them go together.
class Gate {
public:
    void Pass() {
        std::unique_lock<std::mutex> hold(mutex_);
        ++arrived_;
        threads_.insert(std::this_thread::get_id());
        condition_.notify_all();
        condition_.wait(hold, [this] { return open_; });
    }
    void Count() {
        const std::lock_guard<std::mutex> hold(mutex_);
        ++arrived_;
        threads_.insert(std::this_thread::get_id());
        condition_.notify_all();
    }
    bool AwaitArrivals(int count) {
        std::unique_lock<std::mutex> hold(mutex_);
        return condition_.wait_for(hold, std::chrono::seconds(60), [&] { return arrived_ >= count; });
    }
    void Open() {
        const std::lock_guard<std::mutex> hold(mutex_);
        open_ = true;
        condition_.notify_all();
    }
    size_t threads() {
        const std::lock_guard<std::mutex> hold(mutex_);
        return threads_.size();
    }

private:
    std::mutex mutex_;
    std::condition_variable condition_;
    std::set<std::thread::id> threads_;
    int arrived_ = 0;
    bool open_ = false;
};

}  // namespace

TEST(AWorkerPool, RunsShortMethodsOnOneThread) {
    WorkerPool pool;
    pool.Start();
    Gate done;
    for (int i = 0; i < 1000; ++i) {
        pool.Post([&] {
            const WorkerPool::DelegateScope scope(pool);
            done.Count();
        });
    }
    ASSERT_TRUE(done.AwaitArrivals(1000));
    EXPECT_LE(done.threads(), 4u) << "a thread that was not scheduled for a while may have been replaced, not more";
}

TEST(AWorkerPool, GrowsWhileMethodsBlockAndServesOthersMeanwhile) {
    WorkerPool pool;
    pool.Start();
    Gate blocked;
    constexpr int blockers = 40;
    for (int i = 0; i < blockers; ++i) {
        pool.Post([&, sayso = i % 2 == 0] {
            const WorkerPool::DelegateScope scope(pool);
            if (sayso) pool.AboutToBlock();
            blocked.Pass();
        });
    }
    ASSERT_TRUE(blocked.AwaitArrivals(blockers)) << "all of them block at once, each on a thread of its own";
    Gate served;
    pool.Post([&] { served.Count(); });
    EXPECT_TRUE(served.AwaitArrivals(1));
    blocked.Open();

    // The crowd goes home: what blocked runs on, and a second crowd is served as well.
    Gate again;
    for (int i = 0; i < blockers; ++i) {
        pool.Post([&] {
            const WorkerPool::DelegateScope scope(pool);
            again.Pass();
        });
    }
    ASSERT_TRUE(again.AwaitArrivals(blockers));
    again.Open();
}

TEST(AWorkerPool, WakesItsHousekeeperAfterAPause) {
    WorkerPool pool;
    pool.Start();
    std::this_thread::sleep_for(std::chrono::milliseconds(400));  // long enough for it to have gone to sleep
    Gate blocked;
    for (int i = 0; i < 3; ++i) {
        pool.Post([&] {
            const WorkerPool::DelegateScope scope(pool);
            blocked.Pass();
        });
    }
    EXPECT_TRUE(blocked.AwaitArrivals(3));
    blocked.Open();
}

// The housekeeper is busy with what another thread offered when it comes to one that has gone on meanwhile, offers
// something else and says that it will wait.
TEST(AWorkerPool, TakesOverOnceWhatAThreadOffers) {
    struct SlowRelay : WorkerPool::Relay {
        void TakeOver() override {
            begun.set();
            mayEnd.waitSignalled();
        }
        PManualEvent begun, mayEnd;
    };
    for (int round = 0; round < 20; ++round) {
        WorkerPool pool;
        pool.Start();
        SlowRelay ofFirst, ofSecond;
        PManualEvent secondIsThere, firstMayEnd, done;
        pool.Post([&] {
            {
                const WorkerPool::DelegateScope scope(pool);
                pool.AboutToBlock();
                secondIsThere.waitSignalled();
            }
            const WorkerPool::Offer offer(pool, ofFirst);
            const WorkerPool::DelegateScope scope(pool);
            firstMayEnd.waitSignalled();
        });
        pool.Post([&] {
            {
                const WorkerPool::DelegateScope scope(pool);
                secondIsThere.set();
                ofFirst.begun.waitSignalled();
            }
            {
                WorkerPool::Offer offer(pool, ofSecond);
                const WorkerPool::DelegateScope scope(pool);
                ofFirst.mayEnd.set();
                ofSecond.begun.waitSignalled();
                pool.AboutToBlock();
                ofSecond.mayEnd.set();
                EXPECT_FALSE(offer.Withdraw());
            }
            done.set();
        });
        done.waitSignalled();
        firstMayEnd.set();
        pool.Stop();
    }
}

TEST(AWorkerPool, StopsWhileHandlersAreQueuedAndWaitsForTheRunningOne) {
    Gate running;
    bool finished = false;
    {
        WorkerPool pool;
        pool.Start();
        pool.Post([&] {
            const WorkerPool::DelegateScope scope(pool);
            running.Pass();
            finished = true;
        });
        ASSERT_TRUE(running.AwaitArrivals(1));
        std::thread opener([&] { running.Open(); });
        pool.Stop();
        opener.join();
    }
    EXPECT_TRUE(finished);
}
