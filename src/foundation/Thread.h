// Threads: a PThread runs a delegate (a member function of an object, or a free function) on a POSIX thread of its own.
//
//     std::unique_ptr<PThread> thread(new PThread(new PThreadDelegateMember<Poller>(this, &Poller::run)));
//     thread->Start();   // returns when the new thread runs
//     ...
//     thread->Join();
#pragma once

#include "foundation/Export.h"

#include <pthread.h>
#include <boost/shared_ptr.hpp>

#include <cstddef>

// The work of a thread. It belongs to the PThread that it is given to and is destroyed when both the thread has ended
// and its PThread is gone. An exception that leaves Invoke ends the process.
class KEL_API PThreadDelegateGeneric {
public:
    virtual ~PThreadDelegateGeneric();
    virtual unsigned int Invoke(void* argument) = 0;
    // A new copy of the delegate, which belongs to the caller.
    virtual PThreadDelegateGeneric* clone() const = 0;
};

// Calls a member function of an object, which has to outlive the thread.
template <typename T>
class PThreadDelegateMember : public PThreadDelegateGeneric {
public:
    using Method = unsigned int (T::*)(void*);

    PThreadDelegateMember(T* object, Method method) : object_(object), method_(method) {}
    unsigned int Invoke(void* argument) override { return (object_->*method_)(argument); }
    PThreadDelegateMember* clone() const override { return new PThreadDelegateMember(*this); }

private:
    T* object_;
    Method method_;
};

// Calls a free function.
class KEL_API PThreadDelegateFunction : public PThreadDelegateGeneric {
public:
    using Function = unsigned int (*)(void*);

    explicit PThreadDelegateFunction(Function function) : function_(function) {}
    unsigned int Invoke(void* argument) override;
    PThreadDelegateFunction* clone() const override;

private:
    Function function_;
};

// One thread. The object belongs to whoever started it, and its members are for that one thread to call. It may go
// before its thread ends: a thread that was not joined by then is detached and runs its delegate to the end.
class KEL_API PThread {
public:
    // Takes the delegate over, which must not be null; `argument` is what it is invoked with.
    explicit PThread(PThreadDelegateGeneric* delegate, void* argument = nullptr);
    virtual ~PThread();
    PThread(const PThread&) = delete;
    PThread& operator=(const PThread&) = delete;

    // Has the thread get a stack of so many bytes (at least 64 KiB) instead of the system's default. Many short threads
    // are made faster with small ones: the system keeps more of them for the next. Before Start.
    void SetStackSize(size_t bytes) { stackSize_ = bytes; }

    // Creates the thread and returns when it runs; at most once. Throws std::runtime_error "Failed to create thread: N"
    // with the error number when the system has no thread to give.
    void Start();

    // Waits for the thread to end and returns its delegate's result; 0 when there is no thread to wait for.
    unsigned int Join();

    // The entry of every thread: `self` is the PThread.
    static void* _PThread_delegate_helper_function(void* self);

private:
    struct ThreadData;

    pthread_t handle_{};
    boost::shared_ptr<ThreadData> data_;
    size_t stackSize_ = 0;  // the default
    bool joined_ = true;    // there is nothing to join before Start either
};
