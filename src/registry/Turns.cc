#include "registry/Turns.h"

void NameTurns::Begin(const CStdStr& name) {
    PMutexHold hold(lock_);
    while (!taken_.insert(name).second) {
        ++waiting_;
        lock_.wait();
        --waiting_;
    }
}

void NameTurns::End(const CStdStr& name) {
    PMutexHold hold(lock_);
    taken_.erase(name);
    if (waiting_ > 0) lock_.broadcast();
}

bool SharedWrite::BeginUnlessServed() {
    PMutexHold hold(lock_);
    const uint64_t begunBefore = begun_;
    while (running_ && succeeded_ <= begunBefore) lock_.wait();
    if (succeeded_ > begunBefore) return false;
    running_ = true;
    ++begun_;
    return true;
}

void SharedWrite::End(bool succeeded) {
    PMutexHold hold(lock_);
    running_ = false;
    if (succeeded) succeeded_ = begun_;
    lock_.broadcast();
}
