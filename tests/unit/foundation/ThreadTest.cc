#include "foundation/Thread.h"

#include "foundation/Locks.h"

#include <gtest/gtest.h>
#include <pthread.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <stdexcept>
#include <thread>
#include <vector>

namespace {

constexpr long deadlineMs = 30000;  // milliseconds

// Counts its live copies, so that a test sees when the last one is gone; its thread waits to be let go.
class Work : public PThreadDelegateGeneric {
public:
    Work(std::atomic<int>& alive, PManualEvent& go, PManualEvent& done) : alive_(alive), go_(go), done_(done) {
        ++alive_;
    }
    ~Work() override {
        --alive_;
        if (ran_) done_.set();
    }
    unsigned int Invoke(void*) override {
        go_.waitSignalled();
        ran_ = true;
        return 0;
    }
    Work* clone() const override { return new Work(alive_, go_, done_); }

private:
    std::atomic<int>& alive_;
    PManualEvent& go_;
    PManualEvent& done_;
    bool ran_ = false;
};

struct Counter {
    unsigned int add(void* amount) { return total += *static_cast<unsigned int*>(amount); }
    unsigned int total = 0xfffffff0U;
};

unsigned int returnAtOnce(void*) { return 3; }

TEST(AThread, GivesItsDelegateTheArgumentAndItsJoinerTheResult) {
    Counter counter;
    unsigned int amount = 15;
    PThread thread(new PThreadDelegateMember<Counter>(&counter, &Counter::add), &amount);
    thread.Start();
    EXPECT_EQ(thread.Join(), 0xffffffffU);
    EXPECT_EQ(counter.total, 0xffffffffU);
    EXPECT_EQ(thread.Join(), 0U) << "a second join has nothing to wait for";
    for (int i = 0; i < 200; ++i) {
        PThread brief(new PThreadDelegateFunction(returnAtOnce));
        brief.Start();
        if (i % 2 == 0) {
            EXPECT_EQ(brief.Join(), 3U);
        }
    }
}

TEST(AThread, DestroyedUnjoinedRunsToTheEndAndFreesItsDelegate) {
    std::atomic<int> alive{0};
    PManualEvent go;
    PManualEvent done;
    {
        PThread thread(new Work(alive, go, done));
        thread.Start();
    }
    EXPECT_EQ(alive, 1);
    go.set();
    EXPECT_TRUE(done.waitSignalled(deadlineMs));
    EXPECT_EQ(alive, 0);
    PThread(new Work(alive, go, done)).Join();
    EXPECT_EQ(alive, 0) << "one that was never started";
}

TEST(AThread, ThatTheSystemRefusesThrowsTheErrorNumber) {
    pthread_attr_t normal;
    pthread_attr_t huge;
    ASSERT_EQ(pthread_getattr_default_np(&normal), 0);
    ASSERT_EQ(pthread_getattr_default_np(&huge), 0);
    ASSERT_EQ(pthread_attr_setstacksize(&huge, size_t{1} << 46), 0);
    ASSERT_EQ(pthread_setattr_default_np(&huge), 0);
    PThread thread(new PThreadDelegateFunction(returnAtOnce));
    try {
        thread.Start();
        ADD_FAILURE() << "started with a stack of 64 TiB";
    } catch (const std::runtime_error& error) {
        EXPECT_STREQ(error.what(), "Failed to create thread: 11");
    }
    ASSERT_EQ(pthread_setattr_default_np(&normal), 0);
    pthread_attr_destroy(&normal);
    pthread_attr_destroy(&huge);
    EXPECT_EQ(thread.Join(), 0U);
}

struct Waiter {
    unsigned int wait(void*) { return event.waitSignalled(deadlineMs); }
    unsigned int take(void*) {
        go.waitSignalled();
        return event.testAndReset();
    }
    PManualEvent go;
    PManualEvent event;
};

unsigned int sumOfThreads(Waiter& waiter, unsigned int (Waiter::*method)(void*), PManualEvent& release) {
    std::vector<std::unique_ptr<PThread>> threads;
    for (int i = 0; i < 8; ++i) {
        threads.emplace_back(new PThread(new PThreadDelegateMember<Waiter>(&waiter, method)));
        threads.back()->Start();
    }
    release.set();
    unsigned int sum = 0;
    for (const auto& thread : threads) sum += thread->Join();
    return sum;
}

TEST(AManualEvent, WakesAllWhoWaitAndIsTakenByOneOfThoseWhoTestAndResetIt) {
    Waiter waiter;
    EXPECT_EQ(sumOfThreads(waiter, &Waiter::wait, waiter.event), 8U);
    waiter.event.waitSignalled();
    EXPECT_EQ(sumOfThreads(waiter, &Waiter::take, waiter.go), 1U);
    EXPECT_FALSE(waiter.event.waitSignalled(1));
    waiter.event.set();
    waiter.event.reset();
    EXPECT_FALSE(waiter.event.waitSignalled(1));
}

// Those who pass something on, one to the next.
class Relay {
public:
    // Comes, and returns when the next one has come; or after a while, since he may have to wait for the one who goes.
    void Pass() {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(100);
        PMutexHold hold(come_);
        const int mine = ++count_;
        come_.broadcast();
        while (count_ == mine && come_.waitUntil(deadline)) {
        }
    }
    void Await(int count) {
        PMutexHold hold(come_);
        while (count_ < count) come_.wait();
    }

private:
    PCondMutex come_;
    int count_ KEL_GUARDED_BY(come_) = 0;
};

TEST(AReadWriteLock, LetsAWriterInWhereThereIsAlwaysAReader) {
    PReadWriteLock lock;
    Relay relay;
    std::atomic<bool> ends{false};
    const auto read = [&] {
        while (!ends) {
            PReadHold hold(lock);
            relay.Pass();
        }
    };
    std::thread readers[] = {std::thread(read), std::thread(read)};
    relay.Await(10);
    PManualEvent isIn;
    std::thread writer([&] {
        PWriteHold hold(lock);
        isIn.set();
    });
    EXPECT_TRUE(isIn.waitSignalled(deadlineMs));
    ends = true;
    for (std::thread* thread : {&readers[0], &readers[1], &writer}) thread->join();
}

}  // namespace
