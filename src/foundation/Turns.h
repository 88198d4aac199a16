// Who may do something next, when several threads want to and it takes too long to hold a lock meanwhile: writing a
// file, telling many. A thread has the turn instead, and threads with other things to do go their way.
#pragma once

#include "foundation/Locks.h"
#include "foundation/StdString.h"

#include <deque>
#include <map>

// One turn a name, without regard to ASCII case. A thread must not take a turn while it has another of the same object.
class NameTurns {
public:
    // Waits for the turn of `name`, which goes to those who wait in their order, then has it.
    void Begin(const CStdStr& name) KEL_EXCLUDES(lock_);
    void End(const CStdStr& name) KEL_EXCLUDES(lock_);

    // Has a turn for the length of a block.
    class Hold {
    public:
        Hold(NameTurns& turns, const CStdStr& name) : Hold(&turns, name) {}
        // Nothing when there is nobody to take turns with.
        Hold(NameTurns* turns, const CStdStr& name) : turns_(turns), name_(name) {
            if (turns_) turns_->Begin(name_);
        }
        ~Hold() {
            if (turns_) turns_->End(name_);
        }
        Hold(const Hold&) = delete;
        Hold& operator=(const Hold&) = delete;

    private:
        NameTurns* const turns_;
        const CStdStr name_;
    };

private:
    // Who waits for a name that somebody has the turn of, the first to get it next.
    using Waiting = std::deque<PManualEvent*>;

    PMutex lock_;
    std::map<CStdStr, Waiting, CaseInsensitiveLess> taken_ KEL_GUARDED_BY(lock_);
};
