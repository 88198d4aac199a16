#include "platform/SocketEvents.h"

#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <system_error>

namespace kel::platform {

namespace {

constexpr uint64_t ofWake = ~uint64_t{0};
constexpr int maxAtOnce = 64;

epoll_event Interest(uint64_t tag, SocketEvents::For what) {
    epoll_event interest{};
    interest.events = EPOLLET | EPOLLRDHUP;
    if (what != SocketEvents::For::end) interest.events |= EPOLLIN;
    if (what == SocketEvents::For::readingAndWriting) interest.events |= EPOLLOUT;
    interest.data.u64 = tag;
    return interest;
}

int Control(int poll, int operation, int socket, epoll_event interest) {
    return epoll_ctl(poll, operation, socket, &interest) == 0 ? 0 : errno;
}

}  // namespace

SocketEvents::SocketEvents() : poll_(epoll_create1(EPOLL_CLOEXEC)), wake_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
    int error = poll_ < 0 || wake_ < 0 ? errno : 0;
    if (error == 0) error = Watch(wake_, ofWake, For::reading);
    if (error == 0) return;
    if (poll_ >= 0) close(poll_);
    if (wake_ >= 0) close(wake_);
    throw std::system_error(error, std::generic_category(), "epoll");
}

SocketEvents::~SocketEvents() {
    close(wake_);
    close(poll_);
}

int SocketEvents::Watch(int socket, uint64_t tag, For what) {
    return Control(poll_, EPOLL_CTL_ADD, socket, Interest(tag, what));
}

int SocketEvents::Change(int socket, uint64_t tag, For what) {
    return Control(poll_, EPOLL_CTL_MOD, socket, Interest(tag, what));
}

void SocketEvents::Forget(int socket) { (void)Control(poll_, EPOLL_CTL_DEL, socket, {}); }

int SocketEvents::Wait(Event* events, int count, int milliseconds) {
    std::array<epoll_event, maxAtOnce> happened;
    const int number = epoll_wait(poll_, happened.data(), std::min(count, maxAtOnce), milliseconds);
    int told = 0;
    for (int i = 0; i < number; ++i) {
        const epoll_event& one = happened[static_cast<size_t>(i)];
        if (one.data.u64 == ofWake) continue;
        const bool ended = (one.events & (EPOLLRDHUP | EPOLLHUP | EPOLLERR)) != 0;
        events[told++] = {one.data.u64, ended || (one.events & EPOLLIN) != 0, (one.events & EPOLLOUT) != 0, ended};
    }
    return told;
}

// The counter is never read: each addition to it is a change.
void SocketEvents::Wake() {
    const uint64_t one = 1;
    (void)!write(wake_, &one, sizeof one);
}

}  // namespace kel::platform
