#include "platform/NetworkChanges.h"

#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>

namespace kel::platform {

NetworkChanges::~NetworkChanges() { Close(); }

bool NetworkChanges::Open() {
    socket_ = ::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, NETLINK_ROUTE);
    ready_ = epoll_create1(EPOLL_CLOEXEC);
    sockaddr_nl groups{};
    groups.nl_family = AF_NETLINK;
    groups.nl_groups = RTMGRP_LINK | RTMGRP_IPV4_IFADDR | RTMGRP_IPV4_ROUTE;
    epoll_event readable{};
    readable.events = EPOLLIN;
    return bind(socket_, reinterpret_cast<const sockaddr*>(&groups), sizeof groups) == 0 &&
           epoll_ctl(ready_, EPOLL_CTL_ADD, socket_, &readable) == 0;
}

void NetworkChanges::Close() {
    if (socket_ >= 0) close(socket_);
    if (ready_ >= 0) close(ready_);
    socket_ = ready_ = -1;
}

// Every look-up asks, and nearly always in vain: the system answers epoll_wait in half the time that a read takes. What
// has changed is not read: of a message one byte is taken. ENOBUFS says that messages were lost.
bool NetworkChanges::HaveHappened() {
    if (ready_ < 0) {
        if (!Open()) Close();
        return true;
    }
    epoll_event event{};
    if (epoll_wait(ready_, &event, 1, 0) == 0) return false;
    for (;;) {
        char byte;
        const bool isRead = recv(socket_, &byte, sizeof byte, MSG_DONTWAIT) >= 0;
        if (!isRead && errno != ENOBUFS && errno != EINTR) return true;
    }
}

}  // namespace kel::platform
