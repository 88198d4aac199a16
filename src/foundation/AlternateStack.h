// AlternateStack: a second stack for the calling thread, on which the system runs those signal handlers that ask for
// one (SA_ONSTACK). Without it a thread that has used up its own stack has nowhere to run the handler of the fault, and
// the process ends without a trace. Every PThread has one while it runs.
//
// It belongs to the thread that creates it, which also destroys it. A page that may not be touched lies below it.
#pragma once

#include <signal.h>

#include <cstddef>

class AlternateStack {
public:
    // Keeps a stack that the thread has already, when that is large enough. Without memory for one the thread stays as
    // it is.
    AlternateStack();
    // Puts back what the thread had before.
    ~AlternateStack();
    AlternateStack(const AlternateStack&) = delete;
    AlternateStack& operator=(const AlternateStack&) = delete;

private:
    void* memory_ = nullptr;  // null when the thread's own is kept
    size_t length_ = 0;
    stack_t before_{};
};
