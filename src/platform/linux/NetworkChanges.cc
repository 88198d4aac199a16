#include "platform/NetworkChanges.h"

#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>

namespace kel::platform {

NetworkChanges::~NetworkChanges() {
    if (socket_ >= 0) close(socket_);
}

void NetworkChanges::Open() {
    socket_ = ::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, NETLINK_ROUTE);
    if (socket_ < 0) return;
    sockaddr_nl groups{};
    groups.nl_family = AF_NETLINK;
    groups.nl_groups = RTMGRP_LINK | RTMGRP_IPV4_IFADDR | RTMGRP_IPV4_ROUTE;
    if (bind(socket_, reinterpret_cast<const sockaddr*>(&groups), sizeof groups) == 0) return;
    close(socket_);
    socket_ = -1;
}

// What has changed is not read: of a message one byte is taken. ENOBUFS says that messages were lost.
bool NetworkChanges::HaveHappened() {
    if (socket_ < 0) {
        Open();
        return true;
    }
    bool any = false;
    for (;;) {
        char byte;
        if (recv(socket_, &byte, sizeof byte, MSG_DONTWAIT) >= 0 || errno == ENOBUFS) any = true;
        else if (errno != EINTR) return any || (errno != EAGAIN && errno != EWOULDBLOCK);
    }
}

}  // namespace kel::platform
