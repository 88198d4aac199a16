// The locks of the system: thin classes over POSIX threads that carry clang's capability annotations, so that a
// member marked KEL_GUARDED_BY one of them cannot be touched without it where the thread-safety job compiles.
// Results of lock, unlock, wait and destroy calls are ignored: with default attributes they only fail on misuse.
#pragma once

#include "foundation/Export.h"
#include "foundation/ThreadSafety.h"

#include <pthread.h>
#include <time.h>

#include <chrono>
#include <utility>

// A mutual-exclusion lock; not recursive.
class KEL_API KEL_CAPABILITY("mutex") PMutex {
public:
    PMutex() { pthread_mutex_init(&mutex_, nullptr); }
    virtual ~PMutex() { pthread_mutex_destroy(&mutex_); }
    PMutex(const PMutex&) = delete;
    PMutex& operator=(const PMutex&) = delete;

    void lock() KEL_ACQUIRE() { pthread_mutex_lock(&mutex_); }
    void unlock() KEL_RELEASE() { pthread_mutex_unlock(&mutex_); }

protected:
    pthread_mutex_t mutex_;
};

// A mutex with one condition variable. Every wait may wake spuriously: test the condition in a loop.
class KEL_API PCondMutex : public PMutex {
public:
    PCondMutex() { pthread_cond_init(&condition_, nullptr); }
    ~PCondMutex() override { pthread_cond_destroy(&condition_); }

    void wait() KEL_REQUIRES(this) { pthread_cond_wait(&condition_, &mutex_); }

    // Waits until a signal or until `deadline` on the wall clock; false when the deadline passed.
    bool waitUntil(const timespec& deadline) KEL_REQUIRES(this) {
        return pthread_cond_timedwait(&condition_, &mutex_, &deadline) == 0;
    }

    // Likewise by a clock that nobody sets.
    bool waitUntil(std::chrono::steady_clock::time_point deadline) KEL_REQUIRES(this) {
        const auto since = std::chrono::duration_cast<std::chrono::nanoseconds>(deadline.time_since_epoch()).count();
        const timespec at{since / 1000000000L, since % 1000000000L};
        return pthread_cond_clockwait(&condition_, &mutex_, CLOCK_MONOTONIC, &at) == 0;
    }

    void signal() { pthread_cond_signal(&condition_); }
    void broadcast() { pthread_cond_broadcast(&condition_); }

private:
    pthread_cond_t condition_;
};

// The wall-clock time `milliseconds` from now, as PCondMutex::waitUntil takes it.
inline timespec DeadlineIn(long milliseconds) {
    timespec deadline{};
    clock_gettime(CLOCK_REALTIME, &deadline);
    deadline.tv_sec += milliseconds / 1000;
    deadline.tv_nsec += (milliseconds % 1000) * 1000000L;
    if (deadline.tv_nsec >= 1000000000L) {
        deadline.tv_nsec -= 1000000000L;
        ++deadline.tv_sec;
    }
    return deadline;
}

// A reader/writer lock: any number of readers or one writer, who comes before the readers that come after him. By
// default he would come when there is no reader left, and where readers overlap there always is one.
//
// So nobody may take it for reading while he has it for reading: with a writer between the two he waits for himself.
// Nor may two locks be taken for reading in either order. Who holds one here takes at most another kind of lock, or, of
// the registry's, a satellite's after it.
class KEL_API KEL_CAPABILITY("shared_mutex") PReadWriteLock {
public:
    PReadWriteLock() {
        pthread_rwlockattr_t kind;  // the C library's own, as POSIX has none that says who comes first
        pthread_rwlockattr_init(&kind);
        pthread_rwlockattr_setkind_np(&kind, PTHREAD_RWLOCK_PREFER_WRITER_NONRECURSIVE_NP);
        pthread_rwlock_init(&lock_, &kind);
        pthread_rwlockattr_destroy(&kind);
    }
    virtual ~PReadWriteLock() { pthread_rwlock_destroy(&lock_); }
    PReadWriteLock(const PReadWriteLock&) = delete;
    PReadWriteLock& operator=(const PReadWriteLock&) = delete;

    void lockRead() KEL_ACQUIRE_SHARED() { pthread_rwlock_rdlock(&lock_); }
    void unlockRead() KEL_RELEASE_SHARED() { pthread_rwlock_unlock(&lock_); }
    void lockWrite() KEL_ACQUIRE() { pthread_rwlock_wrlock(&lock_); }
    void unlockWrite() KEL_RELEASE() { pthread_rwlock_unlock(&lock_); }

private:
    pthread_rwlock_t lock_;
};

// Scoped holders: they release on every path out of a block, exceptions included.
class KEL_SCOPED_CAPABILITY PMutexHold {
public:
    explicit PMutexHold(PMutex& mutex) KEL_ACQUIRE(mutex) : mutex_(mutex) { mutex_.lock(); }
    ~PMutexHold() KEL_RELEASE() { mutex_.unlock(); }
    PMutexHold(const PMutexHold&) = delete;
    PMutexHold& operator=(const PMutexHold&) = delete;

private:
    PMutex& mutex_;
};

class KEL_SCOPED_CAPABILITY PReadHold {
public:
    explicit PReadHold(PReadWriteLock& lock) KEL_ACQUIRE_SHARED(lock) : lock_(lock) { lock_.lockRead(); }
    ~PReadHold() KEL_RELEASE_GENERIC() { lock_.unlockRead(); }
    PReadHold(const PReadHold&) = delete;
    PReadHold& operator=(const PReadHold&) = delete;

private:
    PReadWriteLock& lock_;
};

class KEL_SCOPED_CAPABILITY PWriteHold {
public:
    explicit PWriteHold(PReadWriteLock& lock) KEL_ACQUIRE(lock) : lock_(lock) { lock_.lockWrite(); }
    ~PWriteHold() KEL_RELEASE() { lock_.unlockWrite(); }
    PWriteHold(const PWriteHold&) = delete;
    PWriteHold& operator=(const PWriteHold&) = delete;

private:
    PReadWriteLock& lock_;
};

// A manual-reset event. It stays signalled until reset: later waiters do not block.
class KEL_API PManualEvent : public PCondMutex {
public:
    explicit PManualEvent(bool signalled = false) : signalled_(signalled) {}

    void set() KEL_EXCLUDES(this) {
        PMutexHold hold(*this);
        signalled_ = true;
        broadcast();
    }

    void reset() KEL_EXCLUDES(this) {
        PMutexHold hold(*this);
        signalled_ = false;
    }

    void waitSignalled() KEL_EXCLUDES(this) {
        PMutexHold hold(*this);
        while (!signalled_) wait();
    }

    // Waits for at most `milliseconds`; true when the event is signalled.
    bool waitSignalled(long milliseconds) KEL_EXCLUDES(this) {
        const timespec deadline = DeadlineIn(milliseconds);
        PMutexHold hold(*this);
        while (!signalled_ && waitUntil(deadline)) {
        }
        return signalled_;
    }

    // Clears the event and says whether it was signalled: the caller for whom this is true owns what the event stands
    // for.
    bool testAndReset() KEL_EXCLUDES(this) {
        PMutexHold hold(*this);
        return std::exchange(signalled_, false);
    }

private:
    bool signalled_ KEL_GUARDED_BY(this);
};

// A value with the mutex that guards it: hold the lock (it is a PMutex) while using value().
template <typename T>
class PLocker : public PMutex {
public:
    T& value() KEL_REQUIRES(this) { return value_; }
    const T& value() const KEL_REQUIRES(this) { return value_; }

private:
    T value_{};
};
