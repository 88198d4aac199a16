#include "registry/Turns.h"

void NameTurns::Begin(const CStdStr& name) {
    PManualEvent itsTurn;
    {
        PMutexHold hold(lock_);
        const auto [waiting, isFree] = taken_.try_emplace(name);
        if (isFree) return;
        waiting->second.push_back(&itsTurn);
    }
    itsTurn.waitSignalled();
    PMutexHold hold(lock_);  // whoever signalled it has let go of it
}

void NameTurns::End(const CStdStr& name) {
    PMutexHold hold(lock_);
    const auto turn = taken_.find(name);
    Waiting& waiting = turn->second;
    if (waiting.empty()) {
        taken_.erase(turn);
        return;
    }
    PManualEvent& next = *waiting.front();
    waiting.pop_front();
    next.set();
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
