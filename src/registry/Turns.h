// Who may do something next, when several threads want to and it takes too long to hold a lock meanwhile: writing a
// file, telling many. A thread has the turn instead, and threads with other things to do go their way.
#pragma once

#include "foundation/Locks.h"
#include "foundation/StdString.h"

#include <cstdint>
#include <deque>
#include <map>

// One turn a name, without regard to ASCII case. A thread must not take a turn while it has another of the same object.
class NameTurns {
public:
    // Waits for the turn of `name`, which goes to those who wait in their order, then has it.
    void Begin(const CStdStr& name) EXCLUDES(lock_);
    void End(const CStdStr& name) EXCLUDES(lock_);

    // Has a turn for the length of a block.
    class Hold {
    public:
        Hold(NameTurns& turns, const CStdStr& name) : turns_(turns), name_(name) { turns_.Begin(name_); }
        ~Hold() { turns_.End(name_); }
        Hold(const Hold&) = delete;
        Hold& operator=(const Hold&) = delete;

    private:
        NameTurns& turns_;
        const CStdStr name_;
    };

private:
    // Who waits for a name that somebody has the turn of, the first to get it next.
    using Waiting = std::deque<PManualEvent*>;

    PMutex lock_;
    std::map<CStdStr, Waiting, CaseInsensitiveLess> taken_ GUARDED_BY(lock_);
};

// One file that everybody rewrites with whatever is true at that moment. Threads that ask while a write runs are all
// served by the next one, so the file never goes backwards and a crowd does not write it once a head.
class SharedWrite {
public:
    // Returns once a write that began after this call has succeeded, or once this thread's own has ended. `write` takes
    // no arguments, gathers what is to be written itself, and says whether it succeeded; an exception counts as a
    // failure and passes through. Returns whether what was to be written is there.
    template <typename Write>
    bool Run(Write write) {
        if (!BeginUnlessServed()) return true;
        Finish finish{*this};
        return finish.succeeded = write();
    }

private:
    struct Finish {
        SharedWrite& shared;
        bool succeeded = false;
        ~Finish() { shared.End(succeeded); }
    };

    bool BeginUnlessServed() EXCLUDES(lock_);
    void End(bool succeeded) EXCLUDES(lock_);

    // Writes are numbered from 1 in the order in which they begin, which is the order in which they end.
    PCondMutex lock_;
    bool running_ GUARDED_BY(lock_) = false;
    uint64_t begun_ GUARDED_BY(lock_) = 0;
    uint64_t succeeded_ GUARDED_BY(lock_) = 0;  // the latest that did
};
