// The liveness checks under way. Their threads share it with the registry, so that the last of them may still say that
// it has ended when whoever waited for that is already gone.
#pragma once

#include "foundation/Locks.h"

#include <array>
#include <cstdint>

// Any thread; one at a time may wait. Checks are counted by whether they began before or after the latest wait.
class RunningChecks {
public:
    // A check begins. Returns what End takes.
    unsigned Begin() KEL_EXCLUDES(lock_) {
        PMutexHold hold(lock_);
        ++running_[generation_];
        return generation_;
    }

    void End(unsigned generation) KEL_EXCLUDES(lock_) {
        PMutexHold hold(lock_);
        if (--running_[generation] == 0 && isAwaited_) lock_.broadcast();
    }

    // Returns when none is running of those that began before this call.
    void Wait() KEL_EXCLUDES(lock_) {
        PMutexHold hold(lock_);
        const unsigned before = generation_;
        generation_ = 1 - generation_;
        isAwaited_ = true;
        while (running_[before] > 0) lock_.wait();
        isAwaited_ = false;
    }

private:
    PCondMutex lock_;
    std::array<uint64_t, 2> running_ KEL_GUARDED_BY(lock_){};
    unsigned generation_ KEL_GUARDED_BY(lock_) = 0;
    bool isAwaited_ KEL_GUARDED_BY(lock_) = false;
};
