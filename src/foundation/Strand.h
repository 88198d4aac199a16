// Strand: a queue of tasks that are taken one after the other, in the order in which they were appended, by threads of
// somebody else. It has no thread of its own: whoever appends to a strand that nobody runs, runs it or has it run, and
// whoever runs it takes from it until there is nothing left. So a task holds up those behind it and nobody else.
#pragma once

#include "foundation/Locks.h"

#include <cstddef>
#include <cstdint>
#include <deque>
#include <optional>
#include <utility>

// Any thread. Tasks that are dropped go with no lock held.
template <typename Task>
class Strand {
public:
    // When those that wait have more than `bytes` bytes, whoever appends waits as well: backpressure. With more than
    // one runner so many tasks run at a time, and only their beginnings are in order.
    explicit Strand(size_t bytes = SIZE_MAX, int runners = 1) : maxBytes_(bytes), maxRunners_(runners) {}

    // Whether the caller has to see to it now that the strand is run.
    [[nodiscard]] bool Append(Task task, size_t bytes = 0) KEL_EXCLUDES(lock_) {
        PMutexHold hold(lock_);
        while (bytes_ > maxBytes_ && !stopped_) lock_.wait();
        if (stopped_) return false;
        waiting_.push_back({std::move(task), bytes});
        bytes_ += bytes;
        if (runners_ == maxRunners_) return false;
        ++runners_;
        return true;
    }

    // For who runs the strand: the next task; nothing when there is none, and then he runs it no longer.
    std::optional<Task> Take() KEL_EXCLUDES(lock_) {
        PMutexHold hold(lock_);
        if (waiting_.empty()) {
            --runners_;
            return std::nullopt;
        }
        std::optional<Task> next(std::move(waiting_.front().task));
        bytes_ -= waiting_.front().bytes;
        waiting_.pop_front();
        lock_.broadcast();
        return next;
    }

    // For who was to run it and cannot: the next Append finds it without him.
    void GiveUp() KEL_EXCLUDES(lock_) {
        PMutexHold hold(lock_);
        --runners_;
    }

    // Drops what waits and what comes.
    void Stop() KEL_EXCLUDES(lock_) {
        std::deque<Entry> dropped;
        PMutexHold hold(lock_);
        stopped_ = true;
        dropped.swap(waiting_);
        lock_.broadcast();
    }

    // What those that wait have.
    size_t bytes() KEL_EXCLUDES(lock_) {
        PMutexHold hold(lock_);
        return bytes_;
    }

private:
    struct Entry {
        Task task;
        size_t bytes;
    };

    const size_t maxBytes_;
    const int maxRunners_;

    PCondMutex lock_;  // broadcast when there is room again, or no use in waiting for it
    std::deque<Entry> waiting_ KEL_GUARDED_BY(lock_);
    size_t bytes_ KEL_GUARDED_BY(lock_) = 0;
    int runners_ KEL_GUARDED_BY(lock_) = 0;
    bool stopped_ KEL_GUARDED_BY(lock_) = false;
};
