// The liveness checks under way. Their threads share it with the registry, so that the last of them may still say that
// it has ended when whoever waited for that is already gone.
#pragma once

#include "foundation/Locks.h"

#include <cstdint>

// Any thread.
class RunningChecks {
public:
    void Begin() KEL_EXCLUDES(lock_) {
        PMutexHold hold(lock_);
        ++running_;
    }

    void End() KEL_EXCLUDES(lock_) {
        PMutexHold hold(lock_);
        if (--running_ == 0) lock_.broadcast();
    }

    // Returns when none is running.
    void Wait() KEL_EXCLUDES(lock_) {
        PMutexHold hold(lock_);
        while (running_ > 0) lock_.wait();
    }

private:
    PCondMutex lock_;  // broadcast when the last one has ended
    uint64_t running_ KEL_GUARDED_BY(lock_) = 0;
};
