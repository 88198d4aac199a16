#include "rpc/satellite/EventQueue.h"

#include "rpc/transport/LibraryLog.h"
#include "rpc/values/KelException.h"

#include <utility>

namespace kel {

EventQueue::EventQueue(transport::Endpoint& endpoint, std::string what) : endpoint_(endpoint), what_(std::move(what)) {}

void EventQueue::Append(std::function<void()> event, size_t bytes) {
    PMutexHold hold(lock_);
    while (bytes_ > transport::maxNotificationBytes && !stopped_) lock_.wait();
    if (stopped_) return;
    events_.push_back({std::move(event), bytes});
    bytes_ += bytes;
    if (running_) return;
    endpoint_.Post([this] { Run(); });
    running_ = true;
}

void EventQueue::Stop() {
    std::deque<Event> dropped;
    PMutexHold hold(lock_);
    stopped_ = true;
    dropped.swap(events_);
    lock_.broadcast();
}

void EventQueue::Run() {
    for (;;) {
        Event next;
        {
            PMutexHold hold(lock_);
            if (events_.empty()) {
                running_ = false;
                return;
            }
            next = std::move(events_.front());
            events_.pop_front();
            bytes_ -= next.bytes;
            lock_.broadcast();
        }
        RunOne(next.run);
    }
}

// The author's code may throw what it likes.
void EventQueue::RunOne(const std::function<void()>& event) const {
    try {
        event();
    } catch (const KelException& error) {
        CBBLog::error(LibraryLogger(), "libkel: %s failed: %s", what_.c_str(), error.GetMessage());
    } catch (const std::exception& error) {
        CBBLog::error(LibraryLogger(), "libkel: %s failed: %s", what_.c_str(), error.what());
    } catch (...) {
        CBBLog::error(LibraryLogger(), "libkel: %s failed", what_.c_str());
    }
}

}  // namespace kel
