#include "foundation/Thread.h"

#include "foundation/AlternateStack.h"
#include "foundation/StdString.h"

#include <boost/make_shared.hpp>
#include <boost/smart_ptr/bad_weak_ptr.hpp>
#include <boost/throw_exception.hpp>

#include <atomic>
#include <cstdint>
#include <memory>
#include <stdexcept>

// What the starting thread and the new one share. Each holds a reference, so neither has to outlive the other.
struct PThread::ThreadData {
    ThreadData(std::unique_ptr<PThreadDelegateGeneric> work, void* its) : delegate(std::move(work)), argument(its) {}

    std::unique_ptr<PThreadDelegateGeneric> delegate;
    std::atomic<bool> started{false};  // waited for without a lock: a round of checks starts thousands
    void* argument;
};

PThreadDelegateGeneric::~PThreadDelegateGeneric() = default;

unsigned int PThreadDelegateFunction::Invoke(void* argument) { return function_(argument); }

PThreadDelegateFunction* PThreadDelegateFunction::clone() const { return new PThreadDelegateFunction(*this); }

PThread::PThread(PThreadDelegateGeneric* delegate, void* argument)
    : data_(boost::make_shared<ThreadData>(std::unique_ptr<PThreadDelegateGeneric>(delegate), argument)) {}

PThread::~PThread() {
    if (!joined_) pthread_detach(handle_);
}

void PThread::Start() {
    // A reference of its own: the delegate may destroy this object as soon as it runs.
    const boost::shared_ptr<ThreadData> data = data_;
    joined_ = false;
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    if (stackSize_ > 0) pthread_attr_setstacksize(&attributes, stackSize_);
    const int error = pthread_create(&handle_, &attributes, &_PThread_delegate_helper_function, this);
    pthread_attr_destroy(&attributes);
    if (error != 0) {
        joined_ = true;
        CStdStr message;
        message.Format("Failed to create thread: %d", error);
        throw std::runtime_error(message);
    }
    data->started.wait(false);
}

unsigned int PThread::Join() {
    if (joined_) return 0;
    void* result = nullptr;
    pthread_join(handle_, &result);
    joined_ = true;
    return static_cast<unsigned int>(reinterpret_cast<std::uintptr_t>(result));
}

void* PThread::_PThread_delegate_helper_function(void* self) {
    // The PThread is there until `started` is set, and perhaps not a moment longer.
    boost::shared_ptr<ThreadData> data = static_cast<PThread*>(self)->data_;
    if (!data) throw boost::bad_weak_ptr();
    data->started = true;
    data->started.notify_one();
    const AlternateStack stackForFaults;
    const std::uintptr_t result = data->delegate->Invoke(data->argument);
    data.reset();
    return reinterpret_cast<void*>(result);
}
