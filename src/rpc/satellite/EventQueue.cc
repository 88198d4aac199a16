#include "rpc/satellite/EventQueue.h"

#include "rpc/transport/LibraryLog.h"
#include "rpc/values/KelException.h"

#include <utility>

namespace kel {

EventQueue::EventQueue(transport::Endpoint& endpoint, std::string what)
    : endpoint_(endpoint), what_(std::move(what)), strand_(transport::maxNotificationBytes) {}

void EventQueue::Append(std::function<void()> event, size_t bytes) {
    if (!strand_.Append(std::move(event), bytes)) return;
    try {
        endpoint_.Post([this] { Run(); });
    } catch (...) {
        strand_.GiveUp();
        throw;
    }
}

void EventQueue::Stop() { strand_.Stop(); }

void EventQueue::Run() {
    while (const auto event = strand_.Take()) RunOne(*event);
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
