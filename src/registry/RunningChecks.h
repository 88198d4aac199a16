// The liveness checks under way. Their threads share it with the registry, so that the last of them may still say that
// it has ended when whoever waited for that is already gone.
#pragma once

#include "foundation/Locks.h"

#include <cstdint>
#include <set>

// Any thread.
class RunningChecks {
public:
    // Numbers a check that begins.
    uint64_t Begin() EXCLUDES(lock_) {
        PMutexHold hold(lock_);
        running_.insert(next_);
        return next_++;
    }

    void End(uint64_t number) EXCLUDES(lock_) {
        PMutexHold hold(lock_);
        running_.erase(number);
        lock_.broadcast();
    }

    // Returns when none is running of those that began before this call.
    void Wait() EXCLUDES(lock_) {
        PMutexHold hold(lock_);
        const uint64_t end = next_;
        while (!running_.empty() && *running_.begin() < end) lock_.wait();
    }

private:
    PCondMutex lock_;
    std::set<uint64_t> running_ GUARDED_BY(lock_);
    uint64_t next_ GUARDED_BY(lock_) = 0;
};
