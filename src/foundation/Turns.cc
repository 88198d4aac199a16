#include "foundation/Turns.h"

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
